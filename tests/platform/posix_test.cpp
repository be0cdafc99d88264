// What is posix's own: errno values, interrupted calls, links, names with a backslash, and the limit of descriptors.
#include <gmock/gmock.h>
#include <sys/resource.h>

#include <cerrno>
#include <thread>

#include "platform/file.h"
#include "platform/posix/posix.h"
#include "support/system_calls.h"
#include "support/world.h"

namespace lumbra::test {
namespace {

using PosixTest = World;

TEST_F(PosixTest, GoesOnAfterInterruptedAndPartialTransfers) {
  const auto pFile = OpenFile(u"a");
  MakeTransfersRagged(true);
  std::string Data;
  for (int i = 0; i < 1000; ++i) Data += std::to_string(i);
  const auto nSize = static_cast<std::uint32_t>(Data.size());
  std::uint32_t nDone = 9;
  EXPECT_TRUE(pFile->SeekWrite(3, Data.data(), nSize, &nDone));
  EXPECT_EQ(nSize, nDone);
  std::string Found(nSize + 1, '?');
  EXPECT_TRUE(pFile->SeekRead(3, Found.data(), nSize + 1, &nDone));
  EXPECT_EQ(Data, Found.substr(0, nDone));
}

TEST(Errno, BecomesWin32Errors) {
  const std::pair<int, std::uint32_t> kErrors[] = {{0, 0},      {ENOSPC, 112}, {EDQUOT, 112},     {EACCES, 5},
                                                   {ENOMEM, 8}, {EINVAL, 87},  {EWOULDBLOCK, 32}, {ENFILE, 4},
                                                   {EIO, 1117}, {ENOENT, 2},   {EPROTO, 31}};
  for (const auto& [nErrno, nNumber] : kErrors) {
    EXPECT_EQ(nNumber, static_cast<std::uint32_t>(os::ErrorFromErrno(nErrno))) << nErrno;
  }
}

TEST_F(PosixTest, FollowsLinksAndDeletesNone) {
  fs::create_symlink("none/x", Folder() / "nowhere");
  fs::create_symlink("made", Folder() / "link");
  EXPECT_CODE(errFILE_NOT_FOUND, File().OpenWithFlags(Path("nowhere"), fileRead, openAlways));
  EXPECT_CODE(errOK, File().OpenWithFlags(Path("link"), fileRead | fileWrite, openAlways));
  EXPECT_EQ(0u, FileSize("made"));
  WriteFile("back\\slash", {});
  EXPECT_CODE(errOK, m_Environment.DeleteFiles(u"*.*", 0));
  std::vector<std::string> Left;
  for (const auto& One : fs::directory_iterator(Folder())) Left.push_back(One.path().filename());
  EXPECT_THAT(Left, testing::UnorderedElementsAre("link", "nowhere"));
}

TEST_F(PosixTest, DeletesNoSegmentWhileItCannotSeeThemAll) {
  for (const char* const pName : {"00000001_events.dat", "00000002_events.dat"}) WriteFile(pName, {});
  const auto LeftBy = [this](int nErrno) {
    FailCallsNatively(SystemCall::Look, nErrno);
    EXPECT_CODE(errOK, m_Environment.DeleteFiles(u"*.*", 0));
    return std::distance(fs::directory_iterator(Folder()), fs::directory_iterator());
  };
  EXPECT_EQ(2, LeftBy(EIO));
  EXPECT_EQ(0, LeftBy(ENOENT));  // one that is gone by then is no matter
}

// The name of a new file is brought to the disk where that can be had, and its content does not fail for it.
TEST_F(PosixTest, FlushesAFileWhoseFolderCannotBeSynced) {
  // How three flushes of a new file end, of which the first cannot sync its folder, and the syncs that each takes.
  const auto Flushes = [this](int nErrno) {
    const auto pFile = OpenFile(std::u16string(1, static_cast<char16_t>(u'A' + nErrno)).c_str());
    std::string Answers;
    FailCallsNatively(SystemCall::Sync, nErrno, 1);  // the one behind the file's own
    for (int i = 0; i < 3; ++i) {
      EXPECT_TRUE(pFile->SeekWrite(0, "x", 1, nullptr));
      MarkCalls();
      Answers += pFile->Flush() ? '+' : '-';
      Answers += std::to_string(CallsSinceMark(SystemCall::Sync));
    }
    return Answers;
  };
  for (const int nErrno : {EINVAL, EACCES, EPERM, EROFS, ENOTSUP, EBADF})
    EXPECT_EQ("+2+1+1", Flushes(nErrno)) << nErrno;
  for (const int nErrno : {EIO, ENOSPC}) EXPECT_EQ("-2+2+1", Flushes(nErrno)) << nErrno;
}

TEST_F(PosixTest, FlushesAFileWhoseFolderHasMoved) {
  fs::create_directory(Folder() / "before");
  const auto pFile = OpenFile(u"before/a");
  fs::rename(Folder() / "before", Folder() / "behind");
  EXPECT_TRUE(pFile->SeekWrite(0, "x", 1, nullptr));
  EXPECT_TRUE(pFile->Flush());
}

// A segment's four files take four descriptors; hundreds of open segments are more than the usual limit.
TEST_F(PosixTest, LiftsTheDescriptorLimitOnce) {
  rlimit Limit{};
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &Limit));
  Limit.rlim_cur = Limit.rlim_max - 1;
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &Limit));
  FailCallsNatively(SystemCall::Open, EMFILE);
  EXPECT_NE(nullptr, OpenFile(u"a"));
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &Limit));
  EXPECT_EQ(Limit.rlim_max, Limit.rlim_cur);
  FailCallsNatively(SystemCall::Open, EMFILE, 0, 2);
  EXPECT_CODE(CodeOfNumber(0x80070004), File().OpenWithFlags(Path("b"), fileWrite, createNew));
}

TEST_F(PosixTest, ServesFirstWhoWaitsFirst) {
  os::CriticalSection Guard;
  for (int nRound = 0; nRound < 100; ++nRound) {
    os::Semaphore* pSemaphore = nullptr;
    ASSERT_EQ(os::kSuccess, os::CreateCountingSemaphore(&pSemaphore));
    std::string Served;
    const auto WaitAs = [&](char cName) {
      Guard.lock();
      EXPECT_EQ(os::kSuccess, os::WaitForSemaphore(pSemaphore, Guard));
      Served += cName;
      os::ReleaseSemaphoreBy(pSemaphore, 1);
    };
    std::vector<std::jthread> Waiting;
    for (const char cName : {'a', 'b'}) {
      const std::uint64_t nWaits = CallsOf(SystemCall::Wait);
      Waiting.emplace_back(WaitAs, cName);
      while (CallsOf(SystemCall::Wait) == nWaits) std::this_thread::yield();
    }
    os::ReleaseSemaphoreBy(pSemaphore, 1);  // for the first, which may not have woken up yet
    WaitAs('c');
    Waiting.clear();
    os::CloseSemaphore(pSemaphore);
    ASSERT_EQ("abc", Served);
  }
}

}  // namespace
}  // namespace lumbra::test
