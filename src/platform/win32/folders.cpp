// Folders and searches on Windows.
#include <io.h>

#include <algorithm>
#include <cerrno>

#include "platform/win32/win32.h"

namespace lumbra::os {
namespace {

constexpr std::u16string_view kSeparators = u"\\/";
constexpr std::u16string_view kLongPrefix = u"\\\\?\\";
constexpr std::u16string_view kDevicePrefix = u"\\\\.\\";
constexpr std::u16string_view kLongShare = u"\\\\?\\UNC\\";

// Paths from this length on (that of a folder in which a file of the shortest name fits) only work in their long form.
constexpr std::size_t kMaxShortPath = 248;

bool IsSeparator(char16_t c) {
  return kSeparators.find(c) != std::u16string_view::npos;
}

// Where the names of an absolute path begin: behind "C:\", behind "\\server\share", also where "\\?\" stands in front.
std::size_t RootLength(std::u16string_view Path) {
  const auto PastNames = [Path](std::size_t nAt, int nNames) {
    for (; nNames > 0 && nAt < Path.size(); --nNames) {
      nAt = std::min(Path.find_first_of(kSeparators, nAt + 1), Path.size());
    }
    return nAt;
  };
  if (Path.starts_with(kLongShare)) return PastNames(kLongShare.size() - 1, 2);
  const bool bPrefixed = Path.starts_with(kLongPrefix) || Path.starts_with(kDevicePrefix);
  if (bPrefixed) return std::min(PastNames(kLongPrefix.size() - 1, 1) + 1, Path.size());
  if (Path.starts_with(u"\\\\")) return PastNames(1, 2);
  return std::min<std::size_t>(3, Path.size());
}

SystemError FullPath(const std::u16string& Path, std::u16string* pFull) {
  for (DWORD nRoom = MAX_PATH;;) {
    pFull->resize(nRoom);
    const DWORD nLength = GetFullPathNameW(Wide(Path), nRoom, reinterpret_cast<wchar_t*>(pFull->data()), nullptr);
    if (nLength == 0) return LastError();
    if (nLength < nRoom) {
      pFull->resize(nLength);
      return kSuccess;
    }
    nRoom = nLength;
  }
}

// A search of the system; ends with it.
class SystemSearch {
 public:
  SystemSearch(const std::u16string& Pattern, WIN32_FIND_DATAW* pFound)
      : m_Handle(FindFirstFileExW(Wide(Pattern), FindExInfoStandard, pFound, FindExSearchNameMatch, nullptr, 0)) {}
  ~SystemSearch() {
    if (Found()) FindClose(m_Handle);
  }
  SystemSearch(const SystemSearch&) = delete;
  SystemSearch& operator=(const SystemSearch&) = delete;

  bool Found() const { return m_Handle != INVALID_HANDLE_VALUE; }
  bool Next(WIN32_FIND_DATAW* pFound) const { return FindNextFileW(m_Handle, pFound) != FALSE; }

 private:
  HANDLE m_Handle;
};

// The C runtime's search, whose handle is a number.
class RuntimeSearch {
 public:
  RuntimeSearch(const std::u16string& Pattern, _wfinddata64_t* pFound)
      : m_nHandle(_wfindfirst64(Wide(Pattern), pFound)) {}
  ~RuntimeSearch() {
    if (Found()) _findclose(m_nHandle);
  }
  RuntimeSearch(const RuntimeSearch&) = delete;
  RuntimeSearch& operator=(const RuntimeSearch&) = delete;

  bool Found() const { return m_nHandle != -1; }
  bool Next(_wfinddata64_t* pFound) const { return _wfindnext64(m_nHandle, pFound) == 0; }

 private:
  std::intptr_t m_nHandle;
};

}  // namespace

std::u16string NativePath(std::u16string_view Path) {
  std::u16string Native(Path);
  if (Path.starts_with(kLongPrefix) || Path.starts_with(kDevicePrefix)) return Native;
  const bool bRelative = !Path.starts_with(u"\\\\") && Path.find(u':') == std::u16string_view::npos;
  std::u16string Full;
  if ((!bRelative && Path.size() < kMaxShortPath) || FullPath(Native, &Full) != kSuccess) return Native;
  if (Full.size() < kMaxShortPath) return Native;
  return Full.starts_with(u"\\\\") ? std::u16string(kLongShare) + Full.substr(2) : std::u16string(kLongPrefix) + Full;
}

// Shares and long paths are taken as they are. The others get the form that takes any length, which the system uses to
// the letter: it has no names of ".", no '/', and no separator at its end.
SystemError MakeAbsolute(std::u16string_view Path, std::u16string* pAbsolute) {
  std::u16string Absolute(Path);
  if (!Path.starts_with(u"\\\\")) {
    if (const SystemError nError = FullPath(std::u16string(Path), &Absolute); nError != kSuccess) return nError;
    if (!Absolute.starts_with(u"\\\\")) Absolute.insert(0, kLongPrefix);
    std::replace(Absolute.begin(), Absolute.end(), u'/', u'\\');
  }
  while (Absolute.size() > RootLength(Absolute) && IsSeparator(Absolute.back())) Absolute.pop_back();
  *pAbsolute = std::move(Absolute);
  return kSuccess;
}

std::u16string_view ParentOf(std::u16string_view Absolute) {
  const std::size_t nRoot = RootLength(Absolute);
  const std::size_t nSeparator = Absolute.find_last_of(kSeparators);
  if (nSeparator == std::u16string_view::npos) return {};
  return Absolute.substr(0, std::max(nSeparator, nRoot));
}

SystemError IsFolder(std::u16string_view Path, bool* pbFolder) {
  const std::u16string Native = NativePath(Path);
  const DWORD nAttributes = GetFileAttributesW(Wide(Native));
  if (nAttributes == INVALID_FILE_ATTRIBUTES) return LastError();
  *pbFolder = (nAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
  return kSuccess;
}

SystemError MakeFolder(std::u16string_view Path, const FolderRules& /*Rules*/) {
  return ErrorUnless(CreateDirectoryW(Wide(NativePath(Path)), nullptr));
}

SystemError MakeFolder(const FolderHandle& pParent, std::u16string_view Name) {
  return MakeFolder(pParent->Path + std::u16string(Name), FolderRules());
}

SystemError OpenFolder(std::u16string_view Path, const FolderRules& /*Rules*/, FolderHandle* ppFolder) {
  bool bFolder = false;
  const SystemError nError = IsFolder(Path, &bFolder);
  if (nError != kSuccess) return nError;
  if (!bFolder) return kPathNotFound;
  std::u16string WithSeparator(Path);
  if (!IsSeparator(WithSeparator.back())) WithSeparator += u'\\';
  *ppFolder = std::make_shared<const OpenedFolder>(OpenedFolder{std::move(WithSeparator)});
  return kSuccess;
}

SystemError OpenFolder(const FolderHandle& pParent, std::u16string_view Name, FolderHandle* ppFolder) {
  return OpenFolder(pParent->Path + std::u16string(Name), FolderRules(), ppFolder);
}

// A search asks the system for the names that match, not for all of them: there is nothing to keep.
SearchScope::SearchScope() {}
SearchScope::~SearchScope() {}

SystemError FindFiles(const FolderHandle& pFolder, std::u16string_view WithWildcards,
                      const std::function<bool(const FoundFile&)>& Visit) {
  const std::u16string Pattern = pFolder->PathOf(WithWildcards);
  _wfinddata64_t Found{};
  const RuntimeSearch Searching(Pattern, &Found);
  if (!Searching.Found()) return errno == ENOENT ? kFileNotFound : kGeneralFailure;
  do {
    const bool bFolder = (Found.attrib & _A_SUBDIR) != 0;
    if (!Visit({Utf16(Found.name), bFolder, static_cast<std::uint64_t>(Found.size), Found.time_create,
                Found.time_write})) {
      return kSuccess;
    }
  } while (Searching.Next(&Found));
  return errno == ENOENT ? kSuccess : kGeneralFailure;  // at the end, or on the way there
}

SystemError ListPlainFiles(const FolderHandle& pFolder, std::vector<std::u16string>* pNames) {
  const std::u16string Pattern = pFolder->PathOf(u"*");
  WIN32_FIND_DATAW Found{};
  const SystemSearch Listing(Pattern, &Found);
  if (!Listing.Found()) return LastError();
  do {
    constexpr DWORD kNotPlain = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT;
    if ((Found.dwFileAttributes & kNotPlain) == 0) pNames->emplace_back(Utf16(Found.cFileName));
  } while (Listing.Next(&Found));
  const SystemError nError = LastError();
  return nError == kNoMoreFiles ? kSuccess : nError;
}

SystemError ListFolders(const FolderHandle& pFolder, std::vector<std::u16string>* pNames) {
  const std::u16string Pattern = pFolder->PathOf(u"*");
  WIN32_FIND_DATAW Found{};
  const SystemSearch Listing(Pattern, &Found);
  if (!Listing.Found()) return LastError();
  do {
    const bool bFolder = (Found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    const bool bLink = (Found.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
    const std::u16string_view Name = Utf16(Found.cFileName);
    if (bFolder && !bLink && Name != u"." && Name != u"..") pNames->emplace_back(Name);
  } while (Listing.Next(&Found));
  const SystemError nError = LastError();
  return nError == kNoMoreFiles ? kSuccess : nError;
}

SystemError Move(const FolderHandle& pFrom, std::u16string_view Name, const FolderHandle& pTo,
                 std::u16string_view NewName, IfTaken What) {
  const DWORD nFlags = MOVEFILE_WRITE_THROUGH | (What == IfTaken::Replace ? MOVEFILE_REPLACE_EXISTING : 0);
  return ErrorUnless(MoveFileExW(Wide(pFrom->PathOf(Name)), Wide(pTo->PathOf(NewName)), nFlags));
}

SystemError RemovePlainFiles(const FolderHandle& pFolder, std::u16string_view LastName) {
  std::vector<std::u16string> Names;
  const SystemError nError = ListPlainFiles(pFolder, &Names);
  std::partition(Names.begin(), Names.end(), [&](const std::u16string& Name) { return Name != LastName; });
  for (const std::u16string& Name : Names) (void)RemoveFile(pFolder, Name);  // what cannot be deleted stays
  return nError;
}

}  // namespace lumbra::os
