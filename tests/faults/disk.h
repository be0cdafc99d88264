// The disk below a store, as changes make it: what has reached it for good, and what a loss of power may undo.
#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "faults/driver.h"
#include "support/system_calls.h"

namespace lumbra::test {

// One that was made to fail.
struct FailedChange : DiskChange {};
// What a driver told and what reached the boundary meanwhile, in their order. Paths are below the store's folder.
using Moment = std::variant<Fact, DiskChange, FailedChange>;
using Tape = std::vector<Moment>;

// What each change came to that no sync followed is a choice: of 4 the first is that it never happened, of 2 that a
// sector of a torn one did not. The highest number is always that all is there.
class Disk {
 public:
  void Apply(const DiskChange& Change);
  void Build(const std::filesystem::path& Folder, const Source& Choose) const;

  // The bytes of a file: as they are now, or as they are for good. Nothing where it is missing.
  std::optional<std::string> Now(const std::string& Path) const;
  std::optional<std::string> Synced(const std::string& Path) const;

 private:
  struct File {
    bool bThere = false;
    bool bFolder = false;
    std::string Synced = {};
    std::vector<DiskChange> Pending = {};
  };
  static std::string ContentOf(const File& Of, const Source& Choose);

  // Under each name: what its folder holds for good, and what has come and gone since the last sync of the folder.
  std::map<std::string, std::vector<File>> m_Names;
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
  void Apply(const DiskChange& Change);
  void Apply(const FailedChange& Change);

 private:
  void CheckDebt(const std::string& Folder, const DiskChange& Change);
  void CheckClear(const std::string& Folder, const std::string& File);
  void CheckRemoval(const std::string& Folder, const std::string& File) const;
  void CheckFirst(const std::string& Folder) const;

  Disk m_Disk;
  std::uint32_t m_nKind = kOther;
  std::uint64_t m_nOperation = 0;
  std::string m_LastCleared;  // the last file that this clear has removed
  // By folder, the operation in which a header could not be written, and not be synced.
  std::map<std::string, std::uint64_t> m_Owed;
  std::map<std::string, std::uint64_t> m_Unsynced;
};

}  // namespace lumbra::test
