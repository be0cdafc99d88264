#include <windows.h>
// Behind it, what builds on it.
#include <fcntl.h>
#include <io.h>
#include <shellapi.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <system_error>

#include "host/text.h"
#include "machine.h"

namespace lumbra::tool {
namespace {

std::atomic<bool> g_bInterrupted{false};

const char16_t* Utf16(const wchar_t* pText) {
  return reinterpret_cast<const char16_t*>(pText);
}

std::string MessageOf(DWORD nError) {
  return std::system_category().message(static_cast<int>(nError));
}

BOOL WINAPI OnConsoleEvent(DWORD nEvent) {
  if (nEvent != CTRL_C_EVENT && nEvent != CTRL_BREAK_EVENT) return FALSE;
  g_bInterrupted = true;
  return TRUE;
}

// A link to another name, as opposed to the other things that reparse points stand for.
bool IsLink(const std::filesystem::path& Path) {
  WIN32_FIND_DATAW Found{};
  const HANDLE Search = FindFirstFileW(Path.c_str(), &Found);
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

void PrepareStreams() {
  for (std::FILE* const pStream : {stdin, stdout, stderr}) _setmode(_fileno(pStream), _O_BINARY);
  SetConsoleOutputCP(CP_UTF8);
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

bool ErrorsGoToTerminal() {
  return _isatty(_fileno(stderr)) != 0;
}

// There are none.
void LetLimitsFailWrites() {}

void WatchForInterrupt() {
  SetConsoleCtrlHandler(&OnConsoleEvent, TRUE);
}

bool Interrupted() {
  return g_bInterrupted;
}

std::string WhyNotUsable(const std::filesystem::path& Folder) {
  const DWORD nAttributes = GetFileAttributesW(Folder.c_str());
  if (nAttributes == INVALID_FILE_ATTRIBUTES) {
    const DWORD nError = GetLastError();
    if (nError != ERROR_FILE_NOT_FOUND && nError != ERROR_PATH_NOT_FOUND) return MessageOf(nError);
    return Folder.has_relative_path() ? WhyNotUsable(Folder.parent_path()) : std::string();
  }
  if ((nAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0) return Folder.string() + " is no folder";
  for (const char* const pName : {"g_objbt.dat", "g_objid.dat", "g_objdt.dat", "g_db_id.dat"}) {
    const std::filesystem::path Path = Folder / pName;
    const HANDLE Opened = CreateFileW(Path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                      nullptr, OPEN_EXISTING, 0, nullptr);
    const DWORD nError = GetLastError();
    if (Opened != INVALID_HANDLE_VALUE) {
      CloseHandle(Opened);
    } else if (nError != ERROR_FILE_NOT_FOUND) {
      return Path.string() + ": " + MessageOf(nError);
    }
  }
  return {};
}

bool IsHeld(const std::filesystem::path& File) {
  const HANDLE Opened = CreateFileW(File.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
  if (Opened == INVALID_HANDLE_VALUE) return GetLastError() == ERROR_SHARING_VIOLATION;
  CloseHandle(Opened);
  return false;
}

bool Look(const std::filesystem::path& Path, Entry* pEntry, std::string* pReason) {
  WIN32_FILE_ATTRIBUTE_DATA Found{};
  if (!GetFileAttributesExW(Path.c_str(), GetFileExInfoStandard, &Found)) {
    *pReason = MessageOf(GetLastError());
    return false;
  }
  pEntry->Kind = KindOf(Path, Found.dwFileAttributes);
  pEntry->nSize = std::uint64_t{Found.nFileSizeHigh} << 32 | Found.nFileSizeLow;
  pEntry->nModified = std::uint64_t{Found.ftLastWriteTime.dwHighDateTime} << 32 | Found.ftLastWriteTime.dwLowDateTime;
  return true;
}

}  // namespace lumbra::tool
