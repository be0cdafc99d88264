// One database folder: names, opening, deleting, sizes and dates.
#include "platform/storage_environment.h"

#include "support/system_calls.h"
#include "support/world.h"

namespace lumbra::test {
namespace {

class EnvironmentTest : public World {
 protected:
  ResultCode Open(const char16_t* pName, std::uint32_t nId, bool bCreate = true, bool bWritable = true) {
    return m_Environment.OpenFile(pName, nId, bCreate, bWritable, &m_pFile);
  }
  bool Init(const char* pFolder, FolderContent Content = FolderContent::Keep) {
    return m_Fresh.Init(this, Path(pFolder).c_str(), Content, false);
  }
  bool Exists(const char* pName) const { return fs::exists(Folder() / pName); }

  std::unique_ptr<StorageFile> m_pFile;
  StorageEnvironment m_Fresh;
  std::uint64_t m_nValue = 99;
};

TEST_F(EnvironmentTest, OpensFilesByNameAndNumber) {
  EXPECT_CODE(errOBJECT_NOT_FOUND, Open(u"events.dat", 0x2A, false));
  EXPECT_CODE(errOK, Open(u"events.dat", 0x2A));
  EXPECT_TRUE(Exists("0000002A_events.dat"));
  EXPECT_FALSE(m_pFile->Modified());
  const auto pHeld = std::move(m_pFile);
  EXPECT_CODE(errSHARING_VIOLATION, Open(u"events.dat", 0x2A, false));
  EXPECT_CODE(errSHARING_VIOLATION, Open(u"events.dat", 0x2A, false, false));
  EXPECT_CODE(errOK, Open(u"events.dat", 0));
  EXPECT_TRUE(Exists("events.dat"));
  EXPECT_CODE(errPARAMETER_INVALID, Open(nullptr, 0));
  EXPECT_CODE(errPARAMETER_INVALID, m_Environment.OpenFile(u"a", 0, true, true, nullptr));

  EXPECT_CODE(errSTORE_NOT_INITIALIZED, m_Fresh.OpenFile(u"a", 0, true, true, &m_pFile));
  EXPECT_CODE(errSTORE_NOT_INITIALIZED, m_Fresh.GetFileSize(u"a", 0, &m_nValue));
  EXPECT_CODE(errSTORE_NOT_INITIALIZED, m_Fresh.GetFileCreationTime(u"a", 0, &m_nValue));
}

TEST_F(EnvironmentTest, CreatesFoldersWithTheirParents) {
  EXPECT_TRUE(Init("a/b\\c/") && Exists("a/b/c"));
  EXPECT_TRUE(Init("n//./x/../y/.") && Exists("n/y"));
  WriteFile("file", {});
  for (const char* const pFolder : {"file", "file/x"}) EXPECT_FALSE(Init(pFolder)) << pFolder;
  EXPECT_FALSE(m_Fresh.Init(this, u"", FolderContent::Keep, false));
  EXPECT_FALSE(m_Fresh.Init(this, nullptr, FolderContent::Keep, false));
  EXPECT_FALSE(m_Fresh.Init(nullptr, u"x", FolderContent::Keep, false));
  WriteFile("a/b/c/old", {1});
  fs::create_directory(Folder() / "a/b/c/d");
  EXPECT_TRUE(Init("a/b/c", FolderContent::Wipe));
  EXPECT_TRUE(!Exists("a/b/c/old") && Exists("a/b/c/d"));
  FailCalls(SystemCall::MakeFolder, os::kDiskFull);
  EXPECT_FALSE(Init("o/m"));
}

TEST_F(EnvironmentTest, DeletesTheFilesOfANumber) {
  const char* const kOwn[] = {"00000005_objbt.dat", "00000005_objid.dat", "00000005_objdt.dat", "00000005_events.dat"};
  const char* const kOthers[] = {"00000006_events.dat", "00000005_more.dat", "segments.dat"};
  for (const char* const pName : kOwn) WriteFile(pName, {});
  for (const char* const pName : kOthers) WriteFile(pName, {});
  EXPECT_CODE(errOK, m_Environment.DeleteFiles(u"*.*", 5));
  for (const char* const pName : kOwn) EXPECT_FALSE(Exists(pName)) << pName;
  for (const char* const pName : kOthers) EXPECT_TRUE(Exists(pName)) << pName;

  WriteFile("sub/in", {});
  EXPECT_CODE(errOK, m_Environment.DeleteFiles(u"*.*", 0));
  for (const char* const pName : kOthers) EXPECT_FALSE(Exists(pName)) << pName;
  EXPECT_TRUE(Exists("sub/in"));
}

TEST_F(EnvironmentTest, SumsFileSizesAndTellsCreationTimesInWholeSeconds) {
  const auto SizeOf = [this](const char16_t* pName, std::uint32_t nId) {
    const std::string Code = Name(m_Environment.GetFileSize(pName, nId, &m_nValue));
    return Code + ' ' + std::to_string(m_nValue);
  };
  WriteFile("00000007_a.dat", Bytes(10));
  WriteFile("00000007_b.dat", Bytes(5));
  WriteFile("00000007_b.txt", Bytes(100));
  WriteFile("00000008_a.dat", Bytes(100));
  EXPECT_EQ(Name(errOK) + " 15", SizeOf(u"*.dat", 7));
  EXPECT_EQ(Name(errOK) + " 100", SizeOf(u"a.dat", 8));
  EXPECT_EQ(Name(errNOT_FOUND) + " 0", SizeOf(u"*.dat", 9));
  TakeTrace();

  m_bExactSizes = true;
  EXPECT_EQ(Name(errOK) + " 15", SizeOf(u"?.dat", 7));
  const std::string Where = ": dirname = '" + Folder().string() + "'; filename = '00000007_";
  EXPECT_EQ((std::vector<std::string>{"500 GetFileSize: dir entry file size" + Where + "a.dat'; size = 10",
                                      "500 GetFileSize: exact file size" + Where + "a.dat'; size = 10",
                                      "500 GetFileSize: dir entry file size" + Where + "b.dat'; size = 5",
                                      "500 GetFileSize: exact file size" + Where + "b.dat'; size = 5"}),
            TakeTrace());
  FailCalls(SystemCall::Look, os::kIoDevice, 3);  // both files were looked at, the second is to be measured
  EXPECT_EQ(Name(errUNEXPECTED) + " 10", SizeOf(u"?.dat", 7));

  constexpr std::uint64_t kSecond = 10000000;
  const std::uint64_t nBefore = StorageEnvironment::GetCurrentTime();
  EXPECT_GT(nBefore, 132223104000000000u);  // 2020-01-01
  WriteFile("00000001_events.dat", {});
  EXPECT_CODE(errOK, m_Environment.GetFileCreationTime(u"events.dat", 1, &m_nValue));
  EXPECT_EQ(0u, m_nValue % kSecond);
  EXPECT_LE(m_nValue, StorageEnvironment::GetCurrentTime());
  EXPECT_GE(m_nValue + 2 * kSecond, nBefore);
  EXPECT_CODE(errNOT_FOUND, m_Environment.GetFileCreationTime(u"events.dat", 2, &m_nValue));
  SetClock(1577836800);
  EXPECT_EQ(132223104000000000u, StorageEnvironment::GetCurrentTime());
}

}  // namespace
}  // namespace lumbra::test
