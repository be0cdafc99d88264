// What is posix's own: interrupted calls, links, names with a backslash, and rights.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <future>
#include <thread>

#include "component/component_fixture.h"
#include "objects/objdb_fixture.h"
#include "platform/file.h"
#include "platform/posix/posix.h"
#include "support/steps.h"

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

// Who may write to the folder could put there what leads to a file that he may not write to, or keeps us waiting.
TEST_F(PosixTest, OpensPlainFilesOfItsFolderAlone) {
  const auto Try = [this](const char16_t* pName) {
    std::unique_ptr<StorageFile> pFile;
    return m_Environment.OpenFile(pName, 0, true, true, &pFile);
  };
  WriteFile("of others/file", {'x'});
  fs::create_symlink("of others/file", Folder() / "link");
  fs::create_symlink("made", Folder() / "leads nowhere");
  fs::create_hard_link(Folder() / "of others/file", Folder() / "second name");
  const auto pHeld = OpenFile(u"held");
  fs::create_hard_link(Folder() / "held", Folder() / "held too");
  ASSERT_EQ(0, mkfifo((Folder() / "pipe").c_str(), 0600));
  AllAnswer(errACCESS_DENIED,
            {{"a link", Try(u"link")},
             {"a link to nothing", Try(u"leads nowhere")},
             {"a second name", Try(u"second name")},
             {"a second name of one that is held", Try(u"held too")},
             {"a pipe", Try(u"pipe")},
             {"a folder", Try(u"of others")},
             {"to be cut, by its path", File().OpenWithFlags(Path("link"), fileWrite, createAlways)}});
  EXPECT_FALSE(fs::exists(Folder() / "made"));
  EXPECT_EQ("78", ToHex(ReadFile("of others/file")));
  WriteFile("back\\slash", {});
  EXPECT_CODE(errOK, m_Environment.DeleteFiles(u"*.*", 0));
  EXPECT_TRUE(fs::is_symlink(Folder() / "link"));
  EXPECT_FALSE(fs::exists(Folder() / "back\\slash"));
}

TEST_F(PosixTest, UsesNoFolderThatIsALink) {
  WriteFile("store/01/file", {});
  fs::create_directory_symlink("store/01", Folder() / "store/02");
  fs::create_directory_symlink(".", Folder() / "above");
  fs::create_directory_symlink("store", Folder() / "link");
  const auto Uses = [this](const char* pStore, const char16_t* pName) {
    StorageEnvironment Other;
    return Other.InitBelow(this, m_Environment, Path(pStore).c_str(), pName, false);
  };
  EXPECT_TRUE(Uses("above/store", u"01"));
  EXPECT_FALSE(Uses("store", u"02"));
  EXPECT_FALSE(Uses("link", u"01"));
  EXPECT_FALSE(Uses("link/", u"01"));
  EXPECT_FALSE(Uses("link/./", u"01"));
}

// What was opened is what is looked at: nobody can put another folder there in between.
TEST_F(PosixTest, UsesNoFolderOfOthers) {
  WriteFile("store/01/file", {});
  m_Rules.bOwnFolders = true;
  const auto Uses = [this] {
    return StorageEnvironment().InitBelow(this, m_Environment, Path("store").c_str(), u"01", false);
  };
  EXPECT_TRUE(Uses());
  for (const char* const pName : {"store", "store/01"}) {
    fs::permissions(Folder() / pName, fs::perms(0777));
    EXPECT_FALSE(Uses()) << pName;
    fs::permissions(Folder() / pName, fs::perms(0755));
    if (geteuid() != 0) continue;  // only root can give folders away
    ASSERT_EQ(0, chown((Folder() / pName).c_str(), 65534, 0));
    EXPECT_FALSE(Uses()) << pName;
    ASSERT_EQ(0, chown((Folder() / pName).c_str(), 0, 0));
  }
  EXPECT_TRUE(Uses());
}

// Whatever the mask of the process says; what is there keeps its rights.
TEST_F(PosixTest, GivesOthersNoRights) {
  WriteFile("store/old", {});
  fs::permissions(Folder() / "store", fs::perms(0755));
  for (const auto& [nMask, bGroup, Expected] : {std::tuple{0000u, false, "0700 0700 0600"},
                                                {0777u, false, "0700 0700 0600"},
                                                {0777u, true, "0750 0750 0640"}}) {
    const mode_t nBefore = umask(nMask);
    m_Rules.ForWhom = bGroup ? os::Readers::OwnerAndGroup : os::Readers::OwnerAlone;
    StorageEnvironment New;
    EXPECT_TRUE(New.InitBelow(this, m_Environment, Path("new").c_str(), u"01", false));
    std::unique_ptr<StorageFile> pFile;
    EXPECT_CODE(errOK, New.OpenFile(u"file", 0, true, true, &pFile));
    umask(nBefore);
    std::string Modes;
    for (const char* const pName : {"new", "new/01", "new/01/file"}) {
      char Mode[10];
      std::snprintf(Mode, sizeof(Mode), "%04o ", static_cast<unsigned>(fs::status(Folder() / pName).permissions()));
      Modes += Mode;
    }
    EXPECT_EQ(Expected + std::string(" "), Modes);
    fs::remove_all(Folder() / "new");
  }
  EXPECT_TRUE(StorageEnvironment().Init(this, Path("store").c_str(), FolderContent::Keep, false));
  EXPECT_EQ(fs::perms(0755), fs::status(Folder() / "store").permissions());
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

using PosixComponentTest = ComponentTest;

TEST_F(PosixComponentTest, WhoReadsADatabaseDoesNotWaitForAnAddToAnother) {
  Fill(m_nNamed, 1, 1);
  std::future<ResultCode> Read;
  std::future_status While = std::future_status::timeout;
  WatchChanges([&](DiskChange&) {
    Read = std::async(std::launch::async, [this] {
      Event Found{};
      return Call(&Ops::GetEvents, m_nNamed, 0, &Found, sizeof(Found), 1, nullptr, nullptr);
    });
    While = Read.wait_for(std::chrono::seconds(20));
    return Fate::Happens;
  });
  Must(Add(5, 1));
  WatchChanges({});
  EXPECT_EQ(std::future_status::ready, While);
  EXPECT_CODE(errOK, Read.get());
}

using PosixObjectDbTest = ObjectDbTest;

// Below the root a slot goes with its node's CRC: what of both was written when the rest fails is put back.
TEST_F(PosixObjectDbTest, ATornSlotKeepsItsNode) {
  Start(kChecked, {0x0101, 0x0201});
  int nWrites = 0;
  WatchChanges([&](DiskChange& Change) {
    if (Change.What != DiskChange::Write) return Fate::Happens;
    ++nWrites;
    if (nWrites == 3) Change.Bytes.resize(Change.Bytes.size() / 2);  // behind name and record
    return nWrites == 4 ? Fate::Fails : Fate::Happens;               // the other half
  });
  EXPECT_CODE(errWRITE_FAILED, TryCreate(0x0301));
  WatchChanges({});
  Open(kChecked);
  ExpectAll({0x0101, 0x0201});
}

}  // namespace
}  // namespace lumbra::test
