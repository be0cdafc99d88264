// The index of named databases and the identity files: bytes, order, damage, and what is traced of it.
#include "events/named_index.h"

#include "support/steps.h"

namespace lumbra::test {
namespace {

using Lines = std::vector<std::string>;

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

  ResultCode Save(std::uint32_t nIndex, std::string_view Name) { return SavePersistentIndex(m_Place, nIndex, Name); }
  // What a load gives: the names, and whether the file is marked; or the code of its failure.
  std::string Loaded() {
    PersistentIndex Names = {"leftover"};
    bool bCorrupted = true;
    const ResultCode nCode = LoadPersistentIndexes(m_Place, &Names, &bCorrupted);
    return Failed(nCode) ? Name(nCode) : ::testing::PrintToString(Names) + (bCorrupted ? " corrupted" : "");
  }

  const FilePlace m_Place = m_Environment.PlaceOf(u"g_db_id.dat");
  const std::string m_Signature = "The file contains indexes of named databases. Ver 1.0";
};

TEST_F(NamedIndexTest, StartsAnewWhereItIsMissingOrDamaged) {
  const auto StartsAnew = [&](Lines Said) {
    TakeTrace();
    EXPECT_EQ("{}", Loaded());
    Said.push_back("400 LoadPersistentIndexes: file is absent or invalid, creating new one..");
    Said.push_back("500 TryCreatePersistentIndexesFile: successful");
    EXPECT_EQ(Said, TakeTrace());
    ExpectOnDisk({m_Signature});
  };
  const std::string kIs = "350 TryLoadPersistentIndexes: ";
  StartsAnew({"400 TryLoadPersistentIndexes: failed to open file, ulo res = 2147549442"});
  WriteFile("g_db_id.dat", Bytes(10));
  StartsAnew({kIs + "failed to read signature from file, ulo res = 0, bytesRead = 10"});
  fs::resize_file(Folder() / "g_db_id.dat", 164);
  StartsAnew({kIs + "failed to read data from file, ulo res = 0, bytesRead = 100"});
  Put({m_Signature + " Spoiled", "name"});
  const std::string kPath = Folder().string() + "\\g_db_id.dat";
  StartsAnew(
      {kIs + "file signature is not valid", kIs + "corrupted persistent index file (" + kPath + ") content: none"});
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

TEST_F(NamedIndexTest, TakesEachNameAtItsPlaceAlone) {
  const std::string kRefused = ": currentPos = 192 (file size) is not equal to expected write pos = ";
  const std::string kLong(63, 'x');
  Put({m_Signature, "first"});
  EXPECT_CODE(errOK, Save(1, kLong));
  EXPECT_CODE(errUNSPECIFIED, Save(1, "again"));
  EXPECT_CODE(errUNSPECIFIED, Save(3, "too far"));
  EXPECT_EQ((Lines{"500 SavePersistentIndex: successful", "300 SavePersistentIndex(1)" + kRefused + "128",
                   "300 SavePersistentIndex(3)" + kRefused + "256"}),
            TakeTrace());
  ExpectOnDisk({m_Signature, "first", kLong});
  EXPECT_EQ("{ \"first\", \"" + kLong + "\" }", Loaded());
}

TEST_F(NamedIndexTest, TakesBackANameThatDoesNotReachTheDisk) {
  Put({m_Signature});
  FailCalls(SystemCall::Write, os::kDiskFull);
  EXPECT_CODE(errOUT_OF_SPACE, Save(0, "a"));
  FailCalls(SystemCall::Sync, os::kIoDevice);
  EXPECT_CODE(CodeOfNumber(0x8007045D), Save(0, "a"));
  EXPECT_EQ((Lines{"300 SavePersistentIndex(0): File Write failed, ulo result = 2147483746, bytesWritten = 0",
                   "300 SavePersistentIndex(0): File flush failed, ulo result = 2147943517"}),
            TakeTrace());
  ExpectOnDisk({m_Signature});
}

TEST_F(NamedIndexTest, KeepsItsNamesWhereItIsMarked) {
  Put({m_Signature, "name"});
  EXPECT_TRUE(SaveCorruptedFlag(m_Place));
  EXPECT_EQ(R"({ "name" } corrupted)", Loaded());
  EXPECT_EQ((Lines{"500 SaveCorruptedFlag: successful",
                   "500 TryLoadPersistentIndexes: successful, 1 items read, DB Corrupted"}),
            TakeTrace());
}

TEST_F(NamedIndexTest, ChecksIdentityFiles) {
  const std::string kPath = Folder().string() + "\\id.log";  // as the lines have it; on the disk it is a '/'
  const std::string kAt = "ValidateDatabaseId: indexFilePath = '" + kPath + "', ";
  const Lines kSaved = {"500 TrySaveDatabaseId: indexFilePath = '" + kPath + "', databaseId = 49",
                        "400 " + kAt + "assignedDatabaseId = 49, TrySaveDatabaseIndex succeeded"};
  const auto Validated = [&](std::uint32_t nAssigned) {
    ValidateDatabaseId(m_Environment.PlaceOf(u"id.log"), nAssigned);
    EXPECT_EQ("00000031", ToHex(ReadFile("id.log")));
    return TakeTrace();
  };
  EXPECT_EQ(kSaved, Validated(49));
  WriteFile("id.log", {0, 0, 0, 5});
  EXPECT_EQ((Lines{"300 TryReadDatabaseId: read index (5) from file is less, than minimum named db index (48)",
                   "350 TryReadDatabaseId: corrupted index file (" + kPath + ") content: none", kSaved[0], kSaved[1]}),
            Validated(49));
  // A mismatch is told, and left; so is what cannot be read.
  EXPECT_EQ(Lines{"500 " + kAt + "previousDatabaseId = 49, assignedDatabaseId = 50"}, Validated(50));
  for (const SystemCall Failing : {SystemCall::Open, SystemCall::Read}) {
    FailCalls(Failing, os::kIoDevice);
    EXPECT_EQ(Lines{"300 " + kAt + "assignedDatabaseId = 50, TrySaveDatabaseIndex failed"}, Validated(50));
  }
}

}  // namespace
}  // namespace lumbra::test
