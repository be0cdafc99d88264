// What is in a backup.
//
// "backup-manifest" has a line for each file, its SHA-256 sum and its name in the backup, in the form that sha256sum
// checks, too. "backup-source" tells what the files were copied from, as JSON: what has not changed since is not copied
// again. It says nothing that the backup needs. While a backup is made there is no manifest.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "format/file_names.h"
#include "platform/os.h"

namespace lumbra::tool {

struct BackupFile {
  std::string Sum;  // SHA-256, hexadecimal digits
  std::uint64_t nSize = 0;
  // What it was copied from, where that had not changed meanwhile; otherwise 0.
  std::uint64_t nSourceBirth = 0;
  std::uint64_t nSourceSize = 0;
  std::uint64_t nSourceWritten = 0;
};

// Which store was copied: by its path, and by when its records of shared objects were made. One that was moved has
// another path, and one that was put back another birth.
struct BackupOrigin {
  std::string Path;
  std::uint64_t nBirth = 0;

  bool CouldBe(const BackupOrigin& Other) const {
    return Path == Other.Path || (nBirth != 0 && nBirth == Other.nBirth);
  }
};

// By the file's name in the backup, UTF-8, with '/' between folder and file.
using BackupFiles = std::map<std::string, BackupFile>;

// What an earlier backup holds, finished or not; nothing where there is none. Nothing in it is believed but for files
// that have the size that it says.
BackupFiles ReadBackupSource(const os::FolderHandle& pBackup, BackupOrigin* pOrigin);

// The sums of a finished backup; nothing where there is none, or what is there is none.
std::optional<std::map<std::string, std::string>> ReadManifest(const os::FolderHandle& pBackup);

// The texts of the two files.
std::string ManifestOf(const BackupFiles& Files);
std::string SourceOf(const BackupFiles& Files, const BackupOrigin& Origin);

// The sum of a file's bytes, and how many there are. Told on the way how many were read; false ends it.
os::SystemError SumOf(const os::FolderHandle& pFolder, std::u16string_view Name, std::string* pSum,
                      std::uint64_t* pnSize);

}  // namespace lumbra::tool
