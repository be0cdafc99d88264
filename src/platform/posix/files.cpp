// Files on posix: positioned reads and writes, share modes as advisory locks.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <limits>
#include <memory>
#include <new>
#include <utility>

#include "platform/posix/posix.h"

namespace lumbra::os {

static_assert(sizeof(off_t) == 8, "files are larger than 2 GB");

struct OpenFile {
  int nDescriptor = -1;
  std::uint32_t nAccess = 0;
  std::string FolderToSync;  // of a file that was created here and not flushed yet; empty otherwise

  ~OpenFile() {
    if (nDescriptor >= 0) close(nDescriptor);
  }
  bool Allows(Access Wanted) const { return (nAccess & Wanted) != 0; }
};

namespace {

// The last errno as a Win32 number; never success, also when a library left errno alone.
SystemError LastError() {
  return errno == 0 ? kGeneralFailure : ErrorFromErrno(errno);
}

constexpr int kOpenFlags = O_CLOEXEC | O_NOCTTY | O_NONBLOCK;  // not to wait for the other end of a pipe

int OpenModeOf(std::uint32_t nAccess) {
  if ((nAccess & kGenericWrite) == 0) return O_RDONLY;
  return (nAccess & kGenericRead) != 0 ? O_RDWR : O_WRONLY;
}

// An open segment holds four files and a database may have hundreds of segments, which the usual soft limit
// of 1024 descriptors does not allow (Windows has no such limit). The process may lift it to the hard limit;
// true when that made room.
bool LiftDescriptorLimit() {
  rlimit Limit{};
  if (getrlimit(RLIMIT_NOFILE, &Limit) != 0 || Limit.rlim_cur >= Limit.rlim_max) return false;
  Limit.rlim_cur = Limit.rlim_max;
  return setrlimit(RLIMIT_NOFILE, &Limit) == 0;
}

// In a process that was started with a standard stream closed, a file would get its descriptor, and what the process
// prints would land in the file.
int OffStandardStreams(int nDescriptor) {
  if (nDescriptor > STDERR_FILENO) return nDescriptor;
  int nMoved = fcntl(nDescriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  if (nMoved < 0 && errno == EMFILE && LiftDescriptorLimit()) {
    nMoved = fcntl(nDescriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  }
  const int nErrno = errno;
  close(nDescriptor);
  errno = nErrno;
  return nMoved;
}

// Opens as the disposition says, except that nothing is cut yet. *pbCreated tells whether the file is new.
int OpenByDisposition(const std::string& Path, int nFlags, Disposition nDisposition, bool* pbCreated) {
  *pbCreated = false;
  switch (nDisposition) {
    case Disposition::OpenExisting:
    case Disposition::TruncateExisting:
      return OpenDescriptor(Path, nFlags);
    case Disposition::CreateNew:
      *pbCreated = true;
      return OpenDescriptor(Path, nFlags | O_CREAT | O_EXCL);
    case Disposition::CreateAlways:
    case Disposition::OpenAlways:
      break;
  }
  int nDescriptor = OpenDescriptor(Path, nFlags);
  if (nDescriptor >= 0 || errno != ENOENT) return nDescriptor;
  nDescriptor = OpenDescriptor(Path, nFlags | O_CREAT | O_EXCL);
  *pbCreated = nDescriptor >= 0;
  if (nDescriptor >= 0 || errno != EEXIST) return nDescriptor;
  // It is a link to a file that is missing, or somebody has made it since our first look.
  *pbCreated = true;
  return OpenDescriptor(Path, nFlags | O_CREAT);
}

// Only "reads, lets others read" is shared with others; every other combination holds the file alone.
bool IsShared(std::uint32_t nAccess, std::uint32_t nShare) {
  return (nAccess & kGenericWrite) == 0 && (nShare & kShareRead) != 0;
}

SystemError RefuseUnlessRegular(int nDescriptor) {
  struct stat Status {};
  if (fstat(nDescriptor, &Status) != 0) return LastError();
  return S_ISREG(Status.st_mode) ? kSuccess : kAccessDenied;
}

SystemError Truncate(int nDescriptor, std::uint64_t nSize) {
  if (nSize > static_cast<std::uint64_t>(std::numeric_limits<off_t>::max())) return kInvalidParameter;
  while (ftruncate(nDescriptor, static_cast<off_t>(nSize)) != 0) {
    if (errno != EINTR) return LastError();
  }
  return kSuccess;
}

SystemError Sync(int nDescriptor) {
  while (fsync(nDescriptor) != 0) {
    if (errno != EINTR) return LastError();
  }
  return kSuccess;
}

// Whether the failed sync of a folder is to be told and tried again: the next one may succeed, or this one has lost a
// name. Any other error will come every time: the folder may not be read, is not there under this name, or lies on a
// file system that does not sync folders.
bool IsWorthAnotherSync(SystemError nError) {
  return nError == kIoDevice || nError == kDiskFull || nError == kTooManyOpenFiles || nError == kNotEnoughMemory;
}

// CreateFile tells a missing folder from a missing file; the system does not.
SystemError ErrorOfMissing(std::u16string_view Path, SystemError nError) {
  bool bFolder = false;
  const bool bParentThere = IsFolder(ParentOf(Path), &bFolder) == kSuccess || ParentOf(Path).empty();
  return nError == kFileNotFound && !bParentThere ? kPathNotFound : nError;
}

// The folder in which a file has its name, wherever links to it lead from. Absolute, so that it is still the same one
// when the current folder has changed.
std::string FolderOf(const std::string& Path) {
  std::error_code Unknown;
  const std::filesystem::path Real = std::filesystem::weakly_canonical(Path, Unknown);
  return Unknown ? std::filesystem::absolute(Path, Unknown).parent_path() : Real.parent_path();
}

// Calls Transfer until all bytes are moved, it moves none (the end of the file), or it fails. *pnDone counts from 0.
template <class TransferSome>
SystemError TransferAll(std::uint32_t nSize, std::uint32_t* pnDone, TransferSome Transfer) {
  while (*pnDone < nSize) {
    const ssize_t nMoved = Transfer(*pnDone, nSize - *pnDone);
    if (nMoved == 0) break;
    if (nMoved > 0) {
      *pnDone += static_cast<std::uint32_t>(nMoved);
    } else if (errno != EINTR) {
      return LastError();
    }
  }
  return kSuccess;
}

bool IsPosition(std::uint64_t nOffset, std::uint32_t nSize) {
  return nOffset <= static_cast<std::uint64_t>(std::numeric_limits<off_t>::max()) - nSize;
}

std::int64_t FileTimeOf(const statx_timestamp& Time) {
  return (Time.tv_sec + kSecondsTo1970) * kFileTimeUnitsPerSecond + Time.tv_nsec / kNanosecondsPerFileTimeUnit;
}

}  // namespace

int OpenDescriptor(const std::string& Path, int nFlags) {
  constexpr mode_t kMode = 0666;  // the process's umask takes from it
  bool bTriedAgain = false;
  for (;;) {
    const int nDescriptor = open(Path.c_str(), nFlags, kMode);
    if (nDescriptor >= 0) return OffStandardStreams(nDescriptor);
    if (errno == EINTR) continue;
    if (errno != EMFILE) return -1;
    if (LiftDescriptorLimit()) continue;
    if (bTriedAgain) {
      errno = EMFILE;
      return -1;
    }
    bTriedAgain = true;  // another thread may have lifted the limit since
  }
}

SystemError SyncFolder(const std::string& Folder) {
  const int nDescriptor = OpenDescriptor(Folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (nDescriptor < 0) return LastError();
  const SystemError nError = Sync(nDescriptor);
  close(nDescriptor);
  return nError;
}

std::int64_t CreationFileTime(const struct statx& Status) {
  if ((Status.stx_mask & STATX_BTIME) != 0) return FileTimeOf(Status.stx_btime);
  return std::min({FileTimeOf(Status.stx_atime), FileTimeOf(Status.stx_mtime), FileTimeOf(Status.stx_ctime)});
}

SystemError Open(std::u16string_view Path, std::uint32_t nAccess, std::uint32_t nShare, Disposition nDisposition,
                 std::uint32_t /*nFlags*/, FileHandle* pHandle) try {
  if (nDisposition == Disposition::TruncateExisting && (nAccess & kGenericWrite) == 0) return kInvalidParameter;
  const std::string Native = NativePath(Path);
  const bool bCut = nDisposition == Disposition::CreateAlways || nDisposition == Disposition::TruncateExisting;
  const bool bShared = IsShared(nAccess, nShare);
  const int nMode = OpenModeOf(nAccess);
  std::unique_ptr<OpenFile> Opened(new OpenFile);
  Opened->nAccess = nAccess;
  bool bCreated = false;
  const auto OpenAs = [&](int nOpenMode) {
    Opened->nDescriptor = OpenByDisposition(Native, nOpenMode | kOpenFlags, nDisposition, &bCreated);
  };
  // To cut a file, and on network file systems to hold one alone, takes a descriptor for writing.
  const bool bWiden = nMode == O_RDONLY && (bCut || !bShared);
  OpenAs(bWiden ? O_RDWR : nMode);
  const bool bRefused = Opened->nDescriptor < 0 && (errno == EACCES || errno == EPERM || errno == EROFS);
  if (bRefused && bWiden && !bCut) OpenAs(nMode);
  if (Opened->nDescriptor < 0) {
    const SystemError nError = errno == EEXIST ? kFileExists : LastError();
    return ErrorOfMissing(Path, nError);
  }
  SystemError nError = RefuseUnlessRegular(Opened->nDescriptor);
  if (nError == kSuccess && flock(Opened->nDescriptor, (bShared ? LOCK_SH : LOCK_EX) | LOCK_NB) != 0)
    nError = LastError();
  if (nError == kSuccess && bCut) nError = Truncate(Opened->nDescriptor, 0);
  if (nError != kSuccess) return nError;
  if (bCreated) Opened->FolderToSync = FolderOf(Native);
  *pHandle = Opened.release();
  return kSuccess;
} catch (const std::bad_alloc&) {
  return kNotEnoughMemory;
}

SystemError Close(FileHandle Handle) {
  const std::unique_ptr<OpenFile> Closed(Handle);
  // After EINTR the descriptor is gone as well, so there is nothing to try again.
  return close(std::exchange(Closed->nDescriptor, -1)) == 0 || errno == EINTR ? kSuccess : LastError();
}

SystemError Read(FileHandle Handle, void* pBuffer, std::uint32_t nSize, std::uint32_t* pnRead) {
  *pnRead = 0;
  if (Handle == nullptr) return kInvalidHandle;
  if (!Handle->Allows(kGenericRead)) return kAccessDenied;
  return TransferAll(nSize, pnRead, [&](std::uint32_t nDone, std::uint32_t nLeft) {
    return read(Handle->nDescriptor, static_cast<char*>(pBuffer) + nDone, nLeft);
  });
}

SystemError Write(FileHandle Handle, const void* pData, std::uint32_t nSize, std::uint32_t* pnWritten) {
  *pnWritten = 0;
  if (Handle == nullptr) return kInvalidHandle;
  if (!Handle->Allows(kGenericWrite)) return kAccessDenied;
  return TransferAll(nSize, pnWritten, [&](std::uint32_t nDone, std::uint32_t nLeft) {
    return write(Handle->nDescriptor, static_cast<const char*>(pData) + nDone, nLeft);
  });
}

SystemError Seek(FileHandle Handle, SeekOrigin Origin, std::int64_t nDistance, std::uint64_t* pnPosition) {
  if (Handle == nullptr) return kInvalidHandle;
  const int nWhence = Origin == SeekOrigin::Start ? SEEK_SET : Origin == SeekOrigin::Current ? SEEK_CUR : SEEK_END;
  const off_t nPosition = lseek(Handle->nDescriptor, nDistance, nWhence);
  if (nPosition < 0) return errno == EINVAL ? kNegativeSeek : LastError();
  *pnPosition = static_cast<std::uint64_t>(nPosition);
  return kSuccess;
}

SystemError ReadAt(FileHandle Handle, std::uint64_t nOffset, void* pBuffer, std::uint32_t nSize,
                   std::uint32_t* pnRead) {
  *pnRead = 0;
  if (!Handle->Allows(kGenericRead)) return kAccessDenied;
  if (!IsPosition(nOffset, nSize)) return kNegativeSeek;
  return TransferAll(nSize, pnRead, [&](std::uint32_t nDone, std::uint32_t nLeft) {
    return pread(Handle->nDescriptor, static_cast<char*>(pBuffer) + nDone, nLeft, static_cast<off_t>(nOffset + nDone));
  });
}

SystemError WriteAt(FileHandle Handle, std::uint64_t nOffset, const void* pData, std::uint32_t nSize,
                    std::uint32_t* pnWritten) {
  *pnWritten = 0;
  if (!Handle->Allows(kGenericWrite)) return kAccessDenied;
  if (!IsPosition(nOffset, nSize)) return kNegativeSeek;
  return TransferAll(nSize, pnWritten, [&](std::uint32_t nDone, std::uint32_t nLeft) {
    return pwrite(Handle->nDescriptor, static_cast<const char*>(pData) + nDone, nLeft,
                  static_cast<off_t>(nOffset + nDone));
  });
}

SystemError GetSize(FileHandle Handle, std::uint64_t* pnSize) {
  struct stat Status {};
  if (fstat(Handle->nDescriptor, &Status) != 0) return LastError();
  *pnSize = static_cast<std::uint64_t>(Status.st_size);
  return kSuccess;
}

SystemError SetSize(FileHandle Handle, std::uint64_t nSize) {
  if (Handle == nullptr) return kInvalidHandle;
  return Handle->Allows(kGenericWrite) ? Truncate(Handle->nDescriptor, nSize) : kAccessDenied;
}

SystemError Flush(FileHandle Handle) {
  if (Handle == nullptr) return kInvalidHandle;
  SystemError nError = Sync(Handle->nDescriptor);
  if (nError != kSuccess || Handle->FolderToSync.empty()) return nError;
  nError = SyncFolder(Handle->FolderToSync);
  if (IsWorthAnotherSync(nError)) return nError;
  Handle->FolderToSync.clear();
  return kSuccess;
}

SystemError GetCreationTime(FileHandle Handle, std::uint64_t* pnTime) {
  struct statx Status {};
  if (statx(Handle->nDescriptor, "", AT_EMPTY_PATH, STATX_BASIC_STATS | STATX_BTIME, &Status) != 0) {
    return LastError();
  }
  *pnTime = static_cast<std::uint64_t>(CreationFileTime(Status));
  return kSuccess;
}

SystemError RemoveFile(std::u16string_view Path) {
  return unlink(NativePath(Path).c_str()) == 0 ? kSuccess : LastError();
}

SystemError MeasureFile(std::u16string_view Path, std::uint64_t* pnSize) {
  struct stat Status {};
  if (stat(NativePath(Path).c_str(), &Status) != 0) return LastError();
  *pnSize = static_cast<std::uint64_t>(Status.st_size);
  return kSuccess;
}

}  // namespace lumbra::os
