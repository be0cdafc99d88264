// The segment manager: the chain of segments, its limits, reading across it, and damage to its header.
#include "events/lmb_smgr.h"
#include "support/steps.h"

namespace lumbra::test {
namespace {

// Events of 4 bytes, whose values count from 1 on.
class SegmentManagerTest : public World {
 protected:
  ~SegmentManagerTest() override { OpenSegments::SetLimit(OpenSegments::kUsualLimit); }

  ResultCode Init() { return m_pManager->Init(&m_Environment, 4, nullptr, false); }
  void Fill(std::uint32_t nEventsOfASegment, std::uint32_t nCount) {
    ASSERT_CODE(errOK, Init());
    m_pManager->SetSegmentMaxEvents(nEventsOfASegment);
    Add(nCount);
  }
  // The same folder again, as after a restart; first without a file, or with another content of it.
  void Restart(const std::string& File = "", const char* pHex = nullptr) {
    m_pManager.reset();
    if (!File.empty()) fs::remove(Folder() / File);
    if (pHex != nullptr) WriteFile(File, FromHex(pHex));
    m_pManager = std::make_unique<SegmentManager>();
    ASSERT_CODE(errOK, Init());
  }

  // Adds events, and gives the id of the last.
  std::uint64_t Add(std::uint32_t nCount) {
    std::uint64_t nId = 0;
    while (nCount-- > 0) EXPECT_CODE(errOK, m_pManager->AddEvent(&++m_nLastAdded, 4, &nId)) << m_nLastAdded;
    return nId;
  }

  // What is read from an id on, or from a position: "3 to 12" where the values are in a row, and any code but errOK.
  std::string Get(std::uint64_t nFrom, std::uint32_t nCount, std::uint32_t nRoom = 400) {
    std::vector<std::uint32_t> Read(400);
    std::uint32_t nGot = 0;
    const std::uint64_t nHigh = nFrom >> 32;
    const ResultCode nCode = m_pManager->GetEvents(static_cast<std::uint32_t>(nFrom), static_cast<std::int32_t>(nHigh),
                                                   Read.data(), nCount, nRoom * 4, &nGot);
    Read.resize(nGot);
    return Range(Read) + (nCode == errOK ? "" : std::string(", ") + ResultCodeName(nCode));
  }
  static std::string Range(const std::vector<std::uint32_t>& Read) {
    for (std::size_t i = 1; i < Read.size(); ++i)
      if (Read[i] != Read[i - 1] + 1) return Show(Read);
    return Read.empty() ? "none" : std::to_string(Read.front()) + " to " + std::to_string(Read.back());
  }
  static std::uint64_t FromEnd(std::uint64_t nEvents) { return 0 - nEvents; }
  // All events that are there, and in how many segments.
  std::string Held() {
    const auto nEvents = static_cast<std::uint32_t>(m_pManager->GetTotalEvents());
    return (nEvents == 0 ? "none" : Get(0, nEvents)) + " in " + std::to_string(m_pManager->GetSegmentCount());
  }

  bool Exists(const char* pName) const { return fs::exists(Folder() / pName); }
  void ExpectStartOnDisk(const std::string& Number) {
    EXPECT_EQ("53444248" + Number + "00000004000000", ToHex(ReadFile("segments.dat")));
  }

  std::unique_ptr<SegmentManager> m_pManager = std::make_unique<SegmentManager>();
  std::uint32_t m_nLastAdded = 0;
};

TEST_F(SegmentManagerTest, StartsASegmentBehindALargeOne) {
  Fill(0, 1);
  m_pManager->SetSegmentMaxSize(m_pManager->GetTotalSize() + 4);
  EXPECT_EQ(MakeObjectId(1, 1), Add(1));
  EXPECT_EQ(MakeObjectId(2, 0), Add(1));
}

TEST_F(SegmentManagerTest, StartsASegmentBehindAnOldOne) {
  Fill(0, 1);
  m_pManager->SetSegmentMaxAge(60);
  EXPECT_EQ(MakeObjectId(1, 1), Add(1));
  SetClock(SystemClock() + 62);  // this clock may lag behind the file system's for a moment
  EXPECT_EQ(MakeObjectId(2, 0), Add(1));
}

TEST_F(SegmentManagerTest, DropsTheOldestOfTooManyEvents) {
  Fill(100, 250);
  m_pManager->SetDbMaxEvents(250);
  EXPECT_EQ("1 to 250 in 3", Held());
  Add(2);
  EXPECT_EQ("500 Segment 1 has been deleted (0,0,FA,0)", TakeTrace().back());
  EXPECT_EQ("101 to 252 in 2", Held());
  EXPECT_FALSE(Exists("00000001_events.dat") || Exists("00000001_objbt.dat"));
  ExpectStartOnDisk("02");
  m_pManager->SetDbMaxEvents(50);  // at once, but never the newest
  EXPECT_EQ("201 to 252 in 1", Held());
}

TEST_F(SegmentManagerTest, DropsTheOldestOfTooManyBytes) {
  Fill(100, 150);
  const std::uint64_t nSize = m_pManager->GetTotalSize();
  m_pManager->SetDbMaxSize(nSize);
  EXPECT_EQ("1 to 150 in 2", Held());
  m_pManager->SetDbMaxSize(nSize - 1);
  EXPECT_EQ("101 to 150 in 1", Held());
}

TEST_F(SegmentManagerTest, DropsWhatIsTooOld) {
  Fill(100, 150);
  m_pManager->SetDbMaxAge(1000);
  SetClock(SystemClock() + 2000);
  EXPECT_CODE(errOK, m_pManager->CheckLimits(false));
  EXPECT_EQ("101 to 150 in 1", Held());
}

TEST_F(SegmentManagerTest, DropsTheOldestOnRequestButNotTheNewest) {
  Fill(100, 150);
  EXPECT_CODE(errOK, m_pManager->DeleteOldestSegment());
  EXPECT_CODE(errOK, m_pManager->DeleteOldestSegment());
  EXPECT_EQ(std::vector<std::string>{"500 Segment 1 has been deleted (1,0,0,0)"}, TakeTrace());
  EXPECT_EQ("101 to 150 in 1", Held());
}

TEST_F(SegmentManagerTest, CountsTheEventsOfSegmentsThatAreReadInFull) {
  Fill(10, 35);
  FailCalls(SystemCall::ReadAt, os::kIoDevice, 1);
  EXPECT_EQ("6 to 10, errREAD_FAILED", Get(5, 8));
  EXPECT_EQ("6 to 10, errNO_MORE_EVENTS", Get(5, 8, 6));  // of which the buffer has room for 6
}

TEST_F(SegmentManagerTest, ListsWithoutOpening) {
  Fill(1, 50);
  const std::uint64_t nSize = m_pManager->GetTotalSize();
  MarkCalls();
  Restart();
  EXPECT_EQ(1u, CallsSinceMark(SystemCall::Open));         // "segments.dat"
  EXPECT_EQ(nSize + 50 * 12, m_pManager->GetTotalSize());  // the headers count as well
  EXPECT_EQ(MakeObjectId(50, 1), Add(1));                  // limits are not stored
  EXPECT_EQ(5u, CallsSinceMark(SystemCall::Open));
}

TEST_F(SegmentManagerTest, EndsWhereASegmentIsMissing) {
  Fill(10, 35);
  Restart("00000003_events.dat");
  EXPECT_EQ("1 to 20 in 2", Held());
  EXPECT_TRUE(Exists("00000004_events.dat"));
}

TEST_F(SegmentManagerTest, StartsAnewBehindAHeaderThatIsNotItsOwn) {
  for (const auto& [pWhat, pHeader] : {std::pair{"none", ""},
                                       {"cut short", "5344424801000000"},
                                       {"another magic", "58444248 01000000 04000000"},
                                       {"events of another size", "53444248 01000000 08000000"},
                                       {"leads nowhere", "53444248 63000000 04000000"}}) {
    Restart("segments.dat", pHeader);
    EXPECT_EQ("none in 1", Held()) << pWhat;
    ExpectStartOnDisk("01");
    Add(5);
  }
}

TEST_F(SegmentManagerTest, GoesOnInASegmentWhereNoOtherCanBeStarted) {
  Fill(0, 10);
  FailCalls(SystemCall::Open, os::kDiskFull, 0, UINT64_MAX);
  m_pManager->SetSegmentMaxEvents(10);
  EXPECT_EQ(MakeObjectId(1, 10), Add(1));
}

// A header that could not be written leads to a segment that is gone, until it is written again.
TEST_F(SegmentManagerTest, WritesAHeaderThatIsBehindAtTheNextOccasion) {
  Fill(10, 55);
  const auto FallBehind = [&] {
    FailCalls(SystemCall::WriteAt, os::kDiskFull);
    EXPECT_CODE(errWRITE_FAILED, m_pManager->DeleteOldestSegment());
  };
  FallBehind();
  Add(1);
  ExpectStartOnDisk("02");
  FallBehind();
  m_pManager.reset();
  ExpectStartOnDisk("03");
}

TEST_F(SegmentManagerTest, StartsBehindOldestSegmentsThatHaveLostAFile) {
  Fill(10, 35);
  m_pManager.reset();
  fs::remove(Folder() / "00000001_objid.dat");
  Restart("00000002_objdt.dat");
  EXPECT_EQ("none, errOPEN_FAILED", Get(MakeObjectId(2, 0), 1));
  ExpectStartOnDisk("01");  // the second is gone, and the first still leads the chain
  EXPECT_EQ("none, errOPEN_FAILED", Get(MakeObjectId(1, 0), 1));
  ExpectStartOnDisk("03");
  Restart();
  EXPECT_EQ("21 to 35 in 2", Held());
}

TEST_F(SegmentManagerTest, GoesOnBehindItsOnlySegmentThatHasLostAFile) {
  Fill(10, 5);
  Restart("00000001_objid.dat");
  EXPECT_EQ("none, errOPEN_FAILED", Get(0, 1));
  EXPECT_EQ(MakeObjectId(2, 0), Add(1));
  Restart("00000002_objid.dat");
  EXPECT_EQ("none, errOPEN_FAILED", Get(0, 1));
  Restart();
  EXPECT_EQ(MakeObjectId(3, 0), Add(1));  // also after a restart no number comes back
}

TEST_F(SegmentManagerTest, LosesNothingWhileTheFolderIsAway) {
  Fill(10, 35);
  Restart();
  FailCalls(SystemCall::Open, os::kPathNotFound, 2);
  EXPECT_EQ("none, errOPEN_FAILED", Get(0, 1));
  EXPECT_EQ("1 to 35 in 4", Held());
}

#ifndef _WIN32
TEST_F(SegmentManagerTest, KeepsTheFilesOfFewSegmentsOpen) {
  const auto OpenFiles = [] {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
  };
  OpenSegments::SetLimit(3);
  const auto nBefore = OpenFiles();
  Fill(1, 100);
  SegmentManager Other;  // of the same process: what it closes is the first one's, and its own
  const std::string kOther = (Folder() / "other").string();
  StorageEnvironment OtherFolder;
  ASSERT_TRUE(OtherFolder.Init(this, fs::path(kOther).u16string().c_str(), FolderContent::Keep, false));
  ASSERT_CODE(errOK, Other.Init(&OtherFolder, 4, nullptr, false));
  Other.SetSegmentMaxEvents(1);
  for (std::uint32_t n = 0; n < 10; ++n) ASSERT_CODE(errOK, Other.AddEvent(&n, 4, nullptr));
  EXPECT_EQ("1 to 100", Get(0, 100));
  EXPECT_EQ(nBefore + 4 * (3 + 2) + 2 + 1, OpenFiles());  // segments, the two "segments.dat", and the other folder
}
#endif

TEST_F(SegmentManagerTest, ClosesNoSegmentWhoseWritesMayBeLost) {
  OpenSegments::SetLimit(0);
  ASSERT_CODE(errOK, Init());
  m_pManager->SetSegmentMaxEvents(1);
  Add(2);
  FailCalls(SystemCall::Sync, os::kIoDevice);
  Add(1);  // in a third segment, for which the first is to be closed
  EXPECT_EQ("1 to 3", Get(0, 3));
  TakeTrace();
  for (int nFlush = 1; nFlush <= 2; ++nFlush)
    Step("flush " + std::to_string(nFlush), m_pManager->Flush())
        .Is(errOK)
        .Says({"300 Failed step. Err: errWRITE_FAILED (0x800000CB)"}, 300);
}

TEST_F(SegmentManagerTest, ClosesASegmentWhenDescriptorsRunOut) {
  Fill(1, 3);
  Restart();
  EXPECT_EQ("1 to 2", Get(0, 2));  // two segments that can be closed
  FailCalls(SystemCall::Open, os::kTooManyOpenFiles);
  EXPECT_EQ("3 to 3", Get(2, 1));
  EXPECT_EQ("1 to 2", Get(0, 2));
  Restart();
  FailCalls(SystemCall::Open, os::kTooManyOpenFiles);
  EXPECT_EQ("none, errOPEN_FAILED", Get(2, 1));  // nothing to close
  EXPECT_EQ("3 to 3", Get(2, 1));
}

TEST_F(SegmentManagerTest, DropsTheOldestThoughNoNewOneCanBeStarted) {
  Fill(10, 30);
  FailCalls(SystemCall::Open, os::kDiskFull, 0, UINT64_MAX);
  m_pManager->SetDbMaxEvents(20);
  EXPECT_EQ("11 to 30 in 2", Held());
}

TEST_F(SegmentManagerTest, StaysOpenOnWhatCouldNotBeCleared) {
  Fill(10, 35);
  FailCalls(SystemCall::Remove, os::kAccessDenied, 4, UINT64_MAX);  // behind the files of the last segment
  EXPECT_CODE(errACCESS_DENIED, m_pManager->Clear());
  EXPECT_EQ("1 to 30 in 3", Held());
}

}  // namespace
}  // namespace lumbra::test
