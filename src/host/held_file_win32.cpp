#include <windows.h>

#include "host/held_file.h"
#include "host/system_win32.h"
#include "platform/result.h"

namespace lumbra::host {
namespace {

HANDLE HandleOf(std::intptr_t nHandle) {
  return reinterpret_cast<HANDLE>(nHandle);
}

bool IsMissing(DWORD nError) {
  return nError == ERROR_FILE_NOT_FOUND || nError == ERROR_PATH_NOT_FOUND;
}

}  // namespace

HeldFile::~HeldFile() {
  if (HandleOf(m_nHandle) != INVALID_HANDLE_VALUE) CloseHandle(HandleOf(m_nHandle));
}

ModuleProblem HeldFile::Open(const std::filesystem::path& Path, std::shared_ptr<const HeldFile>* ppFile) {
  const DWORD nAttributes = GetFileAttributesW(Path.c_str());
  if (nAttributes != INVALID_FILE_ATTRIBUTES && (nAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0)
    return {errMODULE_NOT_FOUND, "is no file"};
  const auto pFile = std::make_shared<HeldFile>();
  const HANDLE pHandle = CreateFileW(Path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
  const DWORD nError = GetLastError();
  if (pHandle == INVALID_HANDLE_VALUE && IsMissing(nError)) return {errFILE_NOT_FOUND, "does not exist"};
  if (pHandle == INVALID_HANDLE_VALUE)
    return {ResultFromSystemError(nError), "cannot be read: " + SystemMessage(nError)};
  pFile->m_nHandle = reinterpret_cast<std::intptr_t>(pHandle);
  LARGE_INTEGER nSize{};
  if (GetFileType(pHandle) != FILE_TYPE_DISK || GetFileSizeEx(pHandle, &nSize) == FALSE)
    return {errMODULE_NOT_FOUND, "is no file"};
  pFile->m_nSize = static_cast<std::uint64_t>(nSize.QuadPart);
  *ppFile = pFile;
  return {};
}

bool HeldFile::ReadAt(std::uint64_t nOffset, void* pBuffer, std::size_t nSize) const {
  auto* pTo = static_cast<char*>(pBuffer);
  while (nSize != 0) {
    OVERLAPPED At{};
    At.Offset = static_cast<DWORD>(nOffset);
    At.OffsetHigh = static_cast<DWORD>(nOffset >> 32);
    constexpr std::size_t kMost = 1 << 20;
    DWORD nRead = 0;
    const auto nWanted = static_cast<DWORD>(nSize < kMost ? nSize : kMost);
    if (ReadFile(HandleOf(m_nHandle), pTo, nWanted, &nRead, &At) == FALSE || nRead == 0) return false;
    pTo += nRead;
    nOffset += nRead;
    nSize -= nRead;
  }
  return true;
}

}  // namespace lumbra::host
