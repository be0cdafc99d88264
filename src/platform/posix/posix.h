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

// open() that survives EINTR, and a soft limit of descriptors that can be lifted.
int OpenDescriptor(const std::string& Path, int nFlags);

// Brings the names in a folder to the disk.
SystemError SyncFolder(const std::string& Folder);

// Seconds from 1601-01-01, where file times start, to 1970-01-01, and the file time units of 100 ns in a
// second.
inline constexpr std::int64_t kSecondsTo1970 = 11644473600;
inline constexpr std::int64_t kFileTimeUnitsPerSecond = 10000000;
inline constexpr std::int64_t kNanosecondsPerFileTimeUnit = 100;

// When a file was created, as a FILETIME: its birth time, or the oldest of its times on a file system that
// keeps none.
std::int64_t CreationFileTime(const struct statx& Status);

}  // namespace lumbra::os
