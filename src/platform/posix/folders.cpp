// Folders and searches on posix.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <filesystem>
#include <memory>
#include <utility>

#include "platform/posix/posix.h"

namespace lumbra::os {
namespace {

struct FolderCloser {
  void operator()(DIR* pFolder) const { closedir(pFolder); }
};

// Calls Visit with each entry of a folder but "." and "..", until it answers an error, which ends it.
template <class VisitEntry>
SystemError ForEachEntry(const std::string& Folder, VisitEntry Visit) {
  const int nDescriptor = OpenDescriptor(Folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
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
    const SystemError nError = Visit(*pEntry, dirfd(Listing.get()));
    if (nError != kSuccess) return nError;
  }
}

SystemError List(const std::string& Folder, std::vector<std::string>* pNames) {
  const SystemError nError = ForEachEntry(Folder.empty() ? "." : Folder, [pNames](const dirent& Entry, int) {
    pNames->emplace_back(Entry.d_name);
    return kSuccess;
  });
  std::sort(pNames->begin(), pNames->end());
  return nError;
}

// The listing that a SearchScope keeps, and the outermost one deletes. Not a thread-local object with a destructor:
// that would be waiting for the thread's end, and keep a module in the process that its host has unloaded.
struct FolderListing {
  std::string Folder;
  std::vector<std::string> Names;
};
thread_local int t_nSearchScopes = 0;
thread_local const FolderListing* t_pListing = nullptr;

void KeepListing(std::unique_ptr<const FolderListing> pListing) {
  delete std::exchange(t_pListing, pListing.release());
}

// A folder's names, sorted: listed into *pOwn, or kept from before.
SystemError NamesOf(const std::string& Folder, std::vector<std::string>* pOwn,
                    const std::vector<std::string>** ppNames) {
  *ppNames = pOwn;
  if (t_nSearchScopes == 0) return List(Folder, pOwn);
  if (t_pListing == nullptr || t_pListing->Folder != Folder) {
    auto pFresh = std::make_unique<FolderListing>(FolderListing{Folder, {}});
    const SystemError nError = List(Folder, &pFresh->Names);
    if (nError != kSuccess) return nError;
    KeepListing(std::move(pFresh));
  }
  *ppNames = &t_pListing->Names;
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
SystemError PlainFilesOf(const std::string& Folder, std::vector<std::string>* pNames) {
  return ForEachEntry(Folder, [pNames](const dirent& Entry, int nFolder) {
    struct stat Status {};
    if (fstatat(nFolder, Entry.d_name, &Status, AT_SYMLINK_NOFOLLOW) != 0) {
      return errno == ENOENT ? kSuccess : ErrorFromErrno(errno);
    }
    if (!S_ISDIR(Status.st_mode) && !S_ISLNK(Status.st_mode)) pNames->emplace_back(Entry.d_name);
    return kSuccess;
  });
}

// What a search tells about one entry; kFileNotFound when the entry is gone.
SystemError Look(const std::string& Folder, const std::string& Name, FoundFile* pFound) {
  struct statx Status {};
  if (statx(AT_FDCWD, (Folder + Name).c_str(), 0, STATX_BASIC_STATS | STATX_BTIME, &Status) != 0) {
    return ErrorFromErrno(errno);
  }
  const std::int64_t nSeconds = CreationFileTime(Status) / kFileTimeUnitsPerSecond - kSecondsTo1970;
  *pFound = {WideName(Name), S_ISDIR(Status.stx_mode), Status.stx_size, nSeconds};
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

SystemError MakeFolder(std::u16string_view Path) {
  constexpr mode_t kMode = 0777;  // the process's umask takes from it
  const std::string Native = NativePath(Path);
  if (mkdir(Native.c_str(), kMode) != 0) return ErrorFromErrno(errno);
  // Files in it will be flushed, which is worth little while the folder's own name is not on the disk. Where that
  // cannot be had, because the parent may not be read or the system does not sync folders, it is there all the same.
  (void)SyncFolder(std::filesystem::path(Native).parent_path());
  return kSuccess;
}

SearchScope::SearchScope() {
  ++t_nSearchScopes;
}

SearchScope::~SearchScope() {
  if (--t_nSearchScopes == 0) KeepListing(nullptr);
}

SystemError FindFiles(std::u16string_view PathPattern, const std::function<bool(const FoundFile&)>& Visit) {
  const std::string Native = NativePath(PathPattern);
  const std::size_t nName = Native.rfind('/') + 1;  // 0 when there is no separator
  const std::string Folder = Native.substr(0, nName);
  const std::string Pattern = Native.substr(nName);

  const std::size_t nWildcard = Pattern.find_first_of("*?");
  FoundFile Found;
  if (nWildcard == std::string::npos) {
    const SystemError nError = Look(Folder, Pattern, &Found);
    if (nError == kSuccess) Visit(Found);
    return nError;
  }

  std::vector<std::string> Own;
  const std::vector<std::string>* pNames = nullptr;
  const SystemError nError = NamesOf(Folder, &Own, &pNames);
  if (nError != kSuccess) return nError;

  // Sorted names: those that can match stand together, from the pattern's fixed start on.
  const std::string Fixed = Pattern.substr(0, nWildcard);
  bool bFound = false;
  for (auto Name = std::lower_bound(pNames->begin(), pNames->end(), Fixed);
       Name != pNames->end() && Name->starts_with(Fixed); ++Name) {
    if (!Matches(Pattern, *Name)) continue;
    const SystemError nLooked = Look(Folder, *Name, &Found);
    if (nLooked == kFileNotFound) continue;
    if (nLooked != kSuccess) return nLooked;
    bFound = true;
    if (!Visit(Found)) break;
  }
  return bFound ? kSuccess : kFileNotFound;
}

SystemError ListPlainFiles(std::u16string_view Folder, std::vector<std::u16string>* pNames) {
  std::vector<std::string> Names;
  const SystemError nError = PlainFilesOf(NativePath(Folder), &Names);
  for (const std::string& Name : Names) pNames->push_back(WideName(Name));
  return nError;
}

SystemError RemovePlainFiles(std::u16string_view Folder, std::u16string_view LastName) {
  const std::string Native = NativePath(Folder);
  std::vector<std::string> Names;  // first all of them: what a listing shows while its entries go is not settled
  const SystemError nError = PlainFilesOf(Native, &Names);
  std::partition(Names.begin(), Names.end(), [&](const std::string& Name) { return WideName(Name) != LastName; });
  for (const std::string& Name : Names) unlink(std::string(Native).append(1, '/').append(Name).c_str());
  return nError;
}

}  // namespace lumbra::os
