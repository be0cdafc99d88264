// The segment manager: the chain of segments, its limits, reading across it, and damage to its header.
#include <functional>
#include <numeric>

#include "events/lmb_smgr.h"
#include "support/system_calls.h"
#include "support/world.h"

namespace lumbra::test {
namespace {

class SegmentManagerTest : public World {
 protected:
  using Values = std::vector<std::uint32_t>;
  using Totals = std::pair<std::uint32_t, std::uint64_t>;  // segments and events

  ResultCode Init(std::uint32_t nEventSize = 4) { return m_pManager->Init(&m_Environment, nEventSize, nullptr, false); }
  // The same folder again, as after a restart; first with another content of a file, "" for none.
  void Restart(const char* pFile = "", const char* pHex = "") {
    m_pManager.reset();
    if (*pFile != 0) WriteFile(pFile, FromHex(pHex));
    m_pManager = std::make_unique<SegmentManager>();
    ASSERT_CODE(errOK, Init());
  }
  void Fill(std::uint32_t nEventsOfASegment, std::uint32_t nCount) {
    ASSERT_CODE(errOK, Init());
    m_pManager->SetSegmentMaxEvents(nEventsOfASegment);
    Add(nCount);
  }

  // Adds the next events, numbered from 1 on, and answers the id of the last.
  std::uint64_t Add(std::uint32_t nCount) {
    std::uint64_t nId = 0;
    while (nCount-- > 0) EXPECT_CODE(errOK, m_pManager->AddEvent(&++m_nLastAdded, 4, &nId)) << m_nLastAdded;
    return nId;
  }

  // What is there after a change of a limit.
  Totals Limit(void (SegmentManager::*pSet)(std::uint64_t), std::uint64_t nLimit) {
    (m_pManager.get()->*pSet)(nLimit);
    return Held();
  }
  Totals Held() { return {m_pManager->GetSegmentCount(), m_pManager->GetTotalEvents()}; }

  // The buffer has room for what is asked for, less nShort events.
  Values Get(std::uint32_t nLow, std::int32_t nHigh, std::uint32_t nCount, ResultCode nExpected = errOK,
             std::uint32_t nShort = 0) {
    Values Read(nCount + 1);  // never empty: a null buffer is refused
    std::uint32_t nGot = 99;
    EXPECT_CODE(nExpected, m_pManager->GetEvents(nLow, nHigh, Read.data(), nCount, (nCount - nShort) * 4, &nGot));
    Read.resize(nGot);
    return Read;
  }
  static Values From(std::uint32_t nFirst, std::uint32_t nCount) {
    Values Numbers(nCount);
    std::iota(Numbers.begin(), Numbers.end(), nFirst);
    return Numbers;
  }

  bool Exists(const char* pName) const { return std::filesystem::exists(Folder() / pName); }

  std::unique_ptr<SegmentManager> m_pManager = std::make_unique<SegmentManager>();
  std::uint32_t m_nLastAdded = 0;
};

TEST_F(SegmentManagerTest, StartsWithOneSegment) {
  EXPECT_CODE(errOPEN_FAILED, Init(0));
  ASSERT_CODE(errOK, Init());  // and can be tried again
  EXPECT_CODE(errALREADY_DONE, Init());
  EXPECT_CODE(errPARAMETER_INVALID, SegmentManager().Init(nullptr, 4, nullptr, false));
  EXPECT_CODE(errSTORE_NOT_INITIALIZED, SegmentManager().AddEvent("", 1, nullptr));
  EXPECT_CODE(errSTORE_NOT_INITIALIZED, SegmentManager().Clear());
  EXPECT_CODE(errOK, m_pManager->DeleteOldestSegment());
  EXPECT_EQ((Totals{1, 0}), Held());
}

TEST_F(SegmentManagerTest, StartsANewSegmentWhenOneIsFull) {
  m_pManager->SetSegmentMaxEvents(100);  // limits may come first
  ASSERT_CODE(errOK, Init());
  EXPECT_EQ((std::pair{MakeObjectId(1, 99), MakeObjectId(2, 0)}), (std::pair{Add(100), Add(1)}));
  m_pManager->SetSegmentMaxEvents(0);
  m_pManager->SetSegmentMaxSize(m_pManager->GetTotalSize());
  EXPECT_EQ(MakeObjectId(2, 200), Add(200));                                     // far from that size
  EXPECT_EQ((Totals{3, 301}), Limit(&SegmentManager::SetSegmentMaxSize, 1100));  // enforced at once
  m_pManager->SetSegmentMaxSize(0);
  EXPECT_EQ((Totals{3, 301}), Limit(&SegmentManager::SetSegmentMaxAge, 60));
  SetClock(SystemClock() + 61);
  EXPECT_EQ(MakeObjectId(4, 0), Add(1));
}

TEST_F(SegmentManagerTest, DropsTheOldestWhileThereIsTooMuch) {
  Fill(100, 250);
  m_pManager->SetDbMaxEvents(250);
  Add(1);
  EXPECT_EQ((Totals{3, 251}), Held());
  Add(1);
  EXPECT_EQ("500 Segment 1 has been deleted (0,0,FA,0)", TakeTrace().back());
  EXPECT_FALSE(Exists("00000001_events.dat") || Exists("00000001_objbt.dat"));
  EXPECT_EQ("534442480200000004000000", ToHex(ReadFile("segments.dat")));
  EXPECT_EQ(From(101, 152), Get(0, 0, 152));
  EXPECT_EQ(From(250, 3), Get(0u - 3, -1, 3));

  EXPECT_EQ((Totals{1, 52}), Limit(&SegmentManager::SetDbMaxEvents, 50));  // at once, but never the newest
  m_pManager->SetDbMaxEvents(0);
  Add(100);
  const std::uint64_t nSize = m_pManager->GetTotalSize();
  EXPECT_EQ((Totals{2, 152}), Limit(&SegmentManager::SetDbMaxSize, nSize));  // it may hold exactly its limit
  EXPECT_EQ((Totals{1, 52}), Limit(&SegmentManager::SetDbMaxSize, nSize - 1));
  m_pManager->SetDbMaxSize(0);
  Add(100);
  EXPECT_CODE(errOK, m_pManager->DeleteOldestSegment());
  EXPECT_EQ("500 Segment 4 has been deleted (1,0,0,0)", TakeTrace().back());
  Add(100);
  EXPECT_EQ((Totals{2, 152}), Limit(&SegmentManager::SetDbMaxAge, 1000));
  SetClock(SystemClock() + 2000);
  EXPECT_CODE(errOK, m_pManager->CheckLimits(false));
  EXPECT_EQ((Totals{1, 52}), Held());
}

TEST_F(SegmentManagerTest, ReadsFromAnywhere) {
  Fill(10, 35);
  for (int nRound = 0; nRound < 2; ++nRound) {
    // From the beginning, the end, and in a segment; one that is no more stands for the oldest.
    EXPECT_EQ(
        (std::vector{From(1, 35), From(9, 14), From(24, 12), From(14, 10), From(4, 2), Values{}}),
        (std::vector{Get(0, 0, 35), Get(8, 0, 14), Get(0u - 12, -1, 12), Get(3, 2, 10), Get(3, 77, 2), Get(0, 0, 0)}));
    EXPECT_EQ((std::vector{From(31, 5), From(1, 35), Values{}}),
              (std::vector{Get(30, 0, 9, errNO_MORE_EVENTS), Get(0u - 100, -1, 100, errNO_MORE_EVENTS),
                           Get(10, 2, 1, errINDEX_OUT_OF_RANGE)}));
    Restart();
  }
  EXPECT_EQ(From(6, 5), Get(5, 0, 8, errNO_MORE_EVENTS, 2));  // those of the segment that was read in full
  const std::uint32_t nNew = 1000;
  EXPECT_CODE(errOK, m_pManager->UpdateEvent(0, 2, &nNew, 4));
  EXPECT_CODE(errOK, m_pManager->UpdateEvent(0, 0, &nNew, 4));  // 0: the newest
  EXPECT_EQ((std::pair{Values{1000}, Values{1000}}), (std::pair{Get(10, 0, 1), Get(30, 0, 1)}));
  EXPECT_CODE(errOBJECT_NOT_FOUND, m_pManager->UpdateEvent(0, 9, &nNew, 4));
  EXPECT_CODE(errNOT_IMPLEMENTED, m_pManager->EnumFirstObject());
  EXPECT_CODE(errPARAMETER_INVALID, m_pManager->EnumNextObject(9));
}

TEST_F(SegmentManagerTest, ListsWithoutOpening) {
  Fill(1, 50);
  const std::uint64_t nSize = m_pManager->GetTotalSize();
  ResetSystem();
  Restart();
  EXPECT_EQ(1u, CallsOf(SystemCall::Open));  // "segments.dat"
  EXPECT_EQ((std::pair{Totals{50, 50}, nSize + 50 * 12}), (std::pair{Held(), m_pManager->GetTotalSize()}));
  EXPECT_EQ(MakeObjectId(50, 1), Add(1));  // limits are not stored
  EXPECT_EQ(5u, CallsOf(SystemCall::Open));
}

TEST_F(SegmentManagerTest, StartsAnewOnlyWhereItMust) {
  Fill(10, 35);
  Restart();
  // A size that cannot be had for a moment must not be missing from the total, on which limits depend.
  const std::uint64_t nSize = m_pManager->GetTotalSize();
  for (std::uint64_t nSkip = 0; nSkip < 16; ++nSkip) {
    FailCalls(SystemCall::Look, os::kIoDevice, nSkip);
    m_pManager = std::make_unique<SegmentManager>();
    const ResultCode nCode = Init();
    ResetSystem();
    ASSERT_CODE(errOK, Failed(nCode) ? Init() : nCode);
    ASSERT_EQ(nSize, m_pManager->GetTotalSize()) << nSkip;
  }
  std::filesystem::remove(Folder() / "00000003_events.dat");
  Restart();
  EXPECT_EQ((std::pair{Totals{2, 20}, true}), (std::pair{Held(), Exists("00000004_events.dat")}));
  m_pManager->SetSegmentMaxEvents(10);  // starts segment 3, and cleans it first
  EXPECT_EQ(MakeObjectId(3, 9), Add(10));
  EXPECT_EQ(From(36, 10), Get(20, 0, 10));

  WriteFile("something", {1});
  EXPECT_CODE(errOK, m_pManager->Clear());
  EXPECT_EQ((Totals{1, 0}), Held());
  EXPECT_FALSE(Exists("something") || Exists("00000002_events.dat"));
  EXPECT_EQ(MakeObjectId(2, 0), Add(11));  // the limit is still there
  for (const char* const pHeader : {"", "5344424801000000", "58444248 01000000 04000000", "53444248 01000000 08000000",
                                    "53444248 63000000 04000000"}) {
    Restart("segments.dat", pHeader);
    EXPECT_EQ((std::pair{UINT64_C(0), std::string("534442480100000004000000")}),
              (std::pair{m_pManager->GetTotalEvents(), ToHex(ReadFile("segments.dat"))}))
        << pHeader;
    Add(5);
  }
}

TEST_F(SegmentManagerTest, GoesOnWhenASegmentCannotBeStarted) {
  Fill(0, 10);
  m_pManager->SetDbMaxEvents(5);
  FailCalls(SystemCall::Open, os::kDiskFull, 0, UINT64_MAX);
  m_pManager->SetSegmentMaxEvents(10);
  EXPECT_EQ(MakeObjectId(1, 10), Add(1));
  ResetSystem();
  FailCalls(SystemCall::WriteAt, os::kDiskFull, 6);  // the header, after those of the four new files and the root
  EXPECT_CODE(errWRITE_FAILED, m_pManager->CheckLimits(false));
  EXPECT_EQ("300 Failed step. Err: errWRITE_FAILED (0x800000CB)", TakeTrace(300).back());
  EXPECT_EQ(MakeObjectId(2, 0), Add(1));
  EXPECT_EQ(From(12, 1), Get(0, 0, 1));

  // There is none above the highest number.
  for (const char* const pName : {"7FFFFFEF_events.dat", "7FFFFFF0_events.dat"})
    WriteFile(pName, FromHex("504c44420c00000004000000 01000000"));
  Restart("segments.dat", "53444248 efffff7f 04000000");
  EXPECT_EQ((Totals{1, 1}), Held());
  m_pManager->SetSegmentMaxEvents(1);
  EXPECT_CODE(errOUT_OF_SPACE, m_pManager->CheckLimits(false));
}

// A header that could not be written leads to a segment that is gone, until it is written again.
TEST_F(SegmentManagerTest, WritesAHeaderThatIsBehindAtTheNextOccasion) {
  Fill(10, 55);
  const std::function<void()> kOccasions[] = {[&] { Add(1); },
                                              [&] { EXPECT_CODE(errOK, m_pManager->CheckLimits(false)); },
                                              [&] { EXPECT_CODE(errOK, m_pManager->Flush()); },
                                              [&] {
                                                m_pManager.reset();
                                              }};
  std::string Digit = "2";
  for (const auto& Occasion : kOccasions) {
    FailCalls(SystemCall::WriteAt, os::kDiskFull);
    EXPECT_CODE(errWRITE_FAILED, m_pManager->DeleteOldestSegment()) << Digit;
    EXPECT_FALSE(Exists(("0000000" + std::to_string(Digit[0] - '1') + "_events.dat").c_str())) << Digit;
    Occasion();
    EXPECT_EQ("534442480" + Digit + "00000004000000", ToHex(ReadFile("segments.dat")));
    ++Digit[0];
  }
}

TEST_F(SegmentManagerTest, StartsBehindAnOldestSegmentThatHasLostAFile) {
  Fill(10, 35);
  m_pManager.reset();
  for (const char* const pName : {"00000001_objid.dat", "00000002_objdt.dat"})
    std::filesystem::remove(Folder() / pName);
  Restart();
  Get(10, 0, 1, errOPEN_FAILED);  // the second is discarded, and the first leads the chain
  EXPECT_EQ("534442480100000004000000", ToHex(ReadFile("segments.dat")));
  Get(0, 0, 1, errOPEN_FAILED);
  EXPECT_EQ("534442480300000004000000", ToHex(ReadFile("segments.dat")));
  Restart();
  EXPECT_EQ(From(21, 15), Get(0, 0, 15));
  // The last one, too; its number does not come back, and the chain goes on behind it.
  m_pManager->SetDbMaxEvents(5);
  m_pManager.reset();
  std::filesystem::remove(Folder() / "00000004_objid.dat");
  Restart();
  Get(0, 0, 1, errOPEN_FAILED);
  Restart();
  EXPECT_EQ(MakeObjectId(5, 0), Add(1));
  m_pManager.reset();
  std::filesystem::remove(Folder() / "00000005_objid.dat");
  Restart();
  Get(0, 0, 1, errOPEN_FAILED);
  EXPECT_EQ(MakeObjectId(6, 0), Add(1));
}

TEST_F(SegmentManagerTest, LosesNothingWhileTheFolderIsAway) {
  Fill(10, 35);
  Restart();
  FailCalls(SystemCall::Open, os::kPathNotFound, 2);
  Get(0, 0, 1, errOPEN_FAILED);
  fs::rename(Folder(), Folder().string() + "-away");
  Get(10, 0, 1, errOPEN_FAILED);
  fs::rename(Folder().string() + "-away", Folder());
  Restart();
  EXPECT_EQ(From(1, 35), Get(0, 0, 35));
}

TEST_F(SegmentManagerTest, StaysOpenOnWhatCouldNotBeCleared) {
  Fill(10, 35);
  FailCalls(SystemCall::Remove, os::kAccessDenied, 0, UINT64_MAX);
  EXPECT_CODE(errACCESS_DENIED, m_pManager->Clear());
  EXPECT_EQ(From(1, 35), Get(0, 0, 35));
  FailCalls(SystemCall::Remove, os::kAccessDenied, 4);  // behind the files of the last segment
  EXPECT_CODE(errACCESS_DENIED, m_pManager->Clear());
  Restart();
  EXPECT_EQ(From(1, 30), Get(0, 0, 30));
}

TEST_F(SegmentManagerTest, TakesTheNumberOfAnUnfinishedSegmentAgain) {
  WriteFile("00000005_events.dat", FromHex("504c44420c00000004000000"));
  Restart("segments.dat", "534442480500000004000000");
  EXPECT_EQ(MakeObjectId(5, 0), Add(1));
  // One that holds a name is not thrown away for the next.
  WriteFile("00000006_events.dat", FromHex("504c44420c00000004000000"));
  Restart("00000006_objid.dat", ("504c44420c0000001d000000" + std::string(58, '1')).c_str());
  EXPECT_EQ((Totals{2, 1}), Held());
}

// 20 events that are gone must not let a limit of 60 drop 40 that are there.
TEST_F(SegmentManagerTest, CountsOnWithWhatIsLeftOfASegment) {
  Fill(20, 60);
  m_pManager.reset();
  Patch("00000003_events.dat", 0, {'X'});
  Restart();
  EXPECT_EQ((Totals{3, 60}), Held());
  Add(1);
  EXPECT_EQ((Totals{3, 41}), Held());
}

}  // namespace
}  // namespace lumbra::test
