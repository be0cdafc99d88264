// One database folder: names, opening, deleting, sizes and dates.
#include "platform/storage_environment.h"

#include "support/steps.h"

namespace lumbra::test {
namespace {

class EnvironmentTest : public World {
 protected:
  ResultCode Open(const char16_t* pName, std::uint32_t nId, bool bCreate = true) {
    return m_Environment.OpenFile(pName, nId, bCreate, true, &m_pFile);
  }
  bool Init(const char* pFolder, FolderContent Content = FolderContent::Keep) {
    return m_Fresh.Init(this, Path(pFolder).c_str(), Content, false);
  }
  ResultCode GetSize(const char16_t* pName, std::uint32_t nId) {
    return m_Environment.GetFileSize(pName, nId, &m_nValue);
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
  EXPECT_CODE(errSHARING_VIOLATION, Open(u"events.dat", 0x2A, false));
  EXPECT_CODE(errOK, Open(u"events.dat", 0));
  EXPECT_TRUE(Exists("events.dat"));
}

TEST_F(EnvironmentTest, NeedsAFolder) {
  AllAnswer(errSTORE_NOT_INITIALIZED, {{"open", m_Fresh.OpenFile(u"a", 0, true, true, &m_pFile)},
                                       {"size", m_Fresh.GetFileSize(u"a", 0, &m_nValue)},
                                       {"time", m_Fresh.GetFileCreationTime(u"a", 0, &m_nValue)}});
  EXPECT_FALSE(m_Fresh.Init(this, u"", FolderContent::Keep, false));
}

TEST_F(EnvironmentTest, CreatesFoldersWithTheirParents) {
  EXPECT_TRUE(Init("a/b\\c/"));
  EXPECT_TRUE(Exists("a/b/c"));
  EXPECT_TRUE(Init("n//./x/../y/."));
  EXPECT_TRUE(Exists("n/y"));
  WriteFile("file", {});
  EXPECT_FALSE(Init("file"));
  EXPECT_FALSE(Init("file/x"));
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
}

TEST_F(EnvironmentTest, WipesAllFilesAndNoFolder) {
  for (const char* const pName : {"f/00000006_events.dat", "f/segments.dat", "f/sub/in"}) WriteFile(pName, {});
  EXPECT_TRUE(Init("f", FolderContent::Wipe));
  EXPECT_FALSE(Exists("f/00000006_events.dat"));
  EXPECT_FALSE(Exists("f/segments.dat"));
  EXPECT_TRUE(Exists("f/sub/in"));
}

TEST_F(EnvironmentTest, SumsFileSizes) {
  for (const auto& [pName, nSize] : {std::pair{"00000007_a.dat", 10}, {"00000007_b.dat", 5}, {"00000007_b.txt", 99}})
    WriteFile(pName, Bytes(static_cast<std::size_t>(nSize)));
  Step("by a pattern", GetSize(u"*.dat", 7)).Is(errOK).Says({}, 500);
  EXPECT_EQ(15u, m_nValue);
  EXPECT_CODE(errOK, GetSize(u"b.txt", 7));
  EXPECT_EQ(99u, m_nValue);
  EXPECT_CODE(errNOT_FOUND, GetSize(u"*.dat", 9));
  EXPECT_EQ(0u, m_nValue);
}

TEST_F(EnvironmentTest, MeasuresFilesOnRequest) {
  m_bExactSizes = true;
  WriteFile("00000007_a.dat", Bytes(10));
  const std::string Where = ": dirname = '" + Folder().string() + "'; filename = '00000007_a.dat'; size = 10";
  Step("measure", GetSize(u"?.dat", 7))
      .Is(errOK)
      .Says({"500 GetFileSize: dir entry file size" + Where, "500 GetFileSize: exact file size" + Where}, 500);
  EXPECT_EQ(10u, m_nValue);
  FailCalls(SystemCall::Look, os::kIoDevice, 1);  // behind the one that finds it
  EXPECT_CODE(errUNEXPECTED, GetSize(u"?.dat", 7));
}

TEST_F(EnvironmentTest, TellsTimesInWholeSeconds) {
  constexpr std::uint64_t kSecond = 10000000;
  const std::uint64_t nBefore = StorageEnvironment::GetCurrentTime();
  WriteFile("00000001_events.dat", {});
  EXPECT_CODE(errOK, m_Environment.GetFileCreationTime(u"events.dat", 1, &m_nValue));
  EXPECT_EQ(0u, m_nValue % kSecond);
  EXPECT_LE(m_nValue, StorageEnvironment::GetCurrentTime());
  EXPECT_GE(m_nValue + 2 * kSecond, nBefore);
  EXPECT_CODE(errNOT_FOUND, m_Environment.GetFileCreationTime(u"events.dat", 2, &m_nValue));
  SetClock(1577836800);  // 2020-01-01
  EXPECT_EQ(132223104000000000u, StorageEnvironment::GetCurrentTime());
}

}  // namespace
}  // namespace lumbra::test
