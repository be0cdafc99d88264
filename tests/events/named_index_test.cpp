// The index of named databases and the identity files: bytes, order, damage, and what is traced of it.
#include "events/named_index.h"

#include "platform/file.h"
#include "support/system_calls.h"
#include "support/world.h"

namespace lumbra::test {
namespace {

using Lines = std::vector<std::string>;

class NamedIndexTest : public World {
 protected:
  // The code, the names, and whether the file is marked corrupted.
  using Loaded = std::tuple<std::string, PersistentIndex, bool>;
  Loaded Load() {
    PersistentIndex Names = {"leftover"};
    const ResultCode nCode = LoadPersistentIndexes(m_Path, &Names, &m_bCorrupted);
    return {Name(nCode), Names, m_bCorrupted};
  }
  // As digits of a hex dump.
  static std::string Block(std::string Text) {
    Text.resize(64);
    return ToHex({Text.begin(), Text.end()});
  }

  const std::u16string m_Path = (Folder() / "g_db_id.dat").u16string();
  const std::string m_Signature = Block("The file contains indexes of named databases. Ver 1.0");
  bool m_bCorrupted = true;
};

TEST_F(NamedIndexTest, StartsAnewWhereItIsMissingOrDamaged) {
  const std::string kLoad = "350 TryLoadPersistentIndexes: ";
  const std::pair<std::string, Lines> kCases[] = {
      {"", {"400 TryLoadPersistentIndexes: failed to open file, ulo res = 2147549442"}},  // there is none yet
      {m_Signature + std::string(200, '6'), {kLoad + "failed to read data from file, ulo res = 0, bytesRead = 100"}},
      {std::string(20, '0'), {kLoad + "failed to read signature from file, ulo res = 0, bytesRead = 10"}},
      {m_Signature.substr(0, 121) + "1000000",
       {kLoad + "file signature is not valid",
        kLoad + "corrupted persistent index file (" + (Folder() / "g_db_id.dat").string() + ") content: none"}}};
  for (auto [Damaged, Expected] : kCases) {
    SCOPED_TRACE(Expected[0]);
    Expected.push_back("400 LoadPersistentIndexes: file is absent or invalid, creating new one..");
    Expected.push_back("500 TryCreatePersistentIndexesFile: successful");
    if (!Damaged.empty()) WriteFile("g_db_id.dat", FromHex(Damaged));
    m_bCorrupted = true;
    EXPECT_EQ((Loaded{Name(errOK), {}, false}), Load());
    EXPECT_EQ(m_Signature, ToHex(ReadFile("g_db_id.dat")));
    EXPECT_EQ(Expected, TakeTrace());
  }
}

TEST_F(NamedIndexTest, KeepsWhatItCannotReadForAMoment) {
  const std::string kIndex = m_Signature + Block("kept");
  WriteFile("g_db_id.dat", FromHex(kIndex));
  WriteFile("id.log", {0, 0, 0, 50});
  const std::pair<SystemCall, std::uint64_t> kFaults[] = {
      {SystemCall::Open, 0}, {SystemCall::Read, 0}, {SystemCall::Read, 1}};
  for (const auto& [Failing, nSkip] : kFaults) {
    FailCalls(Failing, os::kIoDevice, nSkip);
    EXPECT_EQ(Name(errUNSPECIFIED), std::get<std::string>(Load()));
    EXPECT_EQ(kIndex, ToHex(ReadFile("g_db_id.dat")));
    EXPECT_EQ(1u, TakeTrace().size());  // why; and nothing of a new one
    FailCalls(Failing, os::kIoDevice);
    ValidateDatabaseId(WideFolder(), u"id.log", 49);
    EXPECT_EQ("00000032", ToHex(ReadFile("id.log")));
    TakeTrace();
  }
  ResetSystem();
  EXPECT_EQ((Loaded{Name(errOK), {"kept"}, false}), Load());
}

TEST_F(NamedIndexTest, AppendsNamesInOrderOrSaysWhyNot) {
  const std::string kLong(63, 'x');
  WriteFile("g_db_id.dat", FromHex(m_Signature));
  FailCalls(SystemCall::Write, os::kDiskFull);
  EXPECT_CODE(errOUT_OF_SPACE, SavePersistentIndex(m_Path, 0, "a"));
  FailCalls(SystemCall::Sync, os::kIoDevice);
  EXPECT_CODE(CodeOfNumber(0x8007045D), SavePersistentIndex(m_Path, 0, "a"));
  // What the failed attempts wrote does not stand in the way.
  EXPECT_CODE(errOK, SavePersistentIndex(m_Path, 0, "first"));
  EXPECT_CODE(errOK, SavePersistentIndex(m_Path, 1, kLong));
  EXPECT_CODE(errUNSPECIFIED, SavePersistentIndex(m_Path, 1, "again"));
  EXPECT_CODE(errUNSPECIFIED, SavePersistentIndex(m_Path, 3, "too far"));
  EXPECT_EQ(m_Signature + Block("first") + Block(kLong), ToHex(ReadFile("g_db_id.dat")));
  EXPECT_EQ((Loaded{Name(errOK), {"first", kLong}, false}), Load());
  SaveCorruptedFlag(m_Path);
  EXPECT_EQ((Loaded{Name(errOK), {"first", kLong}, true}), Load());
  // Another process has the file: it is neither read nor replaced.
  File Holder;
  ASSERT_CODE(errOK, Holder.OpenWithFlags(m_Path, fileRead, openExisting));
  EXPECT_CODE(errSHARING_VIOLATION, SavePersistentIndex(m_Path, 2, "b"));
  EXPECT_EQ(Name(errUNSPECIFIED), std::get<std::string>(Load()));
  SaveCorruptedFlag(m_Path);
  EXPECT_EQ(192u, FileSize("g_db_id.dat"));
  const std::string kRefused = ": currentPos = 192 (file size) is not equal to expected write pos = ";
  EXPECT_EQ((Lines{"300 SavePersistentIndex(0): File Write failed, ulo result = 2147483746, bytesWritten = 0",
                   "300 SavePersistentIndex(0): File flush failed, ulo result = 2147943517",
                   "500 SavePersistentIndex: successful", "500 SavePersistentIndex: successful",
                   "300 SavePersistentIndex(1)" + kRefused + "128", "300 SavePersistentIndex(3)" + kRefused + "256",
                   "500 TryLoadPersistentIndexes: successful, 2 items read, DB Ok", "500 SaveCorruptedFlag: successful",
                   "500 TryLoadPersistentIndexes: successful, 2 items read, DB Corrupted",
                   "300 SavePersistentIndex(2): File Create failed, ulo result = 2147549444",
                   "400 TryLoadPersistentIndexes: failed to open file, ulo res = 2147549444",
                   "300 SaveCorruptedFlag: failed to open file, ulo res = 2147549444"}),
            TakeTrace());
  std::uint32_t nPosition = 0;
  EXPECT_FALSE(FindPersistentIndex({"first", kLong}, "First", &nPosition));
}

TEST_F(NamedIndexTest, ChecksIdentityFiles) {
  const std::string kPath = Folder().string() + "\\id.log";  // as the lines have it; on the disk it is a '/'
  const std::string kAt = "ValidateDatabaseId: indexFilePath = '" + kPath + "', ";
  const Lines kSaved = {"500 TrySaveDatabaseId: indexFilePath = '" + kPath + "', databaseId = 49",
                        "400 " + kAt + "assignedDatabaseId = 49, TrySaveDatabaseIndex succeeded"};
  const auto Validate = [&](std::uint32_t nAssigned) {
    ValidateDatabaseId(WideFolder(), u"id.log", nAssigned);
    EXPECT_EQ("00000031", ToHex(ReadFile("id.log")));
    return TakeTrace();
  };
  EXPECT_EQ(kSaved, Validate(49));
  // A mismatch is told, and left.
  EXPECT_EQ(Lines{"500 " + kAt + "previousDatabaseId = 49, assignedDatabaseId = 50"}, Validate(50));
  WriteFile("id.log", {});
  EXPECT_EQ(kSaved, Validate(49));
  WriteFile("id.log", {0, 0, 0, 5});
  EXPECT_EQ((Lines{"300 TryReadDatabaseId: read index (5) from file is less, than minimum named db index (48)",
                   "350 TryReadDatabaseId: corrupted index file (" + kPath + ") content: none", kSaved[0], kSaved[1]}),
            Validate(49));
  FailCalls(SystemCall::Open, os::kIoDevice, 0, 2);
  EXPECT_EQ("300 " + kAt + "assignedDatabaseId = 49, TrySaveDatabaseIndex failed", Validate(49).back());
}

}  // namespace
}  // namespace lumbra::test
