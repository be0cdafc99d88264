// Files on posix: positioned reads and writes, share modes as advisory locks.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <utility>

#include "platform/posix/posix.h"

namespace lumbra::os {

static_assert(sizeof(off_t) == 8, "files are larger than 2 GB");

struct OpenFile {
  int nDescriptor = -1;
  std::uint32_t nAccess = 0;
  FolderHandle pFolderToSync;                 // of a file that was created here and not flushed yet; null otherwise
  std::uint64_t nCreationTime = 0;            // as it was when the file was opened
  std::optional<std::uint64_t> nKnownSize{};  // the same, of a file that is held, until something is written to it

  ~OpenFile() {
    if (nDescriptor >= 0) close(nDescriptor);
  }
  bool Allows(Access Wanted) const { return (nAccess & Wanted) != 0; }
};

namespace {

// Neither a link nor the other end of a pipe, for which an opening would wait.
constexpr int kOpenFlags = O_CLOEXEC | O_NOCTTY | O_NONBLOCK | O_NOFOLLOW;

int OpenModeOf(std::uint32_t nAccess) {
  if ((nAccess & kGenericWrite) == 0) return O_RDONLY;
  return (nAccess & kGenericRead) != 0 ? O_RDWR : O_WRONLY;
}

// In a process that was started with a standard stream closed, a file would get its descriptor, and what the process
// prints would land in the file.
int OffStandardStreams(int nDescriptor) {
  if (nDescriptor > STDERR_FILENO) return nDescriptor;
  const int nMoved = fcntl(nDescriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  const int nErrno = errno;
  close(nDescriptor);
  errno = nErrno;
  return nMoved;
}

// Opens as the disposition says, except that nothing is cut yet. *pbCreated tells whether the file is new: one that was
// made by nobody else, and so no link.
int OpenByDisposition(const OpenedFolder& Folder, const std::string& Name, int nFlags, Disposition nDisposition,
                      bool* pbCreated) {
  const auto OpenThere = [&] {
    return OpenDescriptor(Folder.nDescriptor, Name, nFlags);
  };
  const auto Create = [&] {
    const MakesForOwner Others(Folder);
    const int nDescriptor = OpenDescriptor(Folder.nDescriptor, Name, nFlags | O_CREAT | O_EXCL, Folder.FileMode());
    *pbCreated = nDescriptor >= 0;
    return nDescriptor;
  };
  *pbCreated = false;
  if (nDisposition == Disposition::CreateNew) return Create();
  int nDescriptor = OpenThere();
  const bool bMayCreate = nDisposition == Disposition::CreateAlways || nDisposition == Disposition::OpenAlways;
  if (nDescriptor >= 0 || errno != ENOENT || !bMayCreate) return nDescriptor;
  nDescriptor = Create();
  if (nDescriptor >= 0 || errno != EEXIST) return nDescriptor;
  return OpenThere();  // somebody has made it since our first look
}

// "Reads, lets others read" is shared with others, and who lets others write as well holds nothing; every other
// combination holds the file alone.
bool IsShared(std::uint32_t nAccess, std::uint32_t nShare) {
  return (nAccess & kGenericWrite) == 0 && (nShare & kShareRead) != 0;
}
bool HoldsNothing(std::uint32_t nShare) {
  return (nShare & kShareRead) != 0 && (nShare & kShareWrite) != 0;
}

// All that is asked of a file that was opened, in one call. kAccessDenied unless it is ours: one that has another name
// may lie in a folder to which its owner, and not we, meant to give us access.
SystemError LookAtOpened(int nDescriptor, struct statx* pStatus) {
  constexpr unsigned kWanted = STATX_BASIC_STATS | STATX_BTIME;
  if (statx(nDescriptor, "", AT_EMPTY_PATH, kWanted, pStatus) != 0) return LastError();
  return S_ISREG(pStatus->stx_mode) && pStatus->stx_nlink <= 1 ? kSuccess : kAccessDenied;
}

SystemError Truncate(int nDescriptor, std::uint64_t nSize) {
  if (nSize > static_cast<std::uint64_t>(std::numeric_limits<off_t>::max())) return kInvalidParameter;
  while (ftruncate(nDescriptor, static_cast<off_t>(nSize)) != 0) {
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
SystemError ErrorOfMissing(const OpenedFolder& Folder, SystemError nError) {
  struct stat Status {};
  const bool bGone = fstat(Folder.nDescriptor, &Status) == 0 && Status.st_nlink == 0;
  return nError == kFileNotFound && bGone ? kPathNotFound : nError;
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

SystemError LastError() {
  return errno == 0 ? kGeneralFailure : ErrorFromErrno(errno);
}

int OpenDescriptor(int nFolder, const std::string& Name, int nFlags, mode_t nMode) {
  int nDescriptor = -1;
  do {
    nDescriptor = openat(nFolder, Name.c_str(), nFlags, nMode);
  } while (nDescriptor < 0 && errno == EINTR);
  return nDescriptor < 0 ? nDescriptor : OffStandardStreams(nDescriptor);
}

void SetMode(int nDescriptor, mode_t nMode) {
  struct stat Status {};
  constexpr mode_t kRights = 0777;
  if (fstat(nDescriptor, &Status) == 0 && (Status.st_mode & kRights) == nMode) return;
  nMode |= Status.st_mode & S_ISGID;  // a folder hands its group on
  // A file system that knows of no rights refuses, and goes by those of its mount. A folder from which the mask took
  // the right to read is open by its place alone, for which the system takes a change of rights by the descriptor's
  // path.
  if (fchmod(nDescriptor, nMode) != 0 && errno == EBADF)
    (void)chmod(("/proc/self/fd/" + std::to_string(nDescriptor)).c_str(), nMode);
}

// By the identity that the system goes by in file systems alone, which each thread has for itself: it is nobody's but
// his from the start, and what somebody puts in its place meanwhile is not given away.
MakesForOwner::MakesForOwner(const OpenedFolder& Folder) {
  struct stat Status {};
  if (Folder.Rules.bOwnFolders || geteuid() != 0) return;
  if (fstat(Folder.nDescriptor, &Status) != 0 || Status.st_uid == 0) return;
  m_bForOther = true;
  setfsgid(Status.st_gid);
  setfsuid(Status.st_uid);
}

MakesForOwner::~MakesForOwner() {
  if (!m_bForOther) return;
  const int nErrno = errno;
  setfsuid(geteuid());
  setfsgid(getegid());
  errno = nErrno;
}

SystemError Sync(int nDescriptor) {
  while (fsync(nDescriptor) != 0) {
    if (errno != EINTR) return LastError();
  }
  return kSuccess;
}

std::int64_t CreationFileTime(const struct statx& Status) {
  if ((Status.stx_mask & STATX_BTIME) != 0) return FileTimeOf(Status.stx_btime);
  return std::min({FileTimeOf(Status.stx_atime), FileTimeOf(Status.stx_mtime), FileTimeOf(Status.stx_ctime)});
}

SystemError Open(const FolderHandle& pFolder, std::u16string_view Name, std::uint32_t nAccess, std::uint32_t nShare,
                 Disposition nDisposition, std::uint32_t /*nFlags*/, FileHandle* pHandle) try {
  if (pFolder == nullptr) return kInvalidHandle;
  if (nDisposition == Disposition::TruncateExisting && (nAccess & kGenericWrite) == 0) return kInvalidParameter;
  const std::string Native = NativePath(Name);
  const bool bCut = nDisposition == Disposition::CreateAlways || nDisposition == Disposition::TruncateExisting;
  const bool bShared = IsShared(nAccess, nShare);
  const int nMode = OpenModeOf(nAccess);
  std::unique_ptr<OpenFile> Opened(new OpenFile);
  Opened->nAccess = nAccess;
  bool bCreated = false;
  const auto OpenAs = [&](int nOpenMode) {
    Opened->nDescriptor = OpenByDisposition(*pFolder, Native, nOpenMode | kOpenFlags, nDisposition, &bCreated);
  };
  // To cut a file, and on network file systems to hold one alone, takes a descriptor for writing.
  const bool bHolds = !HoldsNothing(nShare);
  const bool bWiden = nMode == O_RDONLY && (bCut || (bHolds && !bShared));
  OpenAs(bWiden ? O_RDWR : nMode);
  const bool bRefused = Opened->nDescriptor < 0 && (errno == EACCES || errno == EPERM || errno == EROFS);
  if (bRefused && bWiden && !bCut) OpenAs(nMode);
  if (Opened->nDescriptor < 0) {
    if (errno == EEXIST) return kFileExists;
    if (errno == ELOOP || errno == ENXIO) return kAccessDenied;  // a link, or a socket or pipe
    return ErrorOfMissing(*pFolder, LastError());
  }
  if (bCreated) SetMode(Opened->nDescriptor, pFolder->FileMode());
  // The hold first: what is seen of the file then is what it stays. What is not ours is refused whoever holds it.
  const bool bHeld = !bHolds || flock(Opened->nDescriptor, (bShared ? LOCK_SH : LOCK_EX) | LOCK_NB) == 0;
  const SystemError nHoldError = bHeld ? kSuccess : LastError();
  struct statx Status {};
  SystemError nError = LookAtOpened(Opened->nDescriptor, &Status);
  if (nError == kSuccess) nError = nHoldError;
  if (nError == kSuccess && bCut) nError = Truncate(Opened->nDescriptor, 0);
  if (nError != kSuccess) return nError;
  Opened->nCreationTime = static_cast<std::uint64_t>(CreationFileTime(Status));
  if (bHolds) Opened->nKnownSize = bCut ? 0 : Status.stx_size;
  if (bCreated) Opened->pFolderToSync = pFolder;
  *pHandle = Opened.release();
  return kSuccess;
} catch (const std::bad_alloc&) {
  return kNotEnoughMemory;
}

SystemError Open(std::u16string_view Path, std::uint32_t nAccess, std::uint32_t nShare, Disposition nDisposition,
                 std::uint32_t nFlags, FileHandle* pHandle) try {
  FolderHandle pParent;
  std::string Name;
  const SystemError nError = OpenParent(NativePath(Path), {}, &pParent, &Name);
  if (nError != kSuccess) return nError == kFileNotFound ? kPathNotFound : nError;
  return Open(pParent, WideName(Name), nAccess, nShare, nDisposition, nFlags, pHandle);
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
  Handle->nKnownSize.reset();
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
  // Where the end is known, it takes no read to find it.
  if (const auto nEnd = Handle->nKnownSize)
    nSize = static_cast<std::uint32_t>(std::min<std::uint64_t>(nSize, *nEnd - std::min(*nEnd, nOffset)));
  return TransferAll(nSize, pnRead, [&](std::uint32_t nDone, std::uint32_t nLeft) {
    return pread(Handle->nDescriptor, static_cast<char*>(pBuffer) + nDone, nLeft, static_cast<off_t>(nOffset + nDone));
  });
}

SystemError WriteAt(FileHandle Handle, std::uint64_t nOffset, const void* pData, std::uint32_t nSize,
                    std::uint32_t* pnWritten) {
  *pnWritten = 0;
  if (!Handle->Allows(kGenericWrite)) return kAccessDenied;
  if (!IsPosition(nOffset, nSize)) return kNegativeSeek;
  Handle->nKnownSize.reset();
  return TransferAll(nSize, pnWritten, [&](std::uint32_t nDone, std::uint32_t nLeft) {
    return pwrite(Handle->nDescriptor, static_cast<const char*>(pData) + nDone, nLeft,
                  static_cast<off_t>(nOffset + nDone));
  });
}

SystemError GetSize(FileHandle Handle, std::uint64_t* pnSize) {
  if (Handle->nKnownSize.has_value()) {
    *pnSize = *Handle->nKnownSize;
    return kSuccess;
  }
  struct stat Status {};
  if (fstat(Handle->nDescriptor, &Status) != 0) return LastError();
  *pnSize = static_cast<std::uint64_t>(Status.st_size);
  return kSuccess;
}

SystemError SetSize(FileHandle Handle, std::uint64_t nSize) {
  if (Handle == nullptr) return kInvalidHandle;
  Handle->nKnownSize.reset();
  return Handle->Allows(kGenericWrite) ? Truncate(Handle->nDescriptor, nSize) : kAccessDenied;
}

SystemError Flush(FileHandle Handle) {
  if (Handle == nullptr) return kInvalidHandle;
  SystemError nError = Sync(Handle->nDescriptor);
  if (nError != kSuccess || Handle->pFolderToSync == nullptr) return nError;
  nError = Sync(Handle->pFolderToSync->nDescriptor);
  if (IsWorthAnotherSync(nError)) return nError;
  Handle->pFolderToSync.reset();
  return kSuccess;
}

void TakeRightsOf(FileHandle Handle, FileHandle Other) {
  struct stat Status {};
  if (fstat(Other->nDescriptor, &Status) != 0) return;
  // The owner first, whose change takes rights away.
  if (fchown(Handle->nDescriptor, Status.st_uid, Status.st_gid) == 0)
    SetMode(Handle->nDescriptor, Status.st_mode & 0777);
}

SystemError GetCreationTime(FileHandle Handle, std::uint64_t* pnTime) {
  *pnTime = Handle->nCreationTime;
  return kSuccess;
}

SystemError RemoveFile(const FolderHandle& pFolder, std::u16string_view Name) {
  return unlinkat(pFolder->nDescriptor, NativePath(Name).c_str(), 0) == 0 ? kSuccess : LastError();
}

SystemError MeasureFile(const FolderHandle& pFolder, std::u16string_view Name, std::uint64_t* pnSize) {
  struct stat Status {};
  if (fstatat(pFolder->nDescriptor, NativePath(Name).c_str(), &Status, AT_SYMLINK_NOFOLLOW) != 0) return LastError();
  *pnSize = static_cast<std::uint64_t>(Status.st_size);
  return kSuccess;
}

namespace {

SystemError Look(int nFolder, const char* pName, int nFlags, FileLook* pLook) {
  struct statx Status {};
  if (statx(nFolder, pName, nFlags, STATX_BASIC_STATS | STATX_BTIME, &Status) != 0) return LastError();
  const bool bBirth = (Status.stx_mask & STATX_BTIME) != 0;
  *pLook = {.bPlain = S_ISREG(Status.stx_mode),
            .nNames = Status.stx_nlink,
            .nSize = Status.stx_size,
            .nBirth = bBirth ? static_cast<std::uint64_t>(FileTimeOf(Status.stx_btime)) : 0,
            .nWritten = static_cast<std::uint64_t>(FileTimeOf(Status.stx_mtime)),
            .nDevice = std::uint64_t{Status.stx_dev_major} << 32 | Status.stx_dev_minor,
            .nNumber = Status.stx_ino};
  return kSuccess;
}

}  // namespace

SystemError LookAt(const FolderHandle& pFolder, std::u16string_view Name, FileLook* pLook) try {
  return Look(pFolder->nDescriptor, NativePath(Name).c_str(), AT_SYMLINK_NOFOLLOW, pLook);
} catch (const std::bad_alloc&) {
  return kNotEnoughMemory;
}

SystemError LookAt(FileHandle Handle, FileLook* pLook) {
  return Look(Handle->nDescriptor, "", AT_EMPTY_PATH, pLook);
}

SystemError OpenToLook(const FolderHandle& pFolder, std::u16string_view Name, FileHandle* pHandle) try {
  std::unique_ptr<OpenFile> Opened(new OpenFile);
  Opened->nAccess = kGenericRead;
  Opened->nDescriptor = OpenDescriptor(pFolder->nDescriptor, NativePath(Name), O_RDONLY | kOpenFlags);
  if (Opened->nDescriptor < 0) return errno == ELOOP || errno == ENXIO ? kAccessDenied : LastError();
  FileLook Found{};
  const SystemError nError = LookAt(Opened.get(), &Found);
  if (nError != kSuccess) return nError;
  if (!Found.bPlain) return kAccessDenied;
  *pHandle = Opened.release();
  return kSuccess;
} catch (const std::bad_alloc&) {
  return kNotEnoughMemory;
}

SystemError CopyStart(FileHandle From, FileHandle To, std::uint64_t nSize) {
  constexpr std::uint64_t kMost = 1 << 30;  // of one call
  off_t nFrom = 0;
  off_t nTo = 0;
  while (static_cast<std::uint64_t>(nTo) < nSize) {
    const std::uint64_t nLeft = nSize - static_cast<std::uint64_t>(nTo);
    const ssize_t nCopied = copy_file_range(From->nDescriptor, &nFrom, To->nDescriptor, &nTo,
                                            static_cast<std::size_t>(std::min(nLeft, kMost)), 0);
    if (nCopied == 0) return kGeneralFailure;  // the file has become shorter
    if (nCopied > 0 || errno == EINTR) continue;
    const bool bCannot = errno == EXDEV || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP;
    return bCannot && nTo == 0 ? kNotSupported : LastError();
  }
  return kSuccess;
}

bool DeletedFilesFreeTheirNames() {
  return true;
}

}  // namespace lumbra::os
