// What failed calls, of the system and not of the store, may cost: nothing that is on the disk.
#include "objects/objdb_fixture.h"

namespace lumbra::test {
namespace {

class ObjectDbFaultsTest : public ObjectDbTest {
 protected:
  std::vector<Bytes> Files() const { return {ReadFile("bt"), ReadFile("id"), ReadFile("dt")}; }
};

// In a sound store, and in one of which a file is to be started anew.
TEST_F(ObjectDbFaultsTest, AnOpeningThatCannotReadChangesNothing) {
  for (const std::string Foreign : {"", "dt", "bt", "id"}) {
    for (const SystemCall Failing : {SystemCall::ReadAt, SystemCall::Size}) {
      for (std::uint64_t nSkip = 0;; ++nSkip) {
        Start(kChecked, {0x0101}, "data");
        m_pDb.reset();
        if (!Foreign.empty()) Patch(Foreign, 0, {'?'});
        const std::vector<Bytes> kBefore = Files();
        m_pDb = std::make_unique<ObjectDB>(kChecked);
        ObjectFiles Opened{OpenFile(u"bt"), OpenFile(u"id"), OpenFile(u"dt")};
        // Something is written to each, so that its size is not known from its opening alone.
        for (const auto& pFile : {&Opened.pTree, &Opened.pIds, &Opened.pData}) {
          char First = 0;
          ASSERT_TRUE((*pFile)->SeekRead(0, &First, 1, nullptr) && (*pFile)->SeekWrite(0, &First, 1, nullptr));
        }
        FailCalls(Failing, os::kIoDevice, nSkip);
        const ResultCode nCode = m_pDb->Open(kNumber, Opened, TreeHead::Small);
        if (FailedCalls(Failing) == 0) break;
        // Without the data file's size alone it opens all the same.
        EXPECT_TRUE(Failed(nCode) || (Failing == SystemCall::Size && nSkip > 0)) << Foreign << nSkip;
        EXPECT_TRUE(Succeeded(nCode) || kBefore == Files()) << Foreign << nSkip;
      }
    }
  }
}

// A data file whose magic is lost gets the one that fits the records beside it; where there are none, this process's.
TEST_F(ObjectDbFaultsTest, TheRecordsTellWhatALostMagicWas) {
  for (const bool bChecked : {kPlain, kChecked}) {
    for (const Hashes& Objects : {Hashes{0x0101}, Hashes()}) {
      Start(bChecked, Objects);
      m_pDb.reset();
      Patch("dt", 0, {'?'});
      Open(!bChecked);
      EXPECT_EQ(bChecked != Objects.empty() ? "ODBS" : "ODBO", ReadText("dt").substr(0, 4));
    }
  }
}

// Until a lost tree is whole again, names that it does not find may be there. A search goes on with the refill as soon
// as the fault is gone, and until then leaves what is done as it is; a tree that was left half is begun anew.
TEST_F(ObjectDbFaultsTest, NothingIsCreatedWhileARefillFails) {
  for (const SystemCall Failing : {SystemCall::ReadAt, SystemCall::WriteAt}) {
    const ResultCode nFailure = Failing == SystemCall::ReadAt ? errREAD_FAILED : errWRITE_FAILED;
    for (std::uint64_t n = 0;; ++n) {
      Start(kChecked, Spread(30));
      Replace("bt", {});
      ResetSystem();
      FailCalls(Failing, os::kIoDevice, n, UINT64_MAX);
      const ResultCode nCode = m_pDb->RefillEmptyTree();
      EXPECT_CODE(FailedCalls(Failing) == 0 ? errOK : nFailure, nCode) << n;
      if (Succeeded(nCode)) break;
      const std::vector<Bytes> kBegun = Files();
      AllAnswer(nFailure, {{"find", TryFind(0x31)},
                           {"create", TryCreate(0x31)},
                           {"create by force", TryCreate(0x31, "new", true)},
                           {"check", m_pDb->FastConsistencyCheck()}});
      EXPECT_EQ(kBegun, Files()) << n;
      ResetSystem();
      if (n % 2 == 0) Open(kChecked);
      Must(n % 2 == 0 ? m_pDb->RefillEmptyTree() : TryCreate(Spread(30)[0]));
      ExpectAll(Spread(30));
    }
  }
}

// Neither the old bytes under the new size, nor the new ones under the old.
TEST_F(ObjectDbFaultsTest, AFailedRewriteKeepsTheOldData) {
  for (const bool bChecked : {kPlain, kChecked}) {
    for (const std::uint64_t nWritten : {0u, 1u}) {  // the block; its entry fails
      Start(bChecked, {0x0101}, "the longest of them");
      for (const std::string New : {"shorter", "longer again"}) {
        const std::string Old = DataOf(Id(1));
        FailCalls(SystemCall::WriteAt, os::kDiskFull, nWritten);
        EXPECT_CODE(errWRITE_FAILED, SetData(Id(1), New));
        EXPECT_EQ(Old, DataOf(Id(1))) << bChecked << nWritten;
        Must(SetData(Id(1), New));
      }
    }
  }
}

// Where the old CRC can be written back, it does; where it cannot, nobody goes on with what a forced creation replaced.
TEST_F(ObjectDbFaultsTest, AFailedSlotKeepsItsNode) {
  for (const std::uint64_t nFailures : {1u, 2u}) {  // the slot, behind name, record and CRC; and the old CRC
    Start(kChecked, {0x01, 0x02});
    FailCalls(SystemCall::WriteAt, os::kDiskFull, 3, nFailures);
    EXPECT_CODE(errWRITE_FAILED, TryCreate(0x03));
    Open(kChecked);
    EXPECT_EQ(nFailures == 1 ? Id(1) : 0, Find(0x01));
    EXPECT_EQ(nFailures == 1 ? Id(2) : 0, Find(0x02));
    EXPECT_EQ(Id(4), Create(0x01, true));
    EXPECT_EQ(Id(4), Find(0x01));
  }
}

}  // namespace
}  // namespace lumbra::test
