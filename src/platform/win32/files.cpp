// Files on Windows. A FileHandle is the system's own handle.
#include <fcntl.h>
#include <io.h>
#include <share.h>
#include <sys/stat.h>

#include <cerrno>
#include <new>

#include "platform/win32/win32.h"

namespace lumbra::os {
namespace {

HANDLE NativeHandle(FileHandle Handle) {
  return Handle == nullptr ? INVALID_HANDLE_VALUE : reinterpret_cast<HANDLE>(Handle);
}

SystemError MovePosition(FileHandle Handle, std::int64_t nDistance, SeekOrigin Origin, std::uint64_t* pnPosition) {
  LARGE_INTEGER Distance{};
  LARGE_INTEGER Position{};
  Distance.QuadPart = nDistance;
  if (!SetFilePointerEx(NativeHandle(Handle), Distance, &Position, static_cast<DWORD>(Origin))) return LastError();
  if (pnPosition != nullptr) *pnPosition = static_cast<std::uint64_t>(Position.QuadPart);
  return kSuccess;
}

// An offset past the largest position is a negative distance to the system, which refuses it.
SystemError MoveTo(FileHandle Handle, std::uint64_t nOffset) {
  return MovePosition(Handle, static_cast<std::int64_t>(nOffset), SeekOrigin::Start, nullptr);
}

// The information class by which the system sets a file's end, and the function that takes it. Not every Windows that
// hosts ran on has it, so that a module which imported it would not load there.
constexpr int kEndOfFileInformation = 6;
using SetInformationFunction = BOOL(WINAPI*)(HANDLE, int, void*, DWORD);

SetInformationFunction SetInformation() {
  static const auto pFunction = FindFunction<SetInformationFunction>(L"kernel32.dll", "SetFileInformationByHandle");
  return pFunction;
}

// The end of the file is set where the position is, which is put back afterwards.
SystemError SetSizeByPosition(FileHandle Handle, std::uint64_t nSize) {
  std::uint64_t nBefore = 0;
  SystemError nError = MovePosition(Handle, 0, SeekOrigin::Current, &nBefore);
  if (nError == kSuccess) nError = MoveTo(Handle, nSize);
  if (nError == kSuccess) nError = ErrorUnless(SetEndOfFile(NativeHandle(Handle)));
  return nError == kSuccess ? MoveTo(Handle, nBefore) : nError;
}

bool IsSharingViolation(HANDLE Opened) {
  return Opened == INVALID_HANDLE_VALUE && GetLastError() == ERROR_SHARING_VIOLATION;
}

// For some seconds after a file was deleted, one that is made under its name gets the creation time of the old one.
// Databases have an age by that time: they must not inherit it.
void SetCreatedNow(HANDLE Created) {
  FILETIME Now{};
  GetSystemTimeAsFileTime(&Now);
  SetFileTime(Created, &Now, nullptr, nullptr);  // on a file system that keeps none there is none to be wrong
}

}  // namespace

SystemError LastError() {
  const auto nError = static_cast<SystemError>(GetLastError());
  return nError == kSuccess ? kGeneralFailure : nError;
}

SystemError ErrorUnless(BOOL bDone) {
  return bDone ? kSuccess : LastError();
}

SystemError Open(std::u16string_view Path, std::uint32_t nAccess, std::uint32_t nShare, Disposition nDisposition,
                 std::uint32_t nFlags, FileHandle* pHandle) try {
  const std::u16string Native = NativePath(Path);
  const auto OpenOnce = [&] {
    return CreateFileW(Wide(Native), nAccess, nShare, nullptr, static_cast<DWORD>(nDisposition), nFlags, nullptr);
  };
  HANDLE Opened = OpenOnce();
  // Small files are opened alone, and somebody who only looks may have one open for a moment.
  constexpr int kTries = 10;
  for (int i = 0; i < kTries && nShare == 0 && IsSharingViolation(Opened); ++i) {
    Sleep(2);
    Opened = OpenOnce();
  }
  if (Opened == INVALID_HANDLE_VALUE) return LastError();
  const bool bCreated = nDisposition == Disposition::OpenAlways && GetLastError() != ERROR_ALREADY_EXISTS;
  if (bCreated && (nAccess & kGenericWrite) != 0) SetCreatedNow(Opened);
  *pHandle = reinterpret_cast<FileHandle>(Opened);
  return kSuccess;
} catch (const std::bad_alloc&) {
  return kNotEnoughMemory;
}

SystemError Open(const FolderHandle& pFolder, std::u16string_view Name, std::uint32_t nAccess, std::uint32_t nShare,
                 Disposition nDisposition, std::uint32_t nFlags, FileHandle* pHandle) try {
  if (pFolder == nullptr) return kInvalidHandle;
  return Open(pFolder->Path + std::u16string(Name), nAccess, nShare, nDisposition, nFlags, pHandle);
} catch (const std::bad_alloc&) {
  return kNotEnoughMemory;
}

SystemError Close(FileHandle Handle) {
  return ErrorUnless(CloseHandle(NativeHandle(Handle)));
}

SystemError Read(FileHandle Handle, void* pBuffer, std::uint32_t nSize, std::uint32_t* pnRead) {
  DWORD nRead = 0;
  const SystemError nError = ErrorUnless(ReadFile(NativeHandle(Handle), pBuffer, nSize, &nRead, nullptr));
  *pnRead = nRead;
  return nError;
}

SystemError Write(FileHandle Handle, const void* pData, std::uint32_t nSize, std::uint32_t* pnWritten) {
  DWORD nWritten = 0;
  const SystemError nError = ErrorUnless(WriteFile(NativeHandle(Handle), pData, nSize, &nWritten, nullptr));
  *pnWritten = nWritten;
  return nError;
}

SystemError Seek(FileHandle Handle, SeekOrigin Origin, std::int64_t nDistance, std::uint64_t* pnPosition) {
  return MovePosition(Handle, nDistance, Origin, pnPosition);
}

SystemError ReadAt(FileHandle Handle, std::uint64_t nOffset, void* pBuffer, std::uint32_t nSize,
                   std::uint32_t* pnRead) {
  *pnRead = 0;
  const SystemError nError = MoveTo(Handle, nOffset);
  return nError == kSuccess ? Read(Handle, pBuffer, nSize, pnRead) : nError;
}

SystemError WriteAt(FileHandle Handle, std::uint64_t nOffset, const void* pData, std::uint32_t nSize,
                    std::uint32_t* pnWritten) {
  *pnWritten = 0;
  const SystemError nError = MoveTo(Handle, nOffset);
  return nError == kSuccess ? Write(Handle, pData, nSize, pnWritten) : nError;
}

SystemError GetSize(FileHandle Handle, std::uint64_t* pnSize) {
  LARGE_INTEGER Size{};
  if (!GetFileSizeEx(NativeHandle(Handle), &Size)) return LastError();
  *pnSize = static_cast<std::uint64_t>(Size.QuadPart);
  return kSuccess;
}

SystemError SetSize(FileHandle Handle, std::uint64_t nSize) {
  const SetInformationFunction pSetInformation = SetInformation();
  if (pSetInformation == nullptr) return SetSizeByPosition(Handle, nSize);
  return ErrorUnless(pSetInformation(NativeHandle(Handle), kEndOfFileInformation, &nSize, sizeof(nSize)));
}

SystemError Flush(FileHandle Handle) {
  return ErrorUnless(FlushFileBuffers(NativeHandle(Handle)));
}

void TakeRightsOf(FileHandle /*Handle*/, FileHandle /*Other*/) {}

SystemError GetCreationTime(FileHandle Handle, std::uint64_t* pnTime) {
  FILETIME Created{};
  if (!GetFileTime(NativeHandle(Handle), &Created, nullptr, nullptr)) return LastError();
  *pnTime = std::uint64_t{Created.dwHighDateTime} << 32 | Created.dwLowDateTime;
  return kSuccess;
}

SystemError RemoveFile(const FolderHandle& pFolder, std::u16string_view Name) {
  return ErrorUnless(DeleteFileW(Wide(pFolder->PathOf(Name))));
}

SystemError MeasureFile(const FolderHandle& pFolder, std::u16string_view Name, std::uint64_t* pnSize) {
  const int nDescriptor = _wsopen(Wide(pFolder->PathOf(Name)), _O_RDONLY, _SH_DENYNO, _S_IREAD);
  if (nDescriptor < 0) return errno == ENOENT ? kFileNotFound : kGeneralFailure;
  const std::int64_t nSize = _filelengthi64(nDescriptor);
  _close(nDescriptor);
  if (nSize < 0) return kGeneralFailure;
  *pnSize = static_cast<std::uint64_t>(nSize);
  return kSuccess;
}

namespace {

// Opens what has a name, whatever it is. For its attributes alone that is granted however others hold it.
SystemError OpenAny(const FolderHandle& pFolder, std::u16string_view Name, DWORD nAccess, FileHandle* pHandle) {
  constexpr std::uint32_t kShareAll = kShareRead | kShareWrite | kShareDelete;
  constexpr DWORD kFoldersAndLinks = FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT;
  return Open(pFolder, Name, nAccess, kShareAll, Disposition::OpenExisting, kFoldersAndLinks, pHandle);
}

}  // namespace

SystemError LookAt(const FolderHandle& pFolder, std::u16string_view Name, FileLook* pLook) {
  FileHandle Opened = nullptr;
  SystemError nError = OpenAny(pFolder, Name, FILE_READ_ATTRIBUTES, &Opened);
  if (nError != kSuccess) return nError;
  nError = LookAt(Opened, pLook);
  (void)Close(Opened);  // nothing was written
  return nError;
}

SystemError LookAt(FileHandle Handle, FileLook* pLook) {
  BY_HANDLE_FILE_INFORMATION Found{};
  if (!GetFileInformationByHandle(NativeHandle(Handle), &Found)) return LastError();
  constexpr DWORD kNotPlain = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_DEVICE;
  const auto Join = [](DWORD nHigh, DWORD nLow) {
    return std::uint64_t{nHigh} << 32 | nLow;
  };
  *pLook = {.bPlain = (Found.dwFileAttributes & kNotPlain) == 0,
            .nNames = Found.nNumberOfLinks,
            .nSize = Join(Found.nFileSizeHigh, Found.nFileSizeLow),
            .nBirth = Join(Found.ftCreationTime.dwHighDateTime, Found.ftCreationTime.dwLowDateTime),
            .nWritten = Join(Found.ftLastWriteTime.dwHighDateTime, Found.ftLastWriteTime.dwLowDateTime),
            .nDevice = Found.dwVolumeSerialNumber,
            .nNumber = Join(Found.nFileIndexHigh, Found.nFileIndexLow)};
  return kSuccess;
}

SystemError OpenToLook(const FolderHandle& pFolder, std::u16string_view Name, FileHandle* pHandle) {
  constexpr std::uint32_t kShareAll = kShareRead | kShareWrite | kShareDelete;
  FileHandle Opened = nullptr;
  SystemError nError =
      Open(pFolder, Name, kGenericRead, kShareAll, Disposition::OpenExisting, FILE_FLAG_OPEN_REPARSE_POINT, &Opened);
  if (nError != kSuccess) return nError;
  FileLook Found{};
  nError = LookAt(Opened, &Found);
  if (nError == kSuccess && !Found.bPlain) nError = kAccessDenied;
  if (nError == kSuccess) {
    *pHandle = Opened;
  } else {
    (void)Close(Opened);
  }
  return nError;
}

SystemError CopyStart(FileHandle /*From*/, FileHandle /*To*/, std::uint64_t /*nSize*/) {
  return kNotSupported;
}

bool DeletedFilesFreeTheirNames() {
  return false;
}

}  // namespace lumbra::os
