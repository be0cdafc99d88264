// The index of named databases and the identity files: bytes, order, damage, and what is traced of it.
#include "events/named_index.h"

#include <cerrno>
#include <filesystem>

#include "platform/file.h"
#include "support/system_calls.h"
#include "support/world.h"

namespace lumbra::test {
namespace {

using Lines = std::vector<std::string>;

class NamedIndexTest : public World {
 protected:
  std::u16string Path() const { return (Folder() / "g_db_id.dat").u16string(); }
  ResultCode Load() {
    m_Names = {"leftover"};
    return LoadPersistentIndexes(Path(), &m_Names, &m_bCorrupted);
  }
  static Bytes Block(std::string_view Text) {
    Bytes Filled(64);
    std::copy(Text.begin(), Text.end(), Filled.begin());
    return Filled;
  }

  PersistentIndex m_Names;
  bool m_bCorrupted = true;
};

TEST_F(NamedIndexTest, IsCreatedWhereItIsMissing) {
  EXPECT_CODE(errOK, Load());
  EXPECT_TRUE(m_Names.empty());
  EXPECT_FALSE(m_bCorrupted);
  EXPECT_EQ(Block("The file contains indexes of named databases. Ver 1.0"), ReadFile("g_db_id.dat"));
  EXPECT_EQ((Lines{"400 TryLoadPersistentIndexes: failed to open file, ulo res = 2147549442",
                   "400 LoadPersistentIndexes: file is absent or invalid, creating new one..",
                   "500 TryCreatePersistentIndexesFile: successful"}),
            TakeTrace());
}

TEST_F(NamedIndexTest, AppendsNamesInOrder) {
  ASSERT_CODE(errOK, Load());
  EXPECT_CODE(errOK, SavePersistentIndex(Path(), 0, "first"));
  EXPECT_CODE(errOK, SavePersistentIndex(Path(), 1, std::string(63, 'x')));
  TakeTrace();
  EXPECT_CODE(errUNSPECIFIED, SavePersistentIndex(Path(), 1, "again"));
  EXPECT_CODE(errUNSPECIFIED, SavePersistentIndex(Path(), 3, "too far"));
  EXPECT_EQ((Lines{"300 SavePersistentIndex(1): currentPos = 192 (file size) is not equal to expected write pos = 128",
                   "300 SavePersistentIndex(3): currentPos = 192 (file size) is not equal to expected write pos = "
                   "256"}),
            TakeTrace());
  EXPECT_EQ(192u, FileSize("g_db_id.dat"));
  EXPECT_EQ(ToHex(Block("first")), ToHex(ReadFile("g_db_id.dat")).substr(128, 128));
  EXPECT_CODE(errOK, Load());
  EXPECT_EQ((PersistentIndex{"first", std::string(63, 'x')}), m_Names);
  EXPECT_EQ("500 TryLoadPersistentIndexes: successful, 2 items read, DB Ok", TakeTrace().back());
  std::uint32_t nPosition = 9;
  EXPECT_TRUE(FindPersistentIndex(m_Names, "first", &nPosition));
  EXPECT_EQ(0u, nPosition);
  EXPECT_FALSE(FindPersistentIndex(m_Names, "First", &nPosition));
  EXPECT_FALSE(IsPersistentIndexFull(PersistentIndex(206)));
  EXPECT_TRUE(IsPersistentIndexFull(PersistentIndex(207)));

  SaveCorruptedFlag(Path());
  EXPECT_EQ("500 SaveCorruptedFlag: successful", TakeTrace().back());
  EXPECT_CODE(errOK, Load());
  EXPECT_TRUE(m_bCorrupted);
  EXPECT_EQ(2u, m_Names.size());
  EXPECT_EQ("500 TryLoadPersistentIndexes: successful, 2 items read, DB Corrupted", TakeTrace().back());
}

TEST_F(NamedIndexTest, StartsAnewWhenDamaged) {
  const Bytes kGood = Block("The file contains indexes of named databases. Ver 1.0");
  const auto Load2 = [&](const Bytes& Content) {
    WriteFile("g_db_id.dat", Content);
    TakeTrace();
    EXPECT_CODE(errOK, Load());
    EXPECT_TRUE(m_Names.empty());
    EXPECT_EQ(kGood, ReadFile("g_db_id.dat"));
    return TakeTrace(350);
  };
  Bytes Torn(64 + 100, 'a');
  std::copy(kGood.begin(), kGood.end(), Torn.begin());
  EXPECT_EQ((Lines{"350 TryLoadPersistentIndexes: failed to read data from file, ulo res = 0, bytesRead = 100"}),
            Load2(Torn));
  EXPECT_EQ((Lines{"350 TryLoadPersistentIndexes: failed to read signature from file, ulo res = 0, bytesRead = 10"}),
            Load2(Bytes(10)));
  Bytes Foreign = kGood;
  Foreign[60] = 1;
  EXPECT_EQ((Lines{"350 TryLoadPersistentIndexes: file signature is not valid",
                   "350 TryLoadPersistentIndexes: corrupted persistent index file (" +
                       (Folder() / "g_db_id.dat").string() + ") content: none"}),
            Load2(Foreign));
}

TEST_F(NamedIndexTest, ReportsFailures) {
  ASSERT_CODE(errOK, Load());
  TakeTrace();
  FailCalls(SystemCall::Write, ENOSPC);
  EXPECT_CODE(errOUT_OF_SPACE, SavePersistentIndex(Path(), 0, "a"));
  FailCalls(SystemCall::Sync, EIO);
  EXPECT_CODE(static_cast<ResultCode>(0x8007045Du), SavePersistentIndex(Path(), 0, "a"));
  EXPECT_EQ((Lines{"300 SavePersistentIndex(0): File Write failed, ulo result = 2147483746, bytesWritten = 0",
                   "300 SavePersistentIndex(0): File flush failed, ulo result = 2147943517"}),
            TakeTrace());
  EXPECT_CODE(errOK, SavePersistentIndex(Path(), 0, "a"));  // what the failed attempts wrote does not stand in the way
  TakeTrace();
  // Another process has the file: it is neither read nor replaced.
  File Holder;
  ASSERT_CODE(errOK, Holder.OpenWithFlags(Path(), fileRead, openExisting));
  EXPECT_CODE(errSHARING_VIOLATION, SavePersistentIndex(Path(), 1, "b"));
  EXPECT_CODE(errUNSPECIFIED, Load());
  SaveCorruptedFlag(Path());
  EXPECT_EQ((Lines{"300 SavePersistentIndex(1): File Create failed, ulo result = 2147549444",
                   "400 TryLoadPersistentIndexes: failed to open file, ulo res = 2147549444",
                   "400 LoadPersistentIndexes: file is absent or invalid, creating new one..",
                   "300 TryCreatePersistentIndexesFile: failed to open file, ulo res = 2147549444",
                   "300 LoadPersistentIndexes: failed to create index file",
                   "300 SaveCorruptedFlag: failed to open file, ulo res = 2147549444"}),
            TakeTrace());
  EXPECT_EQ(128u, FileSize("g_db_id.dat"));
}

TEST_F(NamedIndexTest, ChecksIdentityFiles) {
  const std::string kPath = Folder().string() + "\\id.log";  // as the line has it; on the disk it is a '/'
  const auto Validate = [&](std::uint32_t nAssigned) {
    TakeTrace();
    ValidateDatabaseId(WideFolder(), u"id.log", nAssigned);
    return TakeTrace();
  };
  const Lines kSaved49 = {"500 TrySaveDatabaseId: indexFilePath = '" + kPath + "', databaseId = 49",
                          "400 ValidateDatabaseId: indexFilePath = '" + kPath +
                              "', assignedDatabaseId = 49, TrySaveDatabaseIndex succeeded"};
  EXPECT_EQ(kSaved49, Validate(49));
  EXPECT_EQ("00000031", ToHex(ReadFile("id.log")));
  EXPECT_EQ((Lines{"500 ValidateDatabaseId: indexFilePath = '" + kPath +
                   "', previousDatabaseId = 49, assignedDatabaseId = 50"}),
            Validate(50));
  EXPECT_EQ("00000031", ToHex(ReadFile("id.log")));  // a mismatch is told, and left
  WriteFile("id.log", {});
  EXPECT_EQ(kSaved49, Validate(49));
  WriteFile("id.log", {0, 0, 0, 5});
  const Lines Small = Validate(49);
  ASSERT_EQ(4u, Small.size());
  EXPECT_EQ("300 TryReadDatabaseId: read index (5) from file is less, than minimum named db index (48)", Small[0]);
  EXPECT_EQ("350 TryReadDatabaseId: corrupted index file (" + kPath + ") content: none", Small[1]);
  FailCalls(SystemCall::Open, EIO, 0, 2);
  EXPECT_EQ(
      "300 ValidateDatabaseId: indexFilePath = '" + kPath + "', assignedDatabaseId = 49, TrySaveDatabaseIndex failed",
      Validate(49).back());
}

}  // namespace
}  // namespace lumbra::test
