// What failed calls, of the system and not of the store, may cost: nothing that is on the disk.
#include "objects/objdb_fixture.h"

namespace lumbra::test {
namespace {

class ObjectDbFaultsTest : public ObjectDbTest {
 protected:
  using Contents = std::vector<Bytes>;

  // Two by two these hashes lead to one slot of the root, and from there to a node of their own.
  static std::uint64_t PairedHash(std::uint32_t nShortId) { return nShortId << 4 | 1; }

  Contents Files() const { return {ReadFile("bt"), ReadFile("id"), ReadFile("dt")}; }

  // Closes the store, and opens it again while some calls fail.
  ResultCode OpenFailing(bool bCheckData, SystemCall Call, std::uint64_t nSkip, std::uint64_t nTimes = 1) {
    m_pDb = std::make_unique<ObjectDB>(bCheckData);
    ObjectFiles Files{OpenFile(u"bt"), OpenFile(u"id"), OpenFile(u"dt")};
    ResetSystem();
    FailCalls(Call, os::kIoDevice, nSkip, nTimes);
    return m_pDb->Open(kNumber, Files, TreeHead::Small);
  }
};

// In a sound store, and in one of which a file is to be started anew: the failure is the answer, and later all is well.
TEST_F(ObjectDbFaultsTest, AnOpeningThatCannotReadChangesNothing) {
  for (const auto& [pFile, nDamaged] : {std::pair{"dt", 9}, {"dt", 0}, {"bt", 0}, {"bt", 1041}, {"id", 4}}) {
    for (const SystemCall Failing : {SystemCall::ReadAt, SystemCall::Size}) {
      bool bReached = true;
      for (std::uint64_t nSkip = 0; bReached && nSkip < 20; ++nSkip) {
        Start(true, {{0x0101, "one"}, {0x0201, "two"}}, "data");
        m_pDb.reset();
        Patch(pFile, nDamaged, {'?'});
        TakeTrace();
        const Contents kBefore = Files();
        const ResultCode nCode = OpenFailing(false, Failing, nSkip);
        bReached = CallsOf(Failing) > nSkip;
        EXPECT_TRUE(nCode == errREAD_FAILED || nCode == errOPEN_FAILED || nCode == errOK) << Name(nCode);
        EXPECT_EQ(nCode == errREAD_FAILED, LastLine().ends_with(Name(errREAD_FAILED))) << nSkip;
        EXPECT_TRUE(Failed(nCode) || !bReached || Failing == SystemCall::Size) << pFile << nDamaged << ' ' << nSkip;
        if (Failed(nCode)) {
          EXPECT_EQ(kBefore, Files()) << pFile << nDamaged << ' ' << nSkip;
        }
        ResetSystem();
        Open(false);
        if (*pFile == 'd') {
          EXPECT_EQ((Lines{"two", "data"}), (Lines{NameOf(Find(0x0201)), DataOf(Id(2), 1)}));
        }
      }
    }
  }
}

// A data file whose magic is lost gets the one that fits the records beside it; where there are none, this process's.
TEST_F(ObjectDbFaultsTest, TheRecordsTellWhatALostMagicWas) {
  for (const bool bCheckData : {false, true}) {
    for (const auto& [nRecords, bAsWritten] : {std::pair{2, true}, {0, false}}) {
      Start(bCheckData, {{0x0101, "one"}, {0x0201, "two"}}, "data");
      m_pDb.reset();
      Patch("dt", 0, {'?'});
      fs::resize_file(Folder() / "id", 12 + nRecords * (bCheckData ? 33u : 29u));
      Open(!bCheckData);
      EXPECT_EQ(bCheckData == bAsWritten ? "ODBS" : "ODBO", ReadText("dt").substr(0, 4));
      if (bAsWritten) {
        EXPECT_EQ((Lines{"one", "data"}), (Lines{NameOf(Id(1)), DataOf(Id(2), 1)}));
      }
    }
  }
}

TEST_F(ObjectDbFaultsTest, AnUnknownSizeIsNoDamage) {
  Start(true, {{0x0101, "one"}}, "data");
  constexpr std::uint64_t kSizesBefore = 2;  // of the id file and the tree: without them nothing opens
  ASSERT_CODE(errOK, OpenFailing(true, SystemCall::Size, kSizesBefore, UINT64_MAX));
  EXPECT_EQ("one", NameOf(Id(1)));
  FailCalls(SystemCall::ReadAt, os::kIoDevice);
  EXPECT_EQ(Name(errREAD_FAILED), NameOf(Id(1)));
  EXPECT_EQ(Names({errREAD_FAILED, errREAD_FAILED}), Names({m_pDb->FastConsistencyCheck(), SetData(Id(1), 1, "new")}));
  ResetSystem();
  EXPECT_EQ(Names({errOK, errOK}), Names({m_pDb->FastConsistencyCheck(), SetData(Id(1), 1, "new")}));
  EXPECT_EQ(FileSizes(), m_pDb->GetSize());
}

// Until a lost tree is whole again, names that it does not find may be there: nothing is created in their place. A
// search goes on with the refill as soon as the fault is gone, and until then leaves what is done as it is. Two failed
// writes may leave a damaged node below the root: then the tree is filled from the start.
TEST_F(ObjectDbFaultsTest, ARefillThatFailsLosesNoName) {
  for (const auto& [Failing, nFailure, nTimes] : {std::tuple{SystemCall::ReadAt, errREAD_FAILED, UINT64_MAX},
                                                  {SystemCall::WriteAt, errWRITE_FAILED, UINT64_MAX},
                                                  {SystemCall::WriteAt, errWRITE_FAILED, UINT64_C(2)}}) {
    const auto HashIn = nTimes == 2 ? &PairedHash : &HashOf;
    bool bReached = true;
    for (std::uint64_t nSkip = 0; bReached && nSkip < 400; ++nSkip) {
      const bool bFind = nSkip % 2 == 0;
      Start(true);
      for (std::uint32_t i = 1; i <= 30; ++i) ASSERT_EQ(Id(i), Create(HashIn(i), "x"));
      Replace("bt", {});
      ResetSystem();
      FailCalls(Failing, os::kIoDevice, nSkip, nTimes);
      const ResultCode nRefilled = m_pDb->RefillEmptyTree();
      bReached = CallsOf(Failing) > nSkip;
      ASSERT_CODE(bReached ? nFailure : errOK, nRefilled) << nSkip;
      if (bReached && nTimes == UINT64_MAX) {
        const Bytes kBegun = ReadFile("bt");
        const ResultCode nMissed = CodeOf(bFind ? Find(HashIn(31)) : Create(HashIn(31), "y", nSkip % 4 == 1));
        EXPECT_EQ(Names({nFailure, nFailure}), Names({nMissed, m_pDb->FastConsistencyCheck()})) << nSkip;
        EXPECT_EQ((std::pair{UINT64_C(12) + 30 * 33, kBegun}), (std::pair{FileSize("id"), ReadFile("bt")})) << nSkip;
      }
      ResetSystem();
      for (std::uint32_t i = 1; i <= 30; ++i)
        ASSERT_EQ(Id(i), bFind ? Find(HashIn(i)) : Create(HashIn(i), "x")) << nSkip;
      EXPECT_EQ(Id(31), Create(HashIn(31), "y"));
      Open(true);
      EXPECT_EQ((std::vector{Id(1), Id(31)}), (std::vector{Find(HashIn(1)), Find(HashIn(31))})) << nSkip;
    }
  }
}

TEST_F(ObjectDbFaultsTest, ARightlyEmptyTreeIsLeftAlone) {
  Start(true);
  ASSERT_EQ(Id(1), Create(0, {}));
  ResetSystem();
  EXPECT_CODE(errOK, m_pDb->RefillEmptyTree());
  EXPECT_EQ((std::pair{UINT64_C(0), Lines()}), (std::pair{CallsOf(SystemCall::WriteAt), TakeTrace(400)}));
}

// Neither the old bytes under the new size, nor the new ones under the old.
TEST_F(ObjectDbFaultsTest, AFailedRewriteKeepsTheOldData) {
  for (const bool bCheckData : {false, true}) {
    Start(bCheckData, {{0x0101, "one"}}, "the longest of them");
    std::string Old = "the longest of them";
    for (const std::string New : {"shorter", "longer again"}) {
      for (const std::uint64_t nWritten : {0u, 1u}) {  // the block; its entry fails
        FailCalls(SystemCall::WriteAt, os::kDiskFull, nWritten);
        EXPECT_CODE(errWRITE_FAILED, SetData(Id(1), 1, New));
        EXPECT_EQ(Old, DataOf(Id(1), 1)) << bCheckData << nWritten;
      }
      ASSERT_CODE(errOK, SetData(Id(1), 1, New));
      Old = New;
    }
  }
}

// Of two records with one hash the tree's is the answer, also when the other one was read last.
TEST_F(ObjectDbFaultsTest, TheTreeDecidesBetweenRecordsOfOneHash) {
  Start(false, {{0x0101, "old"}});
  FailCalls(SystemCall::WriteAt, os::kDiskFull, 2);  // the new object's slot, behind its name and record
  EXPECT_EQ((std::vector{UINT64_C(0), Id(1)}), (std::vector{Create(0x0101, "new", true), Find(0x0101)}));
  ASSERT_EQ(Id(3), Create(0x0101, "new", true));
  for (const bool bFind : {true, false}) {
    Open(false);
    EXPECT_EQ("old", NameOf(Id(1)));
    EXPECT_EQ(Id(3), bFind ? Find(0x0101) : Create(0x0101, "old"));
  }
  EXPECT_EQ("new", NameOf(Id(3)));
  Open(false);
  EXPECT_EQ("new", NameOf(Id(3)));
  TakeTrace();
  EXPECT_EQ((std::pair{Id(3), Lines()}), (std::pair{Find(0x0101), TakeTrace()}));  // confirmed in silence
}

// One slot that cannot be written does not make damage of its node; and where it does, nobody goes on with what a
// forced creation replaced.
TEST_F(ObjectDbFaultsTest, AFailedSlotKeepsItsNode) {
  for (const std::uint64_t nFailures : {1u, 2u}) {  // the slot, behind name, record and CRC; and the old CRC
    Start(true, {{0x0101, "one"}, {0x0201, "two"}});
    ASSERT_EQ(Id(1), Find(0x0101));
    FailCalls(SystemCall::WriteAt, os::kDiskFull, 3, nFailures);
    EXPECT_CODE(errWRITE_FAILED, CodeOf(Create(0x0301, "three")));
    if (nFailures == 2) {
      EXPECT_EQ((std::vector{Id(4), Id(4)}), (std::vector{Create(0x0101, "one", true), Find(0x0101)}));
    }
    if (nFailures == 1) {
      EXPECT_EQ((std::vector{Id(2), Id(4)}), (std::vector{Find(0x0201), Create(0x0301, "three")}));
    }
  }
}

}  // namespace
}  // namespace lumbra::test
