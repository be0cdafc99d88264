// The one seam of the store to the operating system. One folder per platform implements it (posix/, win32/); nothing
// else in the store calls the system. Around it, the host's loader of modules and the tool have sources per system.
//
// The seam speaks Win32's vocabulary, because the result codes do: a call that fails answers a Win32 error
// number, 0 is success. Paths are UTF-16 with '\' or '/' between the names. Every function may be called from
// any thread; a FileHandle is used by one thread at a time.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/invariant.h"
#include "platform/thread_annotations.h"

namespace lumbra::os {

// A Win32 error number, named or not. A type of its own, which is neither a number nor a truth value by accident, and
// not dropped without a word.
enum class [[nodiscard]] SystemError : std::uint32_t{
    kSuccess = 0,
    kFileNotFound = 2,
    kPathNotFound = 3,
    kTooManyOpenFiles = 4,
    kAccessDenied = 5,
    kInvalidHandle = 6,
    kNotEnoughMemory = 8,
    kNoMoreFiles = 18,
    kWriteProtect = 19,
    kGeneralFailure = 31,
    kSharingViolation = 32,
    kNotSupported = 50,
    kFileExists = 80,
    kInvalidParameter = 87,
    kDiskFull = 112,
    kInvalidName = 123,
    kNegativeSeek = 131,
    kBusy = 170,
    kAlreadyExists = 183,
    kNameTooLong = 206,
    kFileTooLarge = 223,
    kWaitAbandoned = 735,
    kOperationAborted = 995,
    kNoToken = 1008,
    kIoDevice = 1117,
    kNoSystemResources = 1450,
    kTimeout = 1460,
    kCannotResolveName = 1921,
};
using enum SystemError;

// ---- Files ------------------------------------------------------------------------------------------------

struct OpenFile;  // the platform's own record of an open file
using FileHandle = OpenFile*;

enum Access : std::uint32_t { kGenericRead = 0x80000000, kGenericWrite = 0x40000000, kGenericExecute = 0x20000000 };
enum Share : std::uint32_t { kShareRead = 1, kShareWrite = 2, kShareDelete = 4 };
enum class Disposition : std::uint32_t {
  CreateNew = 1,
  CreateAlways = 2,
  OpenExisting = 3,
  OpenAlways = 4,
  TruncateExisting = 5,
};

// A folder that stays open: what is done in it is done there, whatever its path leads to by then. On Windows it is its
// path. Any thread may use it, and it closes with its last user.
struct OpenedFolder;
using FolderHandle = std::shared_ptr<const OpenedFolder>;

// Who may read the files and folders that are made in a folder, beside the user who makes them. Nobody but that user
// may write to them, whatever the process's mask says; those that are there keep their rights, and so do all where the
// file system knows of none. What root makes in a folder of another user belongs to that user, unless only root's own
// folders are to be used. On Windows they inherit those of the folder.
enum class Readers { OwnerAlone, OwnerAndGroup };

// What holds for a folder that is opened, and for those in it. With bOwnFolders, one that belongs to another user than
// the effective one, or that all may write to, is kAccessDenied on posix: what is looked at is the folder that was
// opened, whatever its path led to before.
struct FolderRules {
  Readers ForWhom = Readers::OwnerAlone;
  bool bOwnFolders = false;
};

// Opens or creates a file of a folder. A file whose holder does not share what is asked for here, or that is held in a
// way that nShare does not allow, is kSharingViolation: at once (on Windows a file that is asked for alone is tried
// again for some milliseconds, since somebody may just be looking at it), and before anything in it changes. On posix a
// link, a file that has other names as well, and what is no plain file are kAccessDenied, before anything in it
// changes: who may write to the folder could lead us to a file that he may not write to. Stores the handle on success
// only; the caller gives it back with Close.
SystemError Open(const FolderHandle& pFolder, std::u16string_view Name, std::uint32_t nAccess, std::uint32_t nShare,
                 Disposition nDisposition, std::uint32_t nFlags, FileHandle* pHandle);

// The same by a path, whose folder is opened for it by whatever links lead there.
SystemError Open(std::u16string_view Path, std::uint32_t nAccess, std::uint32_t nShare, Disposition nDisposition,
                 std::uint32_t nFlags, FileHandle* pHandle);
SystemError Close(FileHandle Handle);

enum class SeekOrigin : std::uint32_t { Start = 0, Current = 1, End = 2 };

// Read and write at the handle's position. A read that reaches the end of the file succeeds with fewer bytes.
SystemError Read(FileHandle Handle, void* pBuffer, std::uint32_t nSize, std::uint32_t* pnRead);
SystemError Write(FileHandle Handle, const void* pData, std::uint32_t nSize, std::uint32_t* pnWritten);
SystemError Seek(FileHandle Handle, SeekOrigin Origin, std::int64_t nDistance, std::uint64_t* pnPosition);

// Read and write at an offset from the start of the file; they may move the handle's position. *pnRead and
// *pnWritten hold the bytes that were moved, also after a failure.
SystemError ReadAt(FileHandle Handle, std::uint64_t nOffset, void* pBuffer, std::uint32_t nSize, std::uint32_t* pnRead);
SystemError WriteAt(FileHandle Handle, std::uint64_t nOffset, const void* pData, std::uint32_t nSize,
                    std::uint32_t* pnWritten);

// On posix the size of a file that is held is known from its opening until it is written to by this handle: nobody else
// changes it.
SystemError GetSize(FileHandle Handle, std::uint64_t* pnSize);
SystemError SetSize(FileHandle Handle, std::uint64_t nSize);

// Brings every write to the disk; for a file that Open created, its name in the folder as well, where the system lets
// us.
SystemError Flush(FileHandle Handle);

// Gives a file the rights and the owner of another one, as far as the system lets us. On Windows it keeps its own.
void TakeRightsOf(FileHandle Handle, FileHandle Other);

// When the file was created, as a FILETIME (100 ns units since 1601-01-01 UTC); on posix, as it was seen when it was
// opened.
SystemError GetCreationTime(FileHandle Handle, std::uint64_t* pnTime);

SystemError RemoveFile(const FolderHandle& pFolder, std::u16string_view Name);

// ---- Files that somebody else writes to ----------------------------------------------------------------------

// What a look at a file tells.
struct FileLook {
  bool bPlain;             // neither a folder nor a link, a pipe or a device
  std::uint32_t nNames;    // names that it has in folders; 0 when it was deleted since it was opened
  std::uint64_t nSize;     // bytes
  std::uint64_t nBirth;    // when it was made, as a FILETIME; 0 where the file system does not tell
  std::uint64_t nWritten;  // when it was written to last, the same
  std::uint64_t nDevice;   // the file system, and the file's number in it
  std::uint64_t nNumber;
};

// Looks at a file, and opens one for ReadAt, Close and this, for those who only read: no lock is taken or asked for,
// nobody else is refused for it, and it does not matter whose the file is and how many names it has. A link is not
// followed and nothing is waited for: what is no plain file is kAccessDenied to OpenToLook.
SystemError LookAt(const FolderHandle& pFolder, std::u16string_view Name, FileLook* pLook);
SystemError LookAt(FileHandle Handle, FileLook* pLook);
SystemError OpenToLook(const FolderHandle& pFolder, std::u16string_view Name, FileHandle* pHandle);

// Copies the first bytes of a file to the start of another one, so that the two share the room where the file system
// can. kNotSupported, before anything was written, where the system copies nothing by itself.
SystemError CopyStart(FileHandle From, FileHandle To, std::uint64_t nSize);

// Whether the name of a file that was deleted is free while the file is open: where it is not, a reader that keeps
// files open keeps the writer from making them anew.
bool DeletedFilesFreeTheirNames();

// ---- Folders and searches ---------------------------------------------------------------------------------

// The path made absolute and long, without ".", in the platform's form, from which ParentOf takes names away.
SystemError MakeAbsolute(std::u16string_view Path, std::u16string* pAbsolute);

// The path without its last name; a root is its own parent.
std::u16string_view ParentOf(std::u16string_view Absolute);

// Whether the path is a folder (or a link to one). Missing: kFileNotFound or kPathNotFound.
SystemError IsFolder(std::u16string_view Path, bool* pbFolder);

// Makes a folder, and brings its name to the disk where the system does that.
SystemError MakeFolder(std::u16string_view Path, const FolderRules& Rules);
SystemError MakeFolder(const FolderHandle& pParent, std::u16string_view Name);

// Opens a folder by its path, whose last name is no link, or one within a folder that is open, whose rules hold for it,
// too. kPathNotFound for what is no folder.
SystemError OpenFolder(std::u16string_view Path, const FolderRules& Rules, FolderHandle* ppFolder);
SystemError OpenFolder(const FolderHandle& pParent, std::u16string_view Name, FolderHandle* ppFolder);

struct FoundFile {
  std::u16string Name;
  bool bFolder;
  std::uint64_t nSize;                // as the folder's entry tells it
  std::int64_t nCreationTimeSeconds;  // since 1970-01-01 UTC, rounded down
  std::int64_t nWriteTimeSeconds;     // the same, of the last write
};

// Calls Visit for each entry of a folder that matches a pattern, in which '*' and '?' stand for others, until it
// answers false. kFileNotFound when nothing matches (or the folder is gone), another number when the search itself, or
// the look at an entry that matches, fails. On posix a link is looked at itself.
SystemError FindFiles(const FolderHandle& pFolder, std::u16string_view Pattern,
                      const std::function<bool(const FoundFile&)>& Visit);

// While one lives, searches of this thread in one folder may take the names from a single listing of it, and what they
// tell of each from a single look. For callers that search a folder many times while nobody adds, removes or writes
// files.
class SearchScope {
 public:
  SearchScope();
  ~SearchScope();
  SearchScope(const SearchScope&) = delete;
  SearchScope& operator=(const SearchScope&) = delete;
};

// The names of a folder's entries that are neither folders nor links, in no order. After an error some are missing.
SystemError ListPlainFiles(const FolderHandle& pFolder, std::vector<std::u16string>* pNames);

// Deletes those entries, the one of the given name behind all others. What cannot be deleted stays.
SystemError RemovePlainFiles(const FolderHandle& pFolder, std::u16string_view LastName);

// The names of its folders, links left out.
SystemError ListFolders(const FolderHandle& pFolder, std::vector<std::u16string>* pNames);

// Gives a file or folder another name, in another folder too, and brings that to the disk. kAlreadyExists where the
// name is taken, unless that is to be replaced.
enum class IfTaken { Refuse, Replace };
SystemError Move(const FolderHandle& pFrom, std::u16string_view Name, const FolderHandle& pTo,
                 std::u16string_view NewName, IfTaken What);

// The size of a file that others may hold open in any way.
SystemError MeasureFile(const FolderHandle& pFolder, std::u16string_view Name, std::uint64_t* pnSize);

// ---- Processes, time and text -----------------------------------------------------------------------------

// The number of the process.
std::uint32_t ProcessId();

// Now, in UTC, as a FILETIME.
std::uint64_t CurrentTime();

// Conversions as code page 65001 without flags: a lone surrogate becomes U+FFFD, and so does what is no UTF-8, where
// systems differ in how many come of several bytes. With nSize 0 they measure. Answer the bytes (units) of the result,
// 0 when it does not fit or there is no input.
std::uint32_t WideToUtf8(const char16_t* pText, std::uint32_t nUnits, char* pBuffer, std::uint32_t nSize);
std::uint32_t Utf8ToWide(const char* pText, std::uint32_t nBytes, char16_t* pBuffer, std::uint32_t nUnits);

// Upper-cases in place, each unit for itself; answers nUnits. Hashes on disk depend on it: the same answer on
// every machine and in every locale, for ever (docs/file-format.md says where a service of Windows differs).
std::uint32_t UpperCase(char16_t* pText, std::uint32_t nUnits);

// ---- Threads ----------------------------------------------------------------------------------------------

// Which thread holds a lock, and how often: known where invariants are checked.
class LockHolder {
 public:
#ifdef LUMBRA_INVARIANTS
  void Enter() {
    m_Thread = std::this_thread::get_id();
    ++m_nDepth;
  }
  void Leave() {
    if (--m_nDepth == 0) m_Thread = std::thread::id();
  }
  bool IsCaller() const {
    return m_Thread == std::this_thread::get_id();
  }

 private:
  std::atomic<std::thread::id> m_Thread;
  std::uint32_t m_nDepth = 0;  // touched by the holder alone
#else
  void Enter() {}
  void Leave() {}
  static bool IsCaller() {
    return true;
  }
#endif
};

// A mutual exclusion. A thread may enter it again; our own code does not. That is left to the host, whose answers to a
// placeholder, and whose text and memory functions, are asked for under such locks.
class CAPABILITY("lock") CriticalSection {
 public:
  CriticalSection();
  ~CriticalSection();
  CriticalSection(const CriticalSection&) = delete;
  CriticalSection& operator=(const CriticalSection&) = delete;
  void lock() ACQUIRE();
  bool try_lock() TRY_ACQUIRE(true);  // false when another thread holds it
  void unlock() RELEASE();

  // Says to the compiler, and checks where invariants are, that the calling thread holds it.
  void AssertHeld() const ASSERT_CAPABILITY(this) { LUMBRA_INVARIANT(m_Holder.IsCaller()); }

 private:
  // Large enough for every platform's own lock, so that a lock costs no allocation. Aligned as those are, and not more:
  // the memory of a host need not bear more than 8 bytes.
  alignas(8) std::byte m_Storage[64];
  [[no_unique_address]] LockHolder m_Holder;
};

// Holds a lock until the end of a scope. (The library's own lock_guard tells clang nothing.)
class SCOPED_CAPABILITY Hold {
 public:
  explicit Hold(CriticalSection& Lock) ACQUIRE(Lock) : m_Lock(Lock) { m_Lock.lock(); }
  ~Hold() RELEASE() { m_Lock.unlock(); }
  Hold(const Hold&) = delete;
  Hold& operator=(const Hold&) = delete;

 private:
  CriticalSection& m_Lock;
};

// A counting semaphore with count 0 at first and at most 0x7FFFFFFF.
struct Semaphore;
SystemError CreateCountingSemaphore(Semaphore** ppSemaphore);
// Waits until it can take one off the count. Leaves Held, which the caller holds, on its way: on posix with its place
// in the queue taken, so that nobody who enters Held later is served before it. When it fails nothing was taken.
SystemError WaitForSemaphore(Semaphore* pSemaphore, CriticalSection& Held) RELEASE(Held);
void ReleaseSemaphoreBy(Semaphore* pSemaphore, std::uint32_t nCount);
void CloseSemaphore(Semaphore* pSemaphore);

// One pointer that each thread has for itself, null at first. Behind the seam, because what the compiler makes of a
// thread_local outlives, on Windows, a module that is unloaded. A thread for which there is no room keeps null.
void* GetThreadPointer();
void SetThreadPointer(void* pValue);

// Lays down the calling thread's borrowed identity, if it has one, and takes it up again. *ppToken receives
// what Resume needs; null when there was nothing to lay down.
SystemError SuspendImpersonation(void** ppToken);
void ResumeImpersonation(void* pToken);

// The I/O priority of the calling thread.
struct IoPriority {
  std::uint32_t nLevel;  // kIoPriorityNormal, or below it
  std::uint32_t nExact;  // the platform's own value, which SetIoPriority puts back exactly
};
inline constexpr std::uint32_t kIoPriorityNormal = 2;
SystemError QueryIoPriority(IoPriority* pPriority);
SystemError SetIoPriority(const IoPriority& Priority);
SystemError SetNormalIoPriority();

}  // namespace lumbra::os
