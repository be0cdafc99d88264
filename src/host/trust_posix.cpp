#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <system_error>
#include <vector>

#include "host/printed_text.h"
#include "host/trust.h"
#include "platform/file.h"

namespace lumbra::host {
namespace {

// Whether a group is the user's own: many systems give each user one that nobody else is in.
bool IsGroupOfUser(gid_t nGroup, uid_t nUser) {
  std::vector<char> Room(16384);
  passwd Entry{};
  passwd* pFound = nullptr;
  if (getpwuid_r(nUser, &Entry, Room.data(), Room.size(), &pFound) != 0 || pFound == nullptr) return false;
  return pFound->pw_gid == nGroup;
}

std::string WhyNotTrusted(const struct stat& Status, TrustedOwner Owner) {
  if (S_ISLNK(Status.st_mode)) return std::string(kIsALink);
  const bool bOwned = Status.st_uid == geteuid() || (Owner == TrustedOwner::UserOrRoot && Status.st_uid == 0);
  if (!bOwned) return "belongs to another user";
  if ((Status.st_mode & S_IWOTH) != 0) return "can be written by others";
  if ((Status.st_mode & S_IWGRP) != 0 && !IsGroupOfUser(Status.st_gid, Status.st_uid))
    return "can be written by its group";
  return {};
}

std::string WhyNotKnown() {
  return std::string(kCannotBeLookedAt) + std::generic_category().message(errno);
}

// The same of what a store's folder holds. A link may stand in the place of a database's folder.
std::string WhyEntryNotTrusted(int nFolder, const std::string& Name) {
  struct stat Status {};
  if (fstatat(nFolder, Name.c_str(), &Status, AT_SYMLINK_NOFOLLOW) != 0)
    return errno == ENOENT ? std::string() : WhyNotKnown();
  if (!S_ISDIR(Status.st_mode) && !S_ISLNK(Status.st_mode)) return {};
  return WhyNotTrusted(Status, TrustedOwner::User);
}

}  // namespace

std::string WhyNotTrusted(const std::filesystem::path& Path, TrustedOwner Owner) {
  struct stat Status {};
  if (lstat(Path.c_str(), &Status) == 0) return WhyNotTrusted(Status, Owner);
  return errno == ENOENT || errno == ENOTDIR ? std::string() : WhyNotKnown();
}

std::string WhyNotTrusted(int nDescriptor, TrustedOwner Owner) {
  struct stat Status {};
  return fstat(nDescriptor, &Status) == 0 ? WhyNotTrusted(Status, Owner) : WhyNotKnown();
}

std::string WhyStoreNotTrusted(const std::filesystem::path& Folder) {
  if (const std::string Why = WhyNotTrusted(Folder, TrustedOwner::User); !Why.empty())
    return Printable(Folder.string()) + ' ' + Why;
  std::unique_ptr<DIR, int (*)(DIR*)> pListing(opendir(Folder.c_str()), &closedir);
  if (pListing == nullptr && errno == EMFILE && RelieveDescriptors()) pListing.reset(opendir(Folder.c_str()));
  if (pListing == nullptr) return errno == ENOENT ? std::string() : Printable(Folder.string()) + ' ' + WhyNotKnown();
  for (;;) {
    errno = 0;
    const dirent* const pEntry = readdir(pListing.get());
    if (pEntry == nullptr) return errno == 0 ? std::string() : Printable(Folder.string()) + ' ' + WhyNotKnown();
    const std::string Name = pEntry->d_name;
    if (Name == "." || Name == ".." || pEntry->d_type == DT_REG) continue;
    const std::string Why = WhyEntryNotTrusted(dirfd(pListing.get()), Name);
    if (!Why.empty()) return Printable((Folder / Name).string()) + ' ' + Why;
  }
}

Exposure ExposureOf(const std::filesystem::path& Folder) {
  constexpr mode_t kOthers = S_IRWXG | S_IRWXO;
  constexpr mode_t kMayEnter = S_IXGRP | S_IXOTH;
  Exposure Found;
  std::vector<std::filesystem::path> ToLookAt{Folder};
  while (!ToLookAt.empty()) {
    const std::filesystem::path Path = std::move(ToLookAt.back());
    ToLookAt.pop_back();
    struct stat Status {};
    if (lstat(Path.c_str(), &Status) != 0 || S_ISLNK(Status.st_mode) || (Status.st_mode & kOthers) == 0) continue;
    if (Found.nCount++ == 0) Found.First = Path.string();
    if (!S_ISDIR(Status.st_mode) || (Status.st_mode & kMayEnter) == 0) continue;
    std::error_code Refused;  // what cannot be listed is not counted
    std::filesystem::directory_iterator Listing(Path, Refused);
    for (; !Refused && Listing != std::filesystem::directory_iterator(); Listing.increment(Refused))
      ToLookAt.push_back(Listing->path());
  }
  return Found;
}

}  // namespace lumbra::host
