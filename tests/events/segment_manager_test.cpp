// The segment manager: the chain of segments, its limits, reading across it, and damage to its header.
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <numeric>

#include "events/lmb_smgr.h"
#include "support/system_calls.h"
#include "support/world.h"

namespace lumbra::test {
namespace {

using std::filesystem::exists;

class SegmentManagerTest : public World {
 protected:
  using Values = std::vector<std::uint32_t>;

  ResultCode Init(std::uint32_t nEventSize = 4) {
    m_pManager = std::make_unique<SegmentManager>();
    return m_pManager->Init(&m_Environment, nEventSize, nullptr, false);
  }
  // The same folder again, as after a restart.
  ResultCode Restart() {
    m_pManager.reset();
    return Init();
  }

  // Adds the next events, numbered from 1 on.
  void Add(std::uint32_t nCount) {
    for (std::uint32_t i = 0; i < nCount; ++i) {
      ++m_nLastAdded;
      ASSERT_CODE(errOK, m_pManager->AddEvent(&m_nLastAdded, 4, &m_nLastId));
    }
  }

  Values Get(std::uint32_t nLow, std::int32_t nHigh, std::uint32_t nCount, ResultCode nExpected = errOK) {
    Values Read(nCount + 1);  // never empty: a null buffer is refused
    std::uint32_t nGot = 99;
    EXPECT_CODE(nExpected, m_pManager->GetEvents(nLow, nHigh, Read.data(), nCount, nCount * 4, &nGot));
    Read.resize(nGot);
    return Read;
  }
  static Values From(std::uint32_t nFirst, std::uint32_t nCount) {
    Values Expected(nCount);
    std::iota(Expected.begin(), Expected.end(), nFirst);
    return Expected;
  }

  std::string Header() const { return ToHex(ReadFile("segments.dat")); }
  std::uint32_t SegmentOfLast() const { return static_cast<std::uint32_t>(m_nLastId >> 32); }

  std::unique_ptr<SegmentManager> m_pManager;
  std::uint32_t m_nLastAdded = 0;
  std::uint64_t m_nLastId = 0;
};

TEST_F(SegmentManagerTest, StartsWithOneSegment) {
  ASSERT_CODE(errOK, Init());
  EXPECT_EQ(
      "53444248"
      "01000000"
      "04000000",
      Header());
  for (const char* const pName :
       {"00000001_events.dat", "00000001_objbt.dat", "00000001_objid.dat", "00000001_objdt.dat"}) {
    EXPECT_TRUE(exists(Folder() / pName)) << pName;
  }
  EXPECT_CODE(errALREADY_DONE, m_pManager->Init(&m_Environment, 4, nullptr, false));
  EXPECT_CODE(errPARAMETER_INVALID, SegmentManager().Init(nullptr, 4, nullptr, false));
  EXPECT_CODE(errSTORE_NOT_INITIALIZED, SegmentManager().AddEvent("", 1, nullptr));
  EXPECT_CODE(errSTORE_NOT_INITIALIZED, SegmentManager().Clear());
  EXPECT_CODE(errOK, m_pManager->DeleteOldestSegment());
  EXPECT_EQ(1u, m_pManager->GetSegmentCount());
}

TEST_F(SegmentManagerTest, RefusesAnEventSizeOfZero) {
  EXPECT_CODE(errOPEN_FAILED, Init(0));
  EXPECT_CODE(errOK, m_pManager->Init(&m_Environment, 4, nullptr, false));  // and can be tried again
}

TEST_F(SegmentManagerTest, StartsANewSegmentWhenOneIsFull) {
  m_pManager = std::make_unique<SegmentManager>();
  m_pManager->SetSegmentMaxEvents(100);  // limits may come first
  ASSERT_CODE(errOK, m_pManager->Init(&m_Environment, 4, nullptr, false));
  Add(100);
  EXPECT_EQ(1u, SegmentOfLast());
  Add(1);
  EXPECT_EQ(2u, SegmentOfLast());
  EXPECT_EQ(0u, static_cast<std::uint32_t>(m_nLastId));

  m_pManager->SetSegmentMaxEvents(0);
  m_pManager->SetSegmentMaxSize(m_pManager->GetTotalSize());
  Add(200);  // far from that size
  EXPECT_EQ(2u, SegmentOfLast());
  m_pManager->SetSegmentMaxSize(1100);
  EXPECT_EQ(3u, m_pManager->GetSegmentCount());  // enforced at once
  m_pManager->SetSegmentMaxSize(0);
  m_pManager->SetSegmentMaxAge(60);
  EXPECT_EQ(3u, m_pManager->GetSegmentCount());
  SetClock(SystemClock() + 61);
  Add(1);
  EXPECT_EQ(4u, SegmentOfLast());
}

TEST_F(SegmentManagerTest, DropsTheOldestWhileThereIsTooMuch) {
  ASSERT_CODE(errOK, Init());
  m_pManager->SetSegmentMaxEvents(100);
  m_pManager->SetDbMaxEvents(250);
  Add(251);
  EXPECT_EQ(251u, m_pManager->GetTotalEvents());
  TakeTrace();
  Add(1);
  EXPECT_EQ(152u, m_pManager->GetTotalEvents());
  EXPECT_EQ("500 Segment 1 has been deleted (0,0,FA,0)", TakeTrace().back());
  EXPECT_FALSE(exists(Folder() / "00000001_events.dat") || exists(Folder() / "00000001_objbt.dat"));
  EXPECT_EQ(
      "53444248"
      "02000000"
      "04000000",
      Header());
  EXPECT_EQ(From(101, 152), Get(0, 0, 152));
  EXPECT_EQ(From(250, 3), Get(static_cast<std::uint32_t>(-3), -1, 3));

  m_pManager->SetDbMaxEvents(60);  // at once, but never the newest
  EXPECT_EQ(1u, m_pManager->GetSegmentCount());
  EXPECT_EQ(From(201, 52), Get(0, 0, 52));
  m_pManager->SetDbMaxEvents(0);
  Add(100);
  const std::uint64_t nSize = m_pManager->GetTotalSize();
  m_pManager->SetDbMaxSize(nSize);  // it may hold exactly its limit
  EXPECT_EQ(2u, m_pManager->GetSegmentCount());
  m_pManager->SetDbMaxSize(nSize - 1);
  EXPECT_EQ(1u, m_pManager->GetSegmentCount());
  m_pManager->SetDbMaxSize(0);
  Add(100);
  EXPECT_CODE(errOK, m_pManager->DeleteOldestSegment());
  EXPECT_EQ("500 Segment 4 has been deleted (1,0,0,0)", TakeTrace().back());
  Add(100);
  m_pManager->SetDbMaxAge(1000);
  EXPECT_EQ(2u, m_pManager->GetSegmentCount());
  SetClock(SystemClock() + 2000);
  EXPECT_CODE(errOK, m_pManager->CheckLimits(false));
  EXPECT_EQ(1u, m_pManager->GetSegmentCount());
}

TEST_F(SegmentManagerTest, ReadsFromAnywhere) {
  ASSERT_CODE(errOK, Init());
  m_pManager->SetSegmentMaxEvents(10);
  Add(35);
  for (int nRound = 0; nRound < 2; ++nRound) {
    EXPECT_EQ(From(1, 35), Get(0, 0, 35));
    EXPECT_EQ(From(9, 14), Get(8, 0, 14));
    EXPECT_EQ(Values{}, Get(35, 0, 1, errNO_MORE_EVENTS));
    EXPECT_EQ(From(31, 5), Get(30, 0, 9, errNO_MORE_EVENTS));
    EXPECT_EQ(From(24, 12), Get(static_cast<std::uint32_t>(-12), -1, 12));
    EXPECT_EQ(From(1, 35), Get(static_cast<std::uint32_t>(-100), -1, 100, errNO_MORE_EVENTS));
    EXPECT_EQ(From(14, 10), Get(3, 2, 10));
    EXPECT_EQ(Values{}, Get(10, 2, 1, errINDEX_OUT_OF_RANGE));
    EXPECT_EQ(From(4, 2), Get(3, 77, 2));  // a segment that is no more: the oldest
    EXPECT_EQ(Values{}, Get(0, 0, 0));
    ASSERT_CODE(errOK, Restart());
  }
  Values Small(8);
  std::uint32_t nGot = 0;
  EXPECT_CODE(errNO_MORE_EVENTS, m_pManager->GetEvents(5, 0, Small.data(), 8, 24, &nGot));  // room for 6
  EXPECT_EQ(5u, nGot);  // those of the segment that was read in full
  const std::uint32_t nNew = 1000;
  EXPECT_CODE(errOK, m_pManager->UpdateEvent(0, 2, &nNew, 4));
  EXPECT_CODE(errOK, m_pManager->UpdateEvent(0, 0, &nNew, 4));  // 0: the newest
  EXPECT_EQ((Values{1000}), Get(10, 0, 1));
  EXPECT_EQ((Values{1000}), Get(30, 0, 1));
  EXPECT_CODE(errOBJECT_NOT_FOUND, m_pManager->UpdateEvent(0, 9, &nNew, 4));
  EXPECT_CODE(errNOT_IMPLEMENTED, m_pManager->EnumFirstObject());
  EXPECT_CODE(errPARAMETER_INVALID, m_pManager->EnumNextObject(9));
}

TEST_F(SegmentManagerTest, ListsWithoutOpening) {
  ASSERT_CODE(errOK, Init());
  m_pManager->SetSegmentMaxEvents(1);
  Add(50);
  const std::uint64_t nSize = m_pManager->GetTotalSize();
  m_pManager.reset();
  ResetSystem();
  ASSERT_CODE(errOK, Init());
  EXPECT_EQ(1u, CallsOf(SystemCall::Open));  // "segments.dat"
  EXPECT_EQ(50u, m_pManager->GetTotalEvents());
  EXPECT_EQ(nSize + 50 * 12, m_pManager->GetTotalSize());
  Add(1);
  EXPECT_EQ(5u, CallsOf(SystemCall::Open));
  EXPECT_EQ(50u, SegmentOfLast());  // limits are not stored
}

TEST_F(SegmentManagerTest, EndsTheChainAtAGap) {
  ASSERT_CODE(errOK, Init());
  m_pManager->SetSegmentMaxEvents(10);
  Add(35);
  m_pManager.reset();
  std::filesystem::remove(Folder() / "00000003_events.dat");
  ASSERT_CODE(errOK, Init());
  EXPECT_EQ(20u, m_pManager->GetTotalEvents());
  EXPECT_TRUE(exists(Folder() / "00000004_events.dat"));
  m_pManager->SetSegmentMaxEvents(10);  // starts segment 3, and cleans it first
  Add(10);
  EXPECT_EQ(3u, SegmentOfLast());
  EXPECT_EQ(From(36, 10), Get(20, 0, 10));
}

// Only what is known to be missing ends the chain: a failure that passes must not cost the segments that were not seen.
TEST_F(SegmentManagerTest, DoesNotStartAnewOverAPassingFailure) {
  ASSERT_CODE(errOK, Init());
  m_pManager->SetSegmentMaxEvents(10);
  Add(35);
  for (const SystemCall Failing : {SystemCall::Look, SystemCall::ReadAt, SystemCall::Open}) {
    for (std::uint64_t nSkip = 0; nSkip < 16; ++nSkip) {
      m_pManager.reset();
      FailCalls(Failing, EIO, nSkip);
      const ResultCode nCode = Init();
      ResetSystem();
      if (Failed(nCode)) {
        ASSERT_CODE(errOK, Init());
      }
      ASSERT_EQ(35u, m_pManager->GetTotalEvents()) << static_cast<int>(Failing) << ' ' << nSkip;
    }
  }
}

TEST_F(SegmentManagerTest, StartsAnewOverADamagedHeader) {
  for (const char* const pHeader : {"", "5344424801000000", "58444248 01000000 04000000", "53444248 01000000 08000000",
                                    "53444248 63000000 04000000"}) {
    std::filesystem::remove(Folder() / "segments.dat");
    m_nLastAdded = 0;
    ASSERT_CODE(errOK, Init());
    Add(5);
    m_pManager.reset();
    WriteFile("segments.dat", FromHex(pHeader));
    ASSERT_CODE(errOK, Init());
    EXPECT_EQ(0u, m_pManager->GetTotalEvents()) << pHeader;
    EXPECT_EQ("534442480100000004000000", Header());
    m_pManager.reset();
  }
}

TEST_F(SegmentManagerTest, ClearStartsAnew) {
  ASSERT_CODE(errOK, Init());
  m_pManager->SetSegmentMaxEvents(10);
  Add(35);
  WriteFile("something", {1});
  EXPECT_CODE(errOK, m_pManager->Clear());
  EXPECT_EQ(0u, m_pManager->GetTotalEvents());
  EXPECT_EQ(1u, m_pManager->GetSegmentCount());
  EXPECT_FALSE(exists(Folder() / "something") || exists(Folder() / "00000002_events.dat"));
  Add(11);  // the limit is still there
  EXPECT_EQ(2u, SegmentOfLast());
}

TEST_F(SegmentManagerTest, GoesOnWhenASegmentCannotBeStarted) {
  ASSERT_CODE(errOK, Init());
  Add(10);
  m_pManager->SetDbMaxEvents(5);
  FailCalls(SystemCall::Open, ENOSPC, 0, UINT64_MAX);
  m_pManager->SetSegmentMaxEvents(10);
  Add(1);
  EXPECT_EQ(1u, SegmentOfLast());
  ResetSystem();
  TakeTrace();
  FailCalls(SystemCall::WriteAt, ENOSPC, 6);  // the header, after those of the four new files and the root
  EXPECT_CODE(errWRITE_FAILED, m_pManager->CheckLimits(false));
  EXPECT_EQ("300 Failed step. Err: errWRITE_FAILED (0x800000CB)", TakeTrace(300).back());
  ResetSystem();
  Add(1);
  EXPECT_EQ(2u, SegmentOfLast());
  EXPECT_EQ(From(12, 1), Get(0, 0, 1));
}

TEST_F(SegmentManagerTest, EndsBelowTheHighestNumber) {
  WriteFile("segments.dat", FromHex("53444248 efffff7f 04000000"));
  WriteFile("7FFFFFEF_events.dat", FromHex("504c44420c00000004000000 01000000"));
  WriteFile("7FFFFFF0_events.dat", FromHex("504c44420c00000004000000 01000000"));
  ASSERT_CODE(errOK, Init());
  EXPECT_EQ(1u, m_pManager->GetTotalEvents());
  m_pManager->SetSegmentMaxEvents(1);
  EXPECT_CODE(errOUT_OF_SPACE, m_pManager->CheckLimits(false));
}

}  // namespace
}  // namespace lumbra::test
