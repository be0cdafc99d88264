// Folders and searches on posix.
#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <memory>
#include <utility>

#include "platform/posix/posix.h"

namespace lumbra::os {
namespace {

struct FolderCloser {
  void operator()(DIR* pFolder) const { closedir(pFolder); }
};

constexpr int kFolderFlags = O_DIRECTORY | O_CLOEXEC;

// A folder by its name in another one. One that may be used and not read is opened all the same: its names cannot be
// listed nor synced then.
SystemError OpenThere(int nFolder, const std::string& Name, int nFlags, const FolderRules& Rules,
                      FolderHandle* ppFolder) {
  int nDescriptor = OpenDescriptor(nFolder, Name, O_RDONLY | kFolderFlags | nFlags);
  if (nDescriptor < 0 && errno == EACCES) nDescriptor = OpenDescriptor(nFolder, Name, O_PATH | kFolderFlags | nFlags);
  if (nDescriptor < 0) return errno == ELOOP ? kAccessDenied : LastError();
  try {
    *ppFolder = std::make_shared<const OpenedFolder>(nDescriptor, Rules);
  } catch (const std::bad_alloc&) {
    close(nDescriptor);
    return kNotEnoughMemory;
  }
  return kSuccess;
}

// The same; kAccessDenied for a link, and for a folder that the rules refuse.
SystemError OpenHeldToRules(int nFolder, const std::string& Name, const FolderRules& Rules, FolderHandle* ppFolder) {
  FolderHandle pOpened;
  const SystemError nError = OpenThere(nFolder, Name, O_NOFOLLOW, Rules, &pOpened);
  if (nError != kSuccess) return nError;
  struct stat Status {};
  if (Rules.bOwnFolders && fstat(pOpened->nDescriptor, &Status) != 0) return LastError();
  if (Rules.bOwnFolders && (Status.st_uid != geteuid() || (Status.st_mode & S_IWOTH) != 0)) return kAccessDenied;
  *ppFolder = std::move(pOpened);
  return kSuccess;
}

// Calls Visit with each entry of a folder but "." and "..", until it answers an error, which ends it.
template <class VisitEntry>
SystemError ForEachEntry(const OpenedFolder& Folder, VisitEntry Visit) {
  // Opened anew: two listings of one descriptor would take each other's place.
  const int nDescriptor = OpenDescriptor(Folder.nDescriptor, ".", O_RDONLY | kFolderFlags);
  if (nDescriptor < 0) return ErrorFromErrno(errno);
  const std::unique_ptr<DIR, FolderCloser> Listing(fdopendir(nDescriptor));
  if (Listing == nullptr) {
    close(nDescriptor);
    return kNotEnoughMemory;
  }
  for (;;) {
    errno = 0;
    const dirent* const pEntry = readdir(Listing.get());
    if (pEntry == nullptr) return ErrorFromErrno(errno);
    const std::string_view Name = pEntry->d_name;
    if (Name == "." || Name == "..") continue;
    const SystemError nError = Visit(*pEntry);
    if (nError != kSuccess) return nError;
  }
}

// An entry of a listing, and what a look at it has told.
struct ListedFile {
  std::string Name;
  bool bLookedAt = false;
  bool bFolder = false;
  std::uint64_t nSize = 0;
  std::int64_t nCreationTimeSeconds = 0;
  std::int64_t nWriteTimeSeconds = 0;

  FoundFile Found() const { return {WideName(Name), bFolder, nSize, nCreationTimeSeconds, nWriteTimeSeconds}; }
};
using Listing = std::vector<ListedFile>;

SystemError List(const OpenedFolder& Folder, Listing* pFiles) {
  const SystemError nError = ForEachEntry(Folder, [pFiles](const dirent& Entry) {
    pFiles->push_back({.Name = Entry.d_name});
    return kSuccess;
  });
  std::ranges::sort(*pFiles, {}, &ListedFile::Name);
  return nError;
}

// The listing that a SearchScope keeps, and the outermost one deletes. Not a thread-local object with a destructor:
// that would be waiting for the thread's end, and keep a module in the process that its host has unloaded.
struct FolderListing {
  FolderHandle pFolder;
  Listing Files;
};
thread_local int t_nSearchScopes = 0;
thread_local FolderListing* t_pListing = nullptr;

void KeepListing(std::unique_ptr<FolderListing> pListing) {
  delete std::exchange(t_pListing, pListing.release());
}

// A folder's files in the order of their names: listed into *pOwn, or kept from before.
SystemError FilesOf(const FolderHandle& pFolder, Listing* pOwn, Listing** ppFiles) {
  *ppFiles = pOwn;
  if (t_nSearchScopes == 0) return List(*pFolder, pOwn);
  if (t_pListing == nullptr || t_pListing->pFolder != pFolder) {
    auto pFresh = std::make_unique<FolderListing>(FolderListing{pFolder, {}});
    const SystemError nError = List(*pFolder, &pFresh->Files);
    if (nError != kSuccess) return nError;
    KeepListing(std::move(pFresh));
  }
  *ppFiles = &t_pListing->Files;
  return kSuccess;
}

bool Matches(std::string_view Pattern, std::string_view Name) {
  for (; !Pattern.empty(); Pattern.remove_prefix(1), Name.remove_prefix(1)) {
    if (Pattern.front() == '*') {
      Pattern.remove_prefix(1);
      for (std::size_t nTaken = 0; nTaken <= Name.size(); ++nTaken) {
        if (Matches(Pattern, Name.substr(nTaken))) return true;
      }
      return false;
    }
    if (Name.empty() || (Pattern.front() != '?' && Pattern.front() != Name.front())) return false;
  }
  return Name.empty();
}

// The names of the entries that are neither folders nor links. One that cannot be looked at may be a plain file: that
// is an error, and not a file less.
SystemError PlainFilesOf(const OpenedFolder& Folder, std::vector<std::string>* pNames) {
  return ForEachEntry(Folder, [&](const dirent& Entry) {
    struct stat Status {};
    if (fstatat(Folder.nDescriptor, Entry.d_name, &Status, AT_SYMLINK_NOFOLLOW) != 0) {
      return errno == ENOENT ? kSuccess : ErrorFromErrno(errno);
    }
    if (!S_ISDIR(Status.st_mode) && !S_ISLNK(Status.st_mode)) pNames->emplace_back(Entry.d_name);
    return kSuccess;
  });
}

// What a search tells about one entry; kFileNotFound when the entry is gone.
SystemError Look(const OpenedFolder& Folder, ListedFile* pFile) {
  if (pFile->bLookedAt) return kSuccess;
  struct statx Status {};
  constexpr unsigned kWanted = STATX_BASIC_STATS | STATX_BTIME;
  if (statx(Folder.nDescriptor, pFile->Name.c_str(), AT_SYMLINK_NOFOLLOW, kWanted, &Status) != 0)
    return ErrorFromErrno(errno);
  pFile->bLookedAt = true;
  pFile->bFolder = S_ISDIR(Status.stx_mode);
  pFile->nSize = Status.stx_size;
  pFile->nCreationTimeSeconds = CreationFileTime(Status) / kFileTimeUnitsPerSecond - kSecondsTo1970;
  pFile->nWriteTimeSeconds = Status.stx_mtime.tv_sec;
  return kSuccess;
}

}  // namespace

SystemError MakeAbsolute(std::u16string_view Path, std::u16string* pAbsolute) {
  std::string Native = NativePath(Path);
  if (!Native.starts_with('/')) {
    char Current[PATH_MAX];
    if (getcwd(Current, sizeof(Current)) == nullptr) return ErrorFromErrno(errno);
    if (NativePath(WideName(Current)) != Current) return kInvalidName;  // not UTF-8: it cannot be named here
    Native = std::string(Current) + '/' + Native;
  }
  std::string Clean;
  for (const char c : Native) {
    if (c != '/' || !Clean.ends_with('/')) Clean += c;
    if (Clean.ends_with("/./")) Clean.resize(Clean.size() - 2);
  }
  if (Clean.ends_with("/.")) Clean.pop_back();
  if (Clean.size() > 1 && Clean.ends_with('/')) Clean.pop_back();
  *pAbsolute = WideName(Clean);
  return kSuccess;
}

std::u16string_view ParentOf(std::u16string_view Absolute) {
  const std::size_t nSeparator = Absolute.find_last_of(u"/\\");
  if (nSeparator == std::u16string_view::npos) return {};
  return Absolute.substr(0, std::max<std::size_t>(nSeparator, 1));
}

SystemError IsFolder(std::u16string_view Path, bool* pbFolder) {
  struct stat Status {};
  if (stat(NativePath(Path).c_str(), &Status) != 0) return ErrorFromErrno(errno);
  *pbFolder = S_ISDIR(Status.st_mode);
  return kSuccess;
}

OpenedFolder::~OpenedFolder() {
  close(nDescriptor);
}

SystemError OpenParent(const std::string& Path, const FolderRules& Rules, FolderHandle* ppParent, std::string* pName) {
  const std::size_t nName = Path.rfind('/') + 1;  // 0 when there is no separator
  *pName = Path.substr(nName);
  if (pName->empty()) pName->assign(1, '.');
  return OpenThere(AT_FDCWD, nName == 0 ? std::string(1, '.') : Path.substr(0, nName), 0, Rules, ppParent);
}

SystemError MakeFolder(const FolderHandle& pParent, std::u16string_view Name) {
  const std::string Native = NativePath(Name);
  const auto Make = [&] {
    const MakesForOwner Others(*pParent);
    return mkdirat(pParent->nDescriptor, Native.c_str(), pParent->FolderMode());
  };
  if (Make() != 0) return ErrorFromErrno(errno);
  FolderHandle pMade;
  if (OpenFolder(pParent, Name, &pMade) == kSuccess) SetMode(pMade->nDescriptor, pParent->FolderMode());
  // Files in it will be flushed, which is worth little while the folder's own name is not on the disk. Where that
  // cannot be had, because the parent may not be read or the system does not sync folders, it is there all the same.
  (void)Sync(pParent->nDescriptor);
  return kSuccess;
}

SystemError MakeFolder(std::u16string_view Path, const FolderRules& Rules) {
  FolderHandle pParent;
  std::string Name;
  const SystemError nError = OpenParent(NativePath(Path), Rules, &pParent, &Name);
  return nError == kSuccess ? MakeFolder(pParent, WideName(Name)) : nError;
}

SystemError OpenFolder(std::u16string_view Path, const FolderRules& Rules, FolderHandle* ppFolder) {
  std::string Native = NativePath(Path);
  // Behind either a link would be followed.
  while (Native.size() > 1 && (Native.ends_with('/') || Native.ends_with("/."))) Native.pop_back();
  return OpenHeldToRules(AT_FDCWD, Native, Rules, ppFolder);
}

SystemError OpenFolder(const FolderHandle& pParent, std::u16string_view Name, FolderHandle* ppFolder) {
  return OpenHeldToRules(pParent->nDescriptor, NativePath(Name), pParent->Rules, ppFolder);
}

SearchScope::SearchScope() {
  ++t_nSearchScopes;
}

SearchScope::~SearchScope() {
  if (--t_nSearchScopes == 0) KeepListing(nullptr);
}

SystemError FindFiles(const FolderHandle& pFolder, std::u16string_view WidePattern,
                      const std::function<bool(const FoundFile&)>& Visit) {
  const std::string Pattern = NativePath(WidePattern);
  const std::size_t nWildcard = Pattern.find_first_of("*?");
  if (nWildcard == std::string::npos && t_nSearchScopes == 0) {
    ListedFile Named{.Name = Pattern};
    const SystemError nError = Look(*pFolder, &Named);
    if (nError == kSuccess) Visit(Named.Found());
    return nError;
  }

  Listing Own;
  Listing* pFiles = nullptr;
  const SystemError nError = FilesOf(pFolder, &Own, &pFiles);
  if (nError != kSuccess) return nError;

  // In the order of names those that can match stand together, from the pattern's fixed start on.
  const std::string Fixed = Pattern.substr(0, nWildcard);
  bool bFound = false;
  for (auto File = std::ranges::lower_bound(*pFiles, Fixed, {}, &ListedFile::Name);
       File != pFiles->end() && File->Name.starts_with(Fixed); ++File) {
    if (!Matches(Pattern, File->Name)) continue;
    const SystemError nLooked = Look(*pFolder, &*File);
    if (nLooked == kFileNotFound) continue;
    if (nLooked != kSuccess) return nLooked;
    bFound = true;
    if (!Visit(File->Found())) break;
  }
  return bFound ? kSuccess : kFileNotFound;
}

SystemError ListPlainFiles(const FolderHandle& pFolder, std::vector<std::u16string>* pNames) {
  std::vector<std::string> Names;
  const SystemError nError = PlainFilesOf(*pFolder, &Names);
  for (const std::string& Name : Names) pNames->push_back(WideName(Name));
  return nError;
}

SystemError ListFolders(const FolderHandle& pFolder, std::vector<std::u16string>* pNames) {
  return ForEachEntry(*pFolder, [&](const dirent& Entry) {
    struct stat Status {};
    if (fstatat(pFolder->nDescriptor, Entry.d_name, &Status, AT_SYMLINK_NOFOLLOW) != 0) {
      return errno == ENOENT ? kSuccess : ErrorFromErrno(errno);
    }
    if (S_ISDIR(Status.st_mode)) pNames->push_back(WideName(Entry.d_name));
    return kSuccess;
  });
}

SystemError Move(const FolderHandle& pFrom, std::u16string_view Name, const FolderHandle& pTo,
                 std::u16string_view NewName, IfTaken What) {
  const std::string Old = NativePath(Name);
  const std::string New = NativePath(NewName);
  const unsigned nFlags = What == IfTaken::Refuse ? RENAME_NOREPLACE : 0;
  int nMoved = renameat2(pFrom->nDescriptor, Old.c_str(), pTo->nDescriptor, New.c_str(), nFlags);
  if (nMoved != 0 && errno == EINVAL && nFlags != 0) {  // not every file system can do both at once
    struct stat Status {};
    if (fstatat(pTo->nDescriptor, New.c_str(), &Status, AT_SYMLINK_NOFOLLOW) == 0) return kAlreadyExists;
    nMoved = renameat(pFrom->nDescriptor, Old.c_str(), pTo->nDescriptor, New.c_str());
  }
  if (nMoved != 0) return errno == EEXIST ? kAlreadyExists : ErrorFromErrno(errno);
  const SystemError nError = Sync(pTo->nDescriptor);
  return nError == kSuccess ? Sync(pFrom->nDescriptor) : nError;
}

SystemError RemovePlainFiles(const FolderHandle& pFolder, std::u16string_view LastName) {
  std::vector<std::string> Names;  // first all of them: what a listing shows while its entries go is not settled
  const SystemError nError = PlainFilesOf(*pFolder, &Names);
  std::partition(Names.begin(), Names.end(), [&](const std::string& Name) { return WideName(Name) != LastName; });
  for (const std::string& Name : Names) unlinkat(pFolder->nDescriptor, Name.c_str(), 0);
  return nError;
}

}  // namespace lumbra::os
