// What is Windows' own: thread slots, identities that a thread borrows, and paths.
#include <windows.h>
// Behind it, what builds on it.
#include "host/loaded_module.h"
#include "platform/folders.h"
#include "support/steps.h"

namespace lumbra::test {
namespace {

using Win32Test = World;

std::size_t FreeThreadSlots() {
  std::vector<DWORD> Slots;
  for (DWORD n = TlsAlloc(); n != TLS_OUT_OF_INDEXES; n = TlsAlloc()) Slots.push_back(n);
  for (const DWORD nSlot : Slots) TlsFree(nSlot);
  return Slots.size();
}

// A process has about a thousand slots: a module that kept one would end a host that loads it again and again.
TEST_F(Win32Test, UnloadedModuleKeepsNoThreadSlot) {
  const std::size_t nFree = FreeThreadSlots();
  for (int i = 0; i < 3; ++i) {
    host::ModuleFile File;
    host::LoadedModule Module;
    ASSERT_EQ("", host::ReadModuleFile(LUMBRA_MODULE, &File).Text);
    ASSERT_EQ("", Module.Load(File).Text);
    host::StandaloneHost Host(Module.Entry());
    Host.SetPlaceholder(u"%Report%", WideFolder());
    EXPECT_CODE(errOK, Host.Create().Init());
    EXPECT_GT(nFree, FreeThreadSlots());
  }
  EXPECT_EQ(nFree, FreeThreadSlots());
}

// The token that the thread acts under in place of the process's, by its number; 0 for none.
std::uint64_t BorrowedToken() {
  HANDLE Token = nullptr;
  if (!OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, &Token)) return 0;
  TOKEN_STATISTICS Found{};
  DWORD nSize = 0;
  EXPECT_TRUE(GetTokenInformation(Token, TokenStatistics, &Found, sizeof(Found), &nSize));
  CloseHandle(Token);
  return static_cast<std::uint64_t>(Found.TokenId.HighPart) << 32 | Found.TokenId.LowPart;
}
std::uint64_t g_nTokenAtOpen = 0;

TEST_F(Win32Test, OpensFilesUnderTheIdentityOfTheProcess) {
  ASSERT_TRUE(ImpersonateSelf(SecurityImpersonation));
  const std::uint64_t nBorrowed = BorrowedToken();
  ASSERT_NE(0u, nBorrowed);
  std::unique_ptr<StorageFile> pFile;
  for (const auto& [bCreate, nCode] : {std::pair{false, errOBJECT_NOT_FOUND}, {true, errOK}}) {
    g_nTokenAtOpen = 99;
    WatchOpen([] { g_nTokenAtOpen = BorrowedToken(); });
    EXPECT_CODE(nCode, m_Environment.OpenFile(u"a", 0, bCreate, true, &pFile));
    EXPECT_EQ(0u, g_nTokenAtOpen);
    EXPECT_EQ(nBorrowed, BorrowedToken());
  }
  RevertToSelf();
}

class Win32PathTest : public World {
 protected:
  Win32PathTest() { fs::current_path(Folder()); }
  ~Win32PathTest() override {
    fs::current_path(m_Before);
    // The library finds no way to these.
    const fs::path Deep = u"\\\\?\\" + m_Deep;
    for (const fs::path& Made : {Deep / "z", Deep, Deep.parent_path()}) RemoveDirectoryW(Made.c_str());
  }

  const fs::path m_Before = fs::current_path();
  const std::u16string m_Deep = WideFolder() + u"\\" + std::u16string(150, u'x') + u"\\" + std::u16string(150, u'y');
};

TEST_F(Win32PathTest, CreatesFolders) {
  WriteFile("file", {});
  const std::pair<std::vector<std::u16string>, ResultCode> kCases[] = {
      {{u"a/b\\c", u"a\\b/", u".\\a\\..\\d\\\\", WideFolder() + u"/e\\f//", u"\\\\?\\" + WideFolder() + u"\\g\\", u"."},
       errOK},
      {{m_Deep, m_Deep + u"\\z\\"}, errOK},
      {{u"C:\\", u"C:/", u"C:", u"\\\\?\\C:\\"}, errOK},
      {{u"Q:\\", u"Q:/a\\b", u"\\\\?\\Q:\\a"}, errPATH_NOT_FOUND},
      {{u"file", u"file\\x\\y", WideFolder() + u"/file"}, errPATH_NAME_INVALID}};
  for (const auto& [Paths, nCode] : kCases) {
    for (const std::u16string& Wanted : Paths) EXPECT_CODE(nCode, CreateDirectories(Wanted)) << fs::path(Wanted);
  }
  for (const char* const pFolder : {"a/b/c", "d", "e/f", "g"})
    EXPECT_TRUE(fs::is_directory(Folder() / pFolder)) << pFolder;
  EXPECT_TRUE(fs::is_directory(u"\\\\?\\" + m_Deep + u"\\z"));
}

TEST_F(Win32PathTest, OpensMeasuresAndDeletesFilesInEveryFolder) {
  for (const std::u16string& Where : std::vector<std::u16string>{u"a", u"a/b\\", WideFolder() + u"\\c/", m_Deep}) {
    SCOPED_TRACE(fs::path(Where));
    ASSERT_TRUE(m_Environment.Init(this, Where.c_str(), FolderContent::Keep, false));
    std::unique_ptr<StorageFile> pFile;
    Must(m_Environment.OpenFile(u"events.dat", 5, true, true, &pFile));
    ASSERT_TRUE(pFile->SetSize(7));
    std::uint64_t nFound = 0;
    EXPECT_CODE(errOK, m_Environment.GetFileCreationTime(u"ev?nts.*", 5, &nFound));
    m_bExactSizes = !m_bExactSizes;
    EXPECT_CODE(errOK, m_Environment.GetFileSize(u"*.dat", 5, &nFound));  // while it is held open
    EXPECT_EQ(7u, nFound);
    EXPECT_CODE(errNOT_FOUND, m_Environment.GetFileSize(u"*.dat", 6, &nFound));
    for (const std::uint32_t nId : {5, 0}) {
      EXPECT_CODE(errOK, m_Environment.DeleteFiles(u"*.*", nId));
      EXPECT_CODE(errOK, m_Environment.GetFileSize(u"events.dat", 5, &nFound)) << "what is held stays";
    }
    pFile.reset();
    EXPECT_CODE(errOK, m_Environment.DeleteFiles(u"*.*", 0));
    EXPECT_CODE(errNOT_FOUND, m_Environment.GetFileSize(u"events.dat", 5, &nFound));
  }
}

}  // namespace
}  // namespace lumbra::test
