// The disk below a store, as changes make it: what has reached it for good, and what a loss of power may undo.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "faults/driver.h"
#include "faults/record.h"
#include "support/system_calls.h"

namespace lumbra::test {

// What a driver told and what reached the boundary meanwhile, in their order. Paths are below the store's folder.
using Tape = std::vector<std::variant<Fact, DiskChange>>;

class Disk {
 public:
  void Apply(const DiskChange& Change);

  // Makes the folder anew as a new start finds it when the process ends now; or, with pPower, when the power goes: each
  // change since the last sync of its file or folder is there, or not, or its sectors in part.
  void Build(const std::filesystem::path& Folder, Random* pPower) const;

  // The bytes of a file: as they are now, or as they are for good. Nothing where it is missing.
  std::optional<std::string> Now(const std::string& Path) const;
  std::optional<std::string> Synced(const std::string& Path) const;

 private:
  struct File {
    bool bFolder = false;
    std::string Synced;
    std::vector<DiskChange> Since;

    std::string Content(Random* pPower, bool bNothing) const;
  };
  struct Name {
    std::shared_ptr<File> pSynced;             // null: there was no file of the name
    std::vector<std::shared_ptr<File>> Since;  // null: removed

    const std::shared_ptr<File>& Last() const { return Since.empty() ? pSynced : Since.back(); }
  };

  std::map<std::string, Name> m_Names;
};

// Watches the order of what is written while segments come and go:
// - "segments.dat" names no segment whose events are not there;
// - no file of a segment goes before the header that leaves it out is on the disk for good, but when its database is
//   cleared: then the highest numbers go first and "segments.dat" goes last;
// - the next add, limit or flush after a header that could not be written does that first; after one that could not be
//   synced, that one operation goes on.
class OrderWatch {
 public:
  void Apply(const Fact& Of);
  void Apply(const DiskChange& Change);        // that has happened
  void ApplyFailed(const DiskChange& Change);  // that was made to fail

  const Disk& Made() const { return m_Disk; }

 private:
  void CheckRemoval(const std::string& Folder, const std::string& File);
  void CheckFirst(const std::string& Folder) const;

  Disk m_Disk;
  std::uint32_t m_nOperation = kOther;
  std::uint64_t m_nOperations = 0;
  std::string m_LastCleared;  // the last file that this clear has removed, by folder and name
  // By folder, the operation in which a header could not be written, and not be synced.
  std::map<std::string, std::uint64_t> m_Owed;
  std::map<std::string, std::uint64_t> m_Unsynced;
};

}  // namespace lumbra::test
