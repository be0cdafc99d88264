// A segment: events, lazy opening, counts without opening, and what damage costs.
#include <cerrno>
#include <filesystem>

#include "events/segment_fixture.h"
#include "support/system_calls.h"

namespace lumbra::test {
namespace {

using std::filesystem::exists;
using Lines = std::vector<std::string>;

constexpr const char* kFiles[] = {"00000003_events.dat", "00000003_objbt.dat", "00000003_objid.dat",
                                  "00000003_objdt.dat"};

TEST_F(SegmentTest, KeepsEvents) {
  ASSERT_CODE(errOK, Start(Segment::Files::New));
  std::uint64_t nId = 0;
  for (std::uint32_t i = 0; i < 8; ++i) ASSERT_CODE(errOK, Add(100 + i, &nId));
  EXPECT_EQ((std::uint64_t{kNumber} << 32) | 7, nId);
  std::uint32_t Values[20] = {};
  std::uint32_t nGot = 0;
  EXPECT_CODE(errOK, m_pSegment->GetEvents(2, 0, 3, Values, sizeof(Values), &nGot));
  EXPECT_EQ((std::tuple{3u, 102u, 104u, 0u}), (std::tuple{nGot, Values[0], Values[2], Values[3]}));
  EXPECT_CODE(errNO_MORE_EVENTS, m_pSegment->GetEvents(5, kNumber, 10, Values, sizeof(Values), &nGot));
  EXPECT_EQ(3u, nGot);
  EXPECT_CODE(errNO_MORE_EVENTS, m_pSegment->GetEvents(8, 0, 10, Values, sizeof(Values), &nGot));
  EXPECT_EQ(0u, nGot);
  EXPECT_CODE(errNO_MORE_EVENTS, m_pSegment->GetEvents(0, 0, 5, Values, 8, &nGot));  // room for two
  EXPECT_EQ(2u, nGot);
  const std::uint32_t nNew = 7;
  EXPECT_CODE(errOK, m_pSegment->UpdateEvent(1, kNumber, &nNew, 4));
  EXPECT_CODE(errOK, m_pSegment->GetEvents(1, 0, 1, Values, 4, &nGot));
  EXPECT_EQ(7u, Values[0]);
  EXPECT_CODE(errOBJECT_NOT_FOUND, m_pSegment->GetEvents(1, 4, 1, Values, 4, &nGot));
  EXPECT_CODE(errOBJECT_NOT_FOUND, m_pSegment->UpdateEvent(1, 4, &nNew, 4));
  const std::uint64_t nSize = FileSize(kFiles[0]);
  EXPECT_CODE(errPARAMETER_INVALID, m_pSegment->AddEvent(&nNew, 3, nullptr));
  EXPECT_EQ(nSize, FileSize(kFiles[0]));
}

TEST_F(SegmentTest, IsKnownWithoutBeingOpen) {
  EXPECT_CODE(errNOT_FOUND, Start(Segment::Files::Existing));
  ASSERT_CODE(errOK, Start(Segment::Files::New));
  for (std::uint32_t i = 0; i < 8; ++i) ASSERT_CODE(errOK, Add(i));
  const std::uint64_t nSizeOpen = m_pSegment->GetDataSize();
  ResetSystem();
  ASSERT_CODE(errOK, Start(Segment::Files::Existing));
  std::uint64_t nCount = 0;
  EXPECT_CODE(errOK, m_pSegment->GetEventCount(&nCount));
  EXPECT_EQ(8u, nCount);
  EXPECT_EQ(nSizeOpen + 12,
            m_pSegment->GetDataSize());  // the header of the event file counts among the files
  EXPECT_EQ(0u, CallsOf(SystemCall::Open));

  EXPECT_EQ(0u, m_pSegment->GetAge());
  SetClock(SystemClock() + 1000);
  EXPECT_NEAR(1000, static_cast<double>(m_pSegment->GetAge()), 5);
  SetClock(1000);  // set back before the creation
  EXPECT_EQ(0u, m_pSegment->GetAge());
  SetClock(0);

  EXPECT_CODE(errOK, Add(8));  // opens
  EXPECT_EQ(4u, CallsOf(SystemCall::Open));
  EXPECT_CODE(errOK, m_pSegment->GetEventCount(&nCount));
  EXPECT_EQ(9u, nCount);
  EXPECT_CODE(errOK, m_pSegment->Flush());
  EXPECT_EQ(1u, CallsOf(SystemCall::Sync));
}

TEST_F(SegmentTest, ANewSegmentInheritsNothing) {
  ASSERT_CODE(errOK, Start(Segment::Files::New));
  ASSERT_CODE(errOK, Add(1));
  ASSERT_NE(0u, Find(77, u"name"));
  ASSERT_CODE(errOK, Start(Segment::Files::New));
  std::uint64_t nCount = 9;
  EXPECT_CODE(errOK, m_pSegment->GetEventCount(&nCount));
  EXPECT_EQ(0u, nCount);
  EXPECT_EQ(0u, Find(77, u"name", findOnly));
}

TEST_F(SegmentTest, LosesOnlyItsEventsToAForeignHeader) {
  ASSERT_CODE(errOK, Start(Segment::Files::New));
  ASSERT_CODE(errOK, Add(1));
  const std::uint64_t nName = Find(77, u"name");
  m_pSegment.reset();
  Patch(kFiles[0], 0, {'X'});
  ASSERT_CODE(errOK, Start(Segment::Files::Existing));
  std::uint64_t nCount = 9;
  EXPECT_EQ(u"name", NameOf(nName));
  EXPECT_CODE(errOK, m_pSegment->GetEventCount(&nCount));
  EXPECT_EQ(0u, nCount);
}

// A segment whose store cannot be opened is gone with everything, and stays so.
TEST_F(SegmentTest, IsDeletedWithItsObjectStore) {
  ASSERT_CODE(errOK, Start(Segment::Files::New));
  ASSERT_CODE(errOK, Add(1));
  m_pSegment.reset();
  {
    const auto pHeld = OpenFile(u"00000003_objid.dat");
    ASSERT_CODE(errOK, Start(Segment::Files::Existing));
    TakeTrace();
    EXPECT_CODE(errOPEN_FAILED, Add(2));
  }
  EXPECT_EQ((Lines{"300 Failed step. Err: errPARAMETER_INVALID (0x80000046)"}), TakeTrace());
  for (const char* const pFile : kFiles) EXPECT_FALSE(exists(Folder() / pFile)) << pFile;
  EXPECT_CODE(errOPEN_FAILED, Add(2));
  std::uint64_t nCount = 0;
  EXPECT_CODE(errSTORE_NOT_INITIALIZED, m_pSegment->GetEventCount(&nCount));
  EXPECT_EQ(0u, m_pSegment->GetDataSize());
  EXPECT_TRUE(TakeTrace().empty());
}

// ... but not because the process has run out of descriptors or memory: that says nothing about the files.
TEST_F(SegmentTest, OutlivesAShortage) {
  ASSERT_CODE(errOK, Start(Segment::Files::New));
  ASSERT_CODE(errOK, Add(1));
  for (std::uint64_t nSkip = 0; nSkip < 4; ++nSkip) {
    ASSERT_CODE(errOK, Start(Segment::Files::Existing));
    FailCalls(SystemCall::Open, ENFILE, nSkip);
    EXPECT_CODE(errOPEN_FAILED, Add(2));
  }
  for (std::uint64_t nSkip = 0;; ++nSkip) {
    ASSERT_CODE(errOK, Start(Segment::Files::Existing));
    FailAllocation(nSkip);
    const ResultCode nCode = Add(2);
    if (!AllocationFailed()) break;
    EXPECT_CODE(errOPEN_FAILED, nCode) << nSkip;
  }
  std::uint64_t nCount = 0;
  ASSERT_CODE(errOK, Start(Segment::Files::Existing));
  EXPECT_CODE(errOK, m_pSegment->GetEventCount(&nCount));
  EXPECT_EQ(2u, nCount);
}

TEST_F(SegmentTest, FailsOnceForAll) {
  ASSERT_CODE(errOK, Start(Segment::Files::New));
  ASSERT_CODE(errOK, Add(1));
  ASSERT_CODE(errOK, Start(Segment::Files::Existing));
  TakeTrace();
  FailCalls(SystemCall::Open, EACCES);
  EXPECT_CODE(errOPEN_FAILED, Add(2));
  EXPECT_CODE(errOPEN_FAILED, Add(2));
  EXPECT_EQ((Lines{"300 Failed step. Err: errACCESS_DENIED (0x80000045)"}), TakeTrace());
  ASSERT_CODE(errOK, Start(Segment::Files::Existing));
  FailCalls(SystemCall::Look, EIO);  // the creation time of the open file
  EXPECT_CODE(errOPEN_FAILED, Add(2));
  EXPECT_EQ((Lines{"300 Failed step. Err: errREAD_FAILED (0x800000CA)"}), TakeTrace());
  for (const char* const pFile : kFiles) EXPECT_TRUE(exists(Folder() / pFile)) << pFile;
}

}  // namespace
}  // namespace lumbra::test
