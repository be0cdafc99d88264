// What the sources of the posix side share.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/os.h"

namespace lumbra::os {

// The Win32 error number of an errno value: the one translation of the posix side.
SystemError ErrorFromErrno(int nErrno);

// A path in the system's form: UTF-8, with '/' where it had '\'.
std::string NativePath(std::u16string_view Path);

// A name that the system gave, as UTF-16; bytes that are not UTF-8 become U+FFFD.
std::u16string WideName(std::string_view Name);

// The last errno as a Win32 number; never success, also when a library left errno alone.
SystemError LastError();

struct OpenedFolder {
  OpenedFolder(int nOpened, const FolderRules& ForIt) : nDescriptor(nOpened), Rules(ForIt) {}
  ~OpenedFolder();
  OpenedFolder(const OpenedFolder&) = delete;
  OpenedFolder& operator=(const OpenedFolder&) = delete;

  mode_t FileMode() const { return Rules.ForWhom == Readers::OwnerAlone ? 0600 : 0640; }
  mode_t FolderMode() const { return Rules.ForWhom == Readers::OwnerAlone ? 0700 : 0750; }

  const int nDescriptor;
  const FolderRules Rules;
};

// A path taken apart: the folder that holds its last name, opened by whatever links lead there and whosever it is, and
// that name. The rules are for what is opened and made in it.
SystemError OpenParent(const std::string& Path, const FolderRules& Rules, FolderHandle* ppParent, std::string* pName);

// openat() that survives EINTR.
int OpenDescriptor(int nFolder, const std::string& Name, int nFlags, mode_t nMode = 0);

// Gives what was made the rights it is to have, whatever the process's mask took from them.
void SetMode(int nDescriptor, mode_t nMode);

// While it lives, what the calling thread makes in a folder belongs to that folder's owner, and not to root, if that is
// who works here: nobody but root could use it otherwise. Where a store's folders are to be the user's own they are.
class MakesForOwner {
 public:
  explicit MakesForOwner(const OpenedFolder& Folder);
  ~MakesForOwner();
  MakesForOwner(const MakesForOwner&) = delete;
  MakesForOwner& operator=(const MakesForOwner&) = delete;

 private:
  bool m_bForOther = false;
};

// Brings the bytes of a file, or the names in a folder, to the disk.
SystemError Sync(int nDescriptor);

// Seconds from 1601-01-01, where file times start, to 1970-01-01, and the file time units of 100 ns in a
// second.
inline constexpr std::int64_t kSecondsTo1970 = 11644473600;
inline constexpr std::int64_t kFileTimeUnitsPerSecond = 10000000;
inline constexpr std::int64_t kNanosecondsPerFileTimeUnit = 100;

// When a file was created, as a FILETIME: its birth time, or the oldest of its times on a file system that
// keeps none.
std::int64_t CreationFileTime(const struct statx& Status);

}  // namespace lumbra::os
