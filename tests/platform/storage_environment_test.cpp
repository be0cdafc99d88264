// One database folder: making, deleting and dates.
#include "platform/storage_environment.h"

#include "support/steps.h"

namespace lumbra::test {
namespace {

class EnvironmentTest : public World {
 protected:
  bool Init(const char* pFolder, FolderContent Content = FolderContent::Keep) {
    return StorageEnvironment().Init(this, Path(pFolder).c_str(), Content, false);
  }
  bool Exists(const char* pName) const { return fs::exists(Folder() / pName); }
};

TEST_F(EnvironmentTest, CreatesFoldersWithTheirParents) {
  EXPECT_TRUE(Init("a/b\\c/"));
  EXPECT_TRUE(Exists("a/b/c"));
  EXPECT_TRUE(Init("n//./x/../y/."));
  EXPECT_TRUE(Exists("n/y"));
  WriteFile("file", {});
  EXPECT_FALSE(Init("file"));
  EXPECT_FALSE(Init("file/x"));
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

TEST_F(EnvironmentTest, TellsTimesInWholeSeconds) {
  std::uint64_t nTime = 99;
  constexpr std::uint64_t kSecond = 10000000;
  const std::uint64_t nBefore = StorageEnvironment::GetCurrentTime();
  WriteFile("00000001_events.dat", {});
  EXPECT_CODE(errOK, m_Environment.GetFileCreationTime(u"events.dat", 1, &nTime));
  EXPECT_EQ(0u, nTime % kSecond);
  EXPECT_LE(nTime, StorageEnvironment::GetCurrentTime());
  EXPECT_GE(nTime + 2 * kSecond, nBefore);
}

}  // namespace
}  // namespace lumbra::test
