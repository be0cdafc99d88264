// One database folder: names, opening, deleting, sizes and dates.
#include "platform/storage_environment.h"

#include <sys/resource.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "support/system_calls.h"
#include "support/world.h"

namespace lumbra::test {
namespace {

using std::filesystem::exists;

class EnvironmentTest : public World {
 protected:
  ResultCode Open(const char16_t* pName, std::uint32_t nId, bool bCreate, bool bWritable = true) {
    return m_Environment.OpenFile(pName, nId, bCreate, bWritable, &m_pFile);
  }

  std::unique_ptr<StorageFile> m_pFile;
};

TEST_F(EnvironmentTest, OpensFilesByNameAndNumber) {
  EXPECT_CODE(errOBJECT_NOT_FOUND, Open(u"events.dat", 0x2A, false));
  EXPECT_CODE(errOK, Open(u"events.dat", 0x2A, true));
  EXPECT_TRUE(exists(Folder() / "0000002A_events.dat"));
  EXPECT_FALSE(m_pFile->Modified());
  const auto pHeld = std::move(m_pFile);
  EXPECT_CODE(errSHARING_VIOLATION, Open(u"events.dat", 0x2A, false));
  EXPECT_CODE(errSHARING_VIOLATION, Open(u"events.dat", 0x2A, false, false));
  EXPECT_CODE(errOK, Open(u"events.dat", 0, true));
  EXPECT_TRUE(exists(Folder() / "events.dat"));
  EXPECT_CODE(errPARAMETER_INVALID, Open(nullptr, 0, true));
  EXPECT_CODE(errPARAMETER_INVALID, m_Environment.OpenFile(u"a", 0, true, true, nullptr));

  StorageEnvironment Fresh;
  std::uint64_t nValue = 0;
  EXPECT_CODE(errSTORE_NOT_INITIALIZED, Fresh.OpenFile(u"a", 0, true, true, &m_pFile));
  EXPECT_CODE(errSTORE_NOT_INITIALIZED, Fresh.GetFileSize(u"a", 0, &nValue));
  EXPECT_CODE(errSTORE_NOT_INITIALIZED, Fresh.GetFileCreationTime(u"a", 0, &nValue));
}

TEST_F(EnvironmentTest, CreatesFoldersWithTheirParents) {
  StorageEnvironment Deep;
  EXPECT_TRUE(Deep.Init(this, (Folder() / "a/b\\c/").u16string().c_str(), FolderContent::Keep, false));
  EXPECT_TRUE(exists(Folder() / "a/b/c"));
  EXPECT_TRUE(Deep.Init(this, (Folder() / "n//./x/../y/.").u16string().c_str(), FolderContent::Keep, false));
  EXPECT_TRUE(exists(Folder() / "n/y"));
  WriteFile("file", {});
  EXPECT_FALSE(Deep.Init(this, (Folder() / "file").u16string().c_str(), FolderContent::Keep, false));
  EXPECT_FALSE(Deep.Init(this, (Folder() / "file/x").u16string().c_str(), FolderContent::Keep, false));
  EXPECT_FALSE(Deep.Init(this, u"", FolderContent::Keep, false));
  EXPECT_FALSE(Deep.Init(this, nullptr, FolderContent::Keep, false));
  EXPECT_FALSE(Deep.Init(nullptr, u"x", FolderContent::Keep, false));
  WriteFile("a/b/c/old", {1});
  std::filesystem::create_directory(Folder() / "a/b/c/d");
  EXPECT_TRUE(Deep.Init(this, (Folder() / "a/b/c").u16string().c_str(), FolderContent::Wipe, false));
  EXPECT_FALSE(exists(Folder() / "a/b/c/old"));
  EXPECT_TRUE(exists(Folder() / "a/b/c/d"));
  FailCalls(SystemCall::MakeFolder, ENOSPC);
  EXPECT_FALSE(Deep.Init(this, (Folder() / "o/m").u16string().c_str(), FolderContent::Keep, false));
}

TEST_F(EnvironmentTest, DeletesTheFilesOfANumber) {
  const char* const kOwn[] = {"00000005_objbt.dat", "00000005_objid.dat", "00000005_objdt.dat", "00000005_events.dat"};
  const char* const kOthers[] = {"00000006_events.dat", "00000005_more.dat", "segments.dat", "sub\\in"};
  for (const char* const pName : kOwn) WriteFile(pName, {});
  for (const char* const pName : kOthers) WriteFile(pName, {});
  EXPECT_CODE(errOK, m_Environment.DeleteFiles(u"*.*", 5));
  for (const char* const pName : kOwn) EXPECT_FALSE(exists(Folder() / pName)) << pName;
  for (const char* const pName : kOthers) EXPECT_TRUE(exists(Folder() / pName)) << pName;

  WriteFile("sub/in", {});
  std::filesystem::create_symlink("sub", Folder() / "link");
  EXPECT_CODE(errOK, m_Environment.DeleteFiles(u"*.*", 0));
  for (const char* const pName : kOthers) EXPECT_FALSE(exists(Folder() / pName)) << pName;
  EXPECT_TRUE(exists(Folder() / "sub/in") && exists(Folder() / "link"));
}

TEST_F(EnvironmentTest, SumsFileSizes) {
  WriteFile("00000007_a.dat", Bytes(10));
  WriteFile("00000007_b.dat", Bytes(5));
  WriteFile("00000007_b.txt", Bytes(100));
  WriteFile("00000008_a.dat", Bytes(100));
  std::uint64_t nSize = 99;
  EXPECT_CODE(errOK, m_Environment.GetFileSize(u"*.dat", 7, &nSize));
  EXPECT_EQ(15u, nSize);
  EXPECT_CODE(errOK, m_Environment.GetFileSize(u"a.dat", 8, &nSize));
  EXPECT_EQ(100u, nSize);
  EXPECT_CODE(errNOT_FOUND, m_Environment.GetFileSize(u"*.dat", 9, &nSize));
  EXPECT_EQ(0u, nSize);
  TakeTrace();

  m_bExactSizes = true;
  EXPECT_CODE(errOK, m_Environment.GetFileSize(u"?.dat", 7, &nSize));
  EXPECT_EQ(15u, nSize);
  const std::string Where = ": dirname = '" + Folder().string() + "'; filename = '00000007_";
  EXPECT_EQ((std::vector<std::string>{"500 GetFileSize: dir entry file size" + Where + "a.dat'; size = 10",
                                      "500 GetFileSize: exact file size" + Where + "a.dat'; size = 10",
                                      "500 GetFileSize: dir entry file size" + Where + "b.dat'; size = 5",
                                      "500 GetFileSize: exact file size" + Where + "b.dat'; size = 5"}),
            TakeTrace());
  FailCalls(SystemCall::Look, EIO, 3);  // both files were looked at, the second is to be measured
  EXPECT_CODE(errUNEXPECTED, m_Environment.GetFileSize(u"?.dat", 7, &nSize));
  EXPECT_EQ(10u, nSize);
}

TEST_F(EnvironmentTest, TellsCreationTimesInWholeSeconds) {
  constexpr std::uint64_t kSecond = 10000000;
  const std::uint64_t nBefore = StorageEnvironment::GetCurrentTime();
  EXPECT_GT(nBefore, 132223104000000000u);  // 2020-01-01
  WriteFile("00000001_events.dat", {});
  std::uint64_t nTime = 0;
  EXPECT_CODE(errOK, m_Environment.GetFileCreationTime(u"events.dat", 1, &nTime));
  EXPECT_EQ(0u, nTime % kSecond);
  EXPECT_LE(nTime, StorageEnvironment::GetCurrentTime());
  EXPECT_GE(nTime + 2 * kSecond, nBefore);
  EXPECT_CODE(errNOT_FOUND, m_Environment.GetFileCreationTime(u"events.dat", 2, &nTime));
  SetClock(1577836800);
  EXPECT_EQ(132223104000000000u, StorageEnvironment::GetCurrentTime());
}

// A segment's four files take four descriptors; hundreds of open segments are more than the usual limit.
TEST_F(EnvironmentTest, LiftsTheDescriptorLimitOnce) {
  rlimit Limit{};
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &Limit));
  Limit.rlim_cur = Limit.rlim_max - 1;
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &Limit));
  FailCalls(SystemCall::Open, EMFILE);
  EXPECT_CODE(errOK, Open(u"a", 1, true));
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &Limit));
  EXPECT_EQ(Limit.rlim_max, Limit.rlim_cur);
  FailCalls(SystemCall::Open, EMFILE, 0, 2);
  EXPECT_CODE(static_cast<ResultCode>(0x80070004u), Open(u"b", 1, true));
}

}  // namespace
}  // namespace lumbra::test
