// The index of named databases: what damage costs, and what a failure leaves.
#include "events/named_index.h"

#include "support/steps.h"

namespace lumbra::test {
namespace {

class NamedIndexTest : public World {
 protected:
  // A file with these texts, a block of 64 bytes for each. The first is the signature.
  void Put(const PersistentIndex& Texts) { WriteFile("g_db_id.dat", Blocks(Texts)); }
  void ExpectOnDisk(const PersistentIndex& Texts) const {
    EXPECT_EQ(ToHex(Blocks(Texts)), ToHex(ReadFile("g_db_id.dat")));
  }
  static Bytes Blocks(const PersistentIndex& Texts) {
    std::string Content;
    for (std::size_t i = 0; i < Texts.size(); ++i) (Content += Texts[i]).resize(64 * (i + 1));
    return {Content.begin(), Content.end()};
  }

  // What a load gives: the names, or the code of its failure.
  std::string Loaded() {
    PersistentIndex Names = {"leftover"};
    bool bCorrupted = true;
    const ResultCode nCode = LoadPersistentIndexes(m_Place, &Names, &bCorrupted);
    return Failed(nCode) ? Name(nCode) : ::testing::PrintToString(Names);
  }

  const FilePlace m_Place = m_Environment.PlaceOf(u"g_db_id.dat");
  const std::string m_Signature = "The file contains indexes of named databases. Ver 1.0";
};

TEST_F(NamedIndexTest, StartsAnewWhereItIsMissingOrDamaged) {
  const auto StartsAnew = [&](const char* pReason) {
    TakeTrace();
    EXPECT_EQ("{}", Loaded());
    EXPECT_EQ(pReason, TakeTrace().front());
    ExpectOnDisk({m_Signature});
  };
  StartsAnew("400 TryLoadPersistentIndexes: failed to open file, ulo res = 2147549442");
  fs::resize_file(Folder() / "g_db_id.dat", 164);
  StartsAnew("350 TryLoadPersistentIndexes: failed to read data from file, ulo res = 0, bytesRead = 100");
  Put({m_Signature + " Spoiled", "name"});
  StartsAnew("350 TryLoadPersistentIndexes: file signature is not valid");
}

TEST_F(NamedIndexTest, KeepsWhatItCannotReadForAMoment) {
  Put({m_Signature, "kept"});
  for (const auto& [Failing, nSkip] : {std::pair{SystemCall::Open, 0u}, {SystemCall::Read, 0}, {SystemCall::Read, 1}}) {
    FailCalls(Failing, os::kIoDevice, nSkip);
    EXPECT_EQ(Name(errUNSPECIFIED), Loaded());
    EXPECT_EQ(1u, TakeTrace().size());  // why; and nothing of a new one
  }
  EXPECT_EQ(R"({ "kept" })", Loaded());
}

TEST_F(NamedIndexTest, TakesBackANameThatDoesNotReachTheDisk) {
  Put({m_Signature});
  FailCalls(SystemCall::Write, os::kDiskFull);
  EXPECT_CODE(errOUT_OF_SPACE, SavePersistentIndex(m_Place, 0, "a"));
  FailCalls(SystemCall::Sync, os::kIoDevice);
  EXPECT_CODE(CodeOfNumber(0x8007045D), SavePersistentIndex(m_Place, 0, "a"));
  ExpectOnDisk({m_Signature});
}

}  // namespace
}  // namespace lumbra::test
