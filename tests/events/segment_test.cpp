// A segment: events, lazy opening, counts without opening, and what damage costs.

#include "events/segment_fixture.h"
#include "support/system_calls.h"

namespace lumbra::test {
namespace {

constexpr const char* kFiles[] = {"00000003_events.dat", "00000003_objbt.dat", "00000003_objid.dat",
                                  "00000003_objdt.dat"};

TEST_F(SegmentTest, KeepsEventsAndCountsThemUnopened) {
  for (std::uint32_t nValue = 101; nValue < 108; ++nValue) ASSERT_CODE(errOK, Add(nValue));
  std::uint32_t Values[20] = {};
  const auto Get = [&](std::uint32_t nIndex, std::uint32_t nSegment, std::uint32_t nCount, std::uint32_t nRoom) {
    std::uint32_t nGot = 99;
    m_nLast = m_pSegment->GetEvents(nIndex, nSegment, nCount, Values, nRoom, &nGot);
    return WithCode(nGot);
  };
  EXPECT_EQ((Answer{3, Name(errOK)}), Get(2, 0, 3, sizeof(Values)));
  EXPECT_EQ((std::tuple{102u, 104u, 0u}), (std::tuple{Values[0], Values[2], Values[3]}));
  EXPECT_EQ((Answer{0, Name(errNO_MORE_EVENTS)}), Get(8, 0, 10, sizeof(Values)));
  EXPECT_EQ((Answer{3, Name(errNO_MORE_EVENTS)}), Get(5, kNumber, 10, sizeof(Values)));
  EXPECT_EQ((std::tuple{105u, 107u, 0u}), (std::tuple{Values[0], Values[2], Values[3]}));
  EXPECT_EQ((Answer{2, Name(errNO_MORE_EVENTS)}), Get(0, 0, 5, 8));  // room for two
  FailCalls(SystemCall::ReadAt, os::kIoDevice);
  EXPECT_EQ((Answer{0, Name(errREAD_FAILED)}), Get(0, 0, 5, sizeof(Values)));
  const std::uint32_t nNew = 7;
  EXPECT_CODE(errOK, m_pSegment->UpdateEvent(1, kNumber, &nNew, 4));
  EXPECT_EQ((Answer{1, Name(errOK)}), Get(1, 0, 1, 4));
  EXPECT_EQ(7u, Values[0]);
  EXPECT_EQ(Name(errOBJECT_NOT_FOUND), Get(1, 4, 1, 4).second);
  EXPECT_CODE(errOBJECT_NOT_FOUND, m_pSegment->UpdateEvent(1, 4, &nNew, 4));
  EXPECT_CODE(errPARAMETER_INVALID, m_pSegment->AddEvent(&nNew, 3, nullptr));
  EXPECT_EQ(44u, FileSize(kFiles[0]));

  EXPECT_CODE(errNOT_FOUND, Start(Segment::Files::Existing, false, 4));
  ResetSystem();
  ASSERT_CODE(errOK, Start(Segment::Files::Existing));
  EXPECT_EQ((Answer{8, Name(errOK)}), EventCount());
  EXPECT_EQ((std::pair{UINT64_C(0), UINT64_C(0)}), (std::pair{CallsOf(SystemCall::Open), m_pSegment->GetAge()}));
  SetClock(1000);  // set back before the creation
  EXPECT_EQ(0u, m_pSegment->GetAge());
  EXPECT_CODE(errOK, Add(8));  // opens
  EXPECT_EQ((Answer{9, Name(errOK)}), EventCount());
  EXPECT_CODE(errOK, m_pSegment->Flush());
  EXPECT_EQ(1u, CallsOf(SystemCall::Sync));
}

TEST_F(SegmentTest, LosesItsEventsToAForeignHeaderAndAllToANewSegment) {
  const std::uint64_t nName = Find(77, u"name");
  m_pSegment.reset();
  Patch(kFiles[0], 0, {'X'});
  ASSERT_CODE(errOK, Start(Segment::Files::Existing));
  EXPECT_EQ(u"name", NameOf(nName));
  EXPECT_EQ((Answer{0, Name(errOK)}), EventCount());
  ASSERT_CODE(errOK, Start(Segment::Files::New));
  EXPECT_EQ(0u, Find(77, u"name", findOnly));
}

TEST_F(SegmentTest, FailsToOpenOnceForAllForReasonsOfItsOwn) {
  const auto ExpectFailure = [&](const std::string& Code, bool bKept) {
    ASSERT_CODE(errOK, Start(Segment::Files::Existing));
    for (const std::uint32_t nValue : {2u, 3u}) EXPECT_CODE(errOPEN_FAILED, Add(nValue)) << Code << nValue;
    EXPECT_EQ(std::vector{"300 Failed step. Err: " + Code}, TakeTrace());
    for (const char* const pFile : kFiles) EXPECT_EQ(bKept, std::filesystem::exists(Folder() / pFile)) << Code << pFile;
  };
  FailCalls(SystemCall::Open, os::kAccessDenied);
  ExpectFailure("errACCESS_DENIED (0x80000045)", true);
  // A segment whose store is no store is gone with everything.
  std::filesystem::remove(Folder() / "00000003_objid.dat");
  ExpectFailure("errPARAMETER_INVALID (0x80000046)", false);
  EXPECT_CODE(errOPEN_FAILED, Add(2));  // and stays so
  EXPECT_TRUE(TakeTrace().empty());
  EXPECT_EQ((std::pair{Name(errSTORE_NOT_INITIALIZED), UINT64_C(0)}),
            (std::pair{EventCount().second, m_pSegment->GetDataSize()}));
}

// ... but not because a call failed, or the process has run out of something: that says nothing about the files.
TEST_F(SegmentTest, OpensOnceAPassingFailureHasPassed) {
  const auto FailsOnce = [&](const char* pWhat, SystemCall Call, os::SystemError nError, std::uint64_t nSkip) {
    ASSERT_CODE(errOK, Start(Segment::Files::Existing)) << pWhat;
    FailCalls(Call, nError, nSkip);
    EXPECT_CODE(errOPEN_FAILED, Add(2)) << pWhat;
    EXPECT_CODE(errOK, Add(3)) << pWhat;
  };
  for (std::uint64_t nFile = 0; nFile < 4; ++nFile)
    FailsOnce("no descriptor", SystemCall::Open, os::kTooManyOpenFiles, nFile);
  FailsOnce("a program copies the file", SystemCall::Open, os::kSharingViolation, 2);
  FailsOnce("creation time of the open file", SystemCall::Look, os::kIoDevice, 0);
  FailsOnce("header of the events", SystemCall::ReadAt, os::kIoDevice, 0);
  EXPECT_EQ((Answer{8, Name(errOK)}), EventCount());
}

TEST_F(SegmentTest, LeavesNothingOfANewSegmentWhoseFileIsRefused) {
  FailCalls(SystemCall::Open, os::kSharingViolation, 3);
  EXPECT_CODE(errOPEN_FAILED, Start(Segment::Files::New));
  for (const char* const pFile : kFiles) EXPECT_FALSE(std::filesystem::exists(Folder() / pFile)) << pFile;
}

}  // namespace
}  // namespace lumbra::test
