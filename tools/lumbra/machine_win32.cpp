#include <windows.h>
// Behind it, what builds on it.
#include <fcntl.h>
#include <io.h>
#include <shellapi.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <system_error>

#include "format/file_names.h"
#include "host/system_win32.h"
#include "host/text.h"
#include "machine.h"

namespace lumbra::tool {
namespace {

std::atomic<bool> g_bInterrupted{false};

const char16_t* Utf16(const wchar_t* pText) {
  return reinterpret_cast<const char16_t*>(pText);
}

HANDLE g_pMainThread = nullptr;

std::atomic<bool> g_bReadsInput{false};

// The first time a mark is set, and a read that waits for input ends; the second time the program does.
BOOL WINAPI OnConsoleEvent(DWORD nEvent) {
  if (nEvent != CTRL_C_EVENT && nEvent != CTRL_BREAK_EVENT) return FALSE;
  if (g_bInterrupted.exchange(true)) return FALSE;
  if (g_bReadsInput) CancelSynchronousIo(g_pMainThread);
  return TRUE;
}

UINT g_nCodePage = 0;  // of the terminal, before us

// A path as the system takes it at any length.
std::wstring Long(const std::filesystem::path& Path) {
  constexpr std::size_t kMaxShortPath = 248;
  const std::wstring& Text = Path.native();
  if (Text.size() < kMaxShortPath || Text.starts_with(L"\\\\?\\")) return Text;
  return Text.starts_with(L"\\\\") ? L"\\\\?\\UNC\\" + Text.substr(2) : L"\\\\?\\" + Text;
}

// A link to another name, as opposed to the other things that reparse points stand for.
bool IsLink(const std::filesystem::path& Path) {
  WIN32_FIND_DATAW Found{};
  const HANDLE Search = FindFirstFileW(Long(Path).c_str(), &Found);
  if (Search == INVALID_HANDLE_VALUE) return false;
  FindClose(Search);
  return Found.dwReserved0 == IO_REPARSE_TAG_SYMLINK || Found.dwReserved0 == IO_REPARSE_TAG_MOUNT_POINT;
}

EntryKind KindOf(const std::filesystem::path& Path, DWORD nAttributes) {
  if ((nAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 && IsLink(Path)) return EntryKind::Link;
  if ((nAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) return EntryKind::Folder;
  return (nAttributes & FILE_ATTRIBUTE_DEVICE) != 0 ? EntryKind::Other : EntryKind::File;
}

}  // namespace

std::vector<std::string> ProgramArguments(int /*nCount*/, char** /*ppArguments*/) {
  struct Freer {
    void operator()(wchar_t** ppTexts) const { LocalFree(ppTexts); }
  };
  int nCount = 0;
  const std::unique_ptr<wchar_t*, Freer> Texts(CommandLineToArgvW(GetCommandLineW(), &nCount));
  std::vector<std::string> Arguments;
  for (int i = 0; i < nCount; ++i) Arguments.push_back(host::ToUtf8(Utf16(Texts.get()[i])));
  return Arguments;
}

void PrepareProcess() {
  SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX);
  for (std::FILE* const pStream : {stdin, stdout, stderr}) _setmode(_fileno(pStream), _O_BINARY);
  g_nCodePage = GetConsoleOutputCP();
  SetConsoleOutputCP(CP_UTF8);
  std::atexit([] { SetConsoleOutputCP(g_nCodePage); });
  if (const wchar_t* const pStore = _wgetenv(L"LUMBRA_STORE")) {
    _putenv(("LUMBRA_STORE=" + host::ToUtf8(Utf16(pStore))).c_str());
  }
}

std::string TextOf(const std::filesystem::path& Path) {
  return host::ToUtf8(Path.u16string());
}

bool IsExactText(const std::string& Text, const std::filesystem::path& Path) {
  return host::ToUtf16(Text) == Path.u16string();
}

bool IsRootInFolderOfOthers() {
  return false;
}

// Names in a store have up to 83 characters, and the library's functions take paths of up to 259.
std::string WhyNoStorePath(const std::filesystem::path& Folder) {
  constexpr std::size_t kLongest = 259 - 83;
  return Folder.native().size() <= kLongest
             ? ""
             : "the store's path has more than " + std::to_string(kLongest) + " characters";
}

bool ListFolder(const std::filesystem::path& Folder, std::vector<std::filesystem::path>* pEntries,
                std::string* pReason) {
  WIN32_FIND_DATAW Found{};
  const HANDLE Search = FindFirstFileW(Long(Folder / L"*").c_str(), &Found);
  if (Search == INVALID_HANDLE_VALUE) {
    *pReason = host::SystemMessage(GetLastError());
    return false;
  }
  do {
    const std::wstring_view Name = Found.cFileName;
    if (Name != L"." && Name != L"..") pEntries->push_back(Folder / Name);
  } while (FindNextFileW(Search, &Found));
  const DWORD nError = GetLastError();
  FindClose(Search);
  if (nError != ERROR_NO_MORE_FILES) *pReason = host::SystemMessage(nError);
  return nError == ERROR_NO_MORE_FILES;
}

std::filesystem::path AbsolutePath(const std::string& Text) {
  std::wstring Full = host::FullPath(PathOf(Text));
  if (Full.empty()) return PathOf(Text);
  while (Full.size() > 3 && Full.ends_with(L'\\')) Full.pop_back();
  return Full;
}

bool IsSameFolderName(const std::string& Name, const std::string& Other) {
  const std::wstring One = PathOf(Name).native();
  const std::wstring Two = PathOf(Other).native();
  const auto Length = [](const std::wstring& Text) {
    return static_cast<int>(Text.size());
  };
  return CompareStringOrdinal(One.c_str(), Length(One), Two.c_str(), Length(Two), TRUE) == CSTR_EQUAL;
}

std::string MessageOf(const std::error_code& Error) {
  if (Error.category() != std::system_category()) return Error.message();
  return host::SystemMessage(static_cast<std::uint32_t>(Error.value()));
}

std::FILE* OpenStream(const std::string& Path, const char* pMode) {
  const std::wstring Mode(pMode, pMode + std::strlen(pMode));
  return _wfopen(PathOf(Path).c_str(), Mode.c_str());
}

std::string MachineName() {
  wchar_t Name[256] = {};
  DWORD nLength = 256;
  return GetComputerNameExW(ComputerNameDnsHostname, Name, &nLength) ? host::ToUtf8(Utf16(Name)) : "localhost";
}

// One that understands what moves the cursor.
std::uint32_t OwnProcess() {
  return GetCurrentProcessId();
}

bool ErrorsGoToTerminal() {
  const HANDLE Terminal = GetStdHandle(STD_ERROR_HANDLE);
  DWORD nMode = 0;
  return GetConsoleMode(Terminal, &nMode) && SetConsoleMode(Terminal, nMode | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
}

bool OutputIsFile() {
  return GetFileType(GetStdHandle(STD_OUTPUT_HANDLE)) == FILE_TYPE_DISK;
}

void SyncOutput() {
  FlushFileBuffers(GetStdHandle(STD_OUTPUT_HANDLE));  // a pipe or a terminal cannot be
}

// There are none.
void LetLimitsFailWrites() {}

void WatchForInterrupt() {
  DuplicateHandle(GetCurrentProcess(), GetCurrentThread(), GetCurrentProcess(), &g_pMainThread, 0, FALSE,
                  DUPLICATE_SAME_ACCESS);
  SetConsoleCtrlHandler(&OnConsoleEvent, TRUE);
}

void SayInputIsRead(bool bRead) {
  g_bReadsInput = bRead;
}

bool Interrupted() {
  return g_bInterrupted;
}

std::string WhyNotUsable(const std::filesystem::path& Folder) {
  const DWORD nAttributes = GetFileAttributesW(Folder.c_str());
  if (nAttributes == INVALID_FILE_ATTRIBUTES) {
    const DWORD nError = GetLastError();
    if (nError != ERROR_FILE_NOT_FOUND && nError != ERROR_PATH_NOT_FOUND) return host::SystemMessage(nError);
    return Folder.has_parent_path() && Folder.parent_path() != Folder ? WhyNotUsable(Folder.parent_path())
                                                                      : host::SystemMessage(nError);
  }
  if ((nAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0) return TextOf(Folder) + " is no folder";
  for (const char16_t* const pName : {kSharedTreeFile, kSharedIdsFile, kSharedDataFile, kIndexFile}) {
    const std::filesystem::path Path = Folder / pName;
    const HANDLE Opened = CreateFileW(Path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                      nullptr, OPEN_EXISTING, 0, nullptr);
    const DWORD nError = GetLastError();
    if (Opened != INVALID_HANDLE_VALUE) {
      CloseHandle(Opened);
    } else if (nError != ERROR_FILE_NOT_FOUND) {
      return TextOf(Path) + ": " + host::SystemMessage(nError);
    }
  }
  return {};
}

std::filesystem::path FileWithSecondName(const std::filesystem::path& /*Store*/) {
  return {};
}

std::error_code ReadPlainFile(const std::filesystem::path& Path, std::uint64_t nOffset, std::size_t nSize,
                              std::string* pContent) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> File(_wfopen(Path.c_str(), L"rb"), &std::fclose);
  const auto LastError = [] {
    return std::error_code(errno, std::generic_category());
  };
  if (File == nullptr) return LastError();
  pContent->resize(nSize);
  if (_fseeki64(File.get(), static_cast<std::int64_t>(nOffset), SEEK_SET) != 0) return LastError();
  pContent->resize(std::fread(pContent->data(), 1, nSize, File.get()));
  return std::ferror(File.get()) != 0 ? LastError() : std::error_code();
}

bool IsHeld(const std::filesystem::path& File) {
  const HANDLE Opened = CreateFileW(File.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
  if (Opened == INVALID_HANDLE_VALUE) return GetLastError() == ERROR_SHARING_VIOLATION;
  CloseHandle(Opened);
  return false;
}

bool Look(const std::filesystem::path& Path, Entry* pEntry, std::string* pReason) {
  WIN32_FILE_ATTRIBUTE_DATA Found{};
  if (!GetFileAttributesExW(Long(Path).c_str(), GetFileExInfoStandard, &Found)) {
    *pReason = host::SystemMessage(GetLastError());
    return false;
  }
  pEntry->Kind = KindOf(Path, Found.dwFileAttributes);
  pEntry->nSize = std::uint64_t{Found.nFileSizeHigh} << 32 | Found.nFileSizeLow;
  pEntry->nModified = std::uint64_t{Found.ftLastWriteTime.dwHighDateTime} << 32 | Found.ftLastWriteTime.dwLowDateTime;
  return true;
}

}  // namespace lumbra::tool
