#include <windows.h>
// Behind it, what builds on it.
#include <fcntl.h>
#include <io.h>

#include "host/trace_file.h"

namespace lumbra::host {
namespace {

bool IsPlain(HANDLE pFile) {
  BY_HANDLE_FILE_INFORMATION Found{};
  constexpr DWORD kNoPlainFile = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT;
  return GetFileType(pFile) == FILE_TYPE_DISK && GetFileInformationByHandle(pFile, &Found) != FALSE &&
         (Found.dwFileAttributes & kNoPlainFile) == 0 && Found.nNumberOfLinks == 1;
}

}  // namespace

std::FILE* OpenTraceFile(const std::filesystem::path& Path, bool bReplace) {
  // A link is opened itself, and refused.
  const HANDLE pOpened = CreateFileW(Path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                     OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
  if (pOpened == INVALID_HANDLE_VALUE) return nullptr;
  int nDescriptor = -1;
  if (IsPlain(pOpened) && (!bReplace || SetEndOfFile(pOpened) != FALSE))
    nDescriptor = _open_osfhandle(reinterpret_cast<std::intptr_t>(pOpened), _O_APPEND | _O_BINARY | _O_NOINHERIT);
  if (nDescriptor < 0) {
    CloseHandle(pOpened);
    return nullptr;
  }
  std::FILE* const pFile = _fdopen(nDescriptor, "ab");
  if (pFile == nullptr) _close(nDescriptor);
  return pFile;
}

}  // namespace lumbra::host
