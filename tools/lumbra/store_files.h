// What the tool reads of a store's folder by itself: which databases there are, their event sizes and
// segments. A database must be opened with the event size that it has: with another one it would start anew.
//
// What is not there is told apart from what cannot be looked at or read, for which all of this throws a Failure.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace lumbra::tool {

// A database as the user names it: by number (1 to 47; 0 is the system database) or by name.
struct DatabaseName {
  std::optional<std::uint32_t> Number;
  std::string Name;  // UTF-8; empty for a numbered one

  std::string Folder() const;    // within the store
  std::string Describe() const;  // for messages
};

// Reads "--db"; nothing, with the reason, for what names no database.
std::optional<DatabaseName> ParseDatabaseName(const std::string& Text, std::string* pReason);

struct SegmentFile {
  std::uint32_t nNumber;
  std::uint64_t nEvents;
};

struct DatabaseFiles {
  std::uint32_t nEventSize = 0;
  std::vector<SegmentFile> Segments;  // oldest first
};

class StoreFiles {
 public:
  explicit StoreFiles(std::filesystem::path Folder) : m_Folder(std::move(Folder)) {}

  const std::filesystem::path& Folder() const { return m_Folder; }
  bool Exists() const;    // whether there is a store
  bool IsFolder() const;  // whether there is at least its folder
  bool IsHeldByAnotherProcess() const;

  // Whether the database has a "segments.dat".
  bool Has(const DatabaseName& Database) const;

  // Reads the header of a database that is there, and lists its segments; nothing when the header is damaged.
  std::optional<DatabaseFiles> Read(const DatabaseName& Database) const;

  // Whether its folder holds events, and no header that leads to a segment: opening it would start it anew.
  bool HasLostEvents(const DatabaseName& Database) const;

  // A named database that the store cannot tell from this one, of another name; nothing when there is none.
  std::optional<DatabaseName> Namesake(const DatabaseName& Database) const;

  // Every database of the store, the numbered ones first. A folder that we may not look into could be one, and counts.
  std::vector<DatabaseName> Databases() const;

  // The database with an id, by the index of names; nothing when there is none.
  std::optional<DatabaseName> DatabaseOfNumber(std::uint32_t nId) const;

  // Whether the database has an id already: every numbered one, and the named ones that are in the index.
  bool HasId(const DatabaseName& Database) const;

  // How many names of databases have been given away, of kMaxIndexNames.
  std::uint32_t NameCount() const;

  // The names of files that clearing the database would delete, though they are none of a store's.
  std::vector<std::string> ForeignFiles(const DatabaseName& Database) const;

  // Bytes in all folders "set-aside" of the store, those left out that are not for us; deletes them.
  std::uint64_t SetAsideSize() const;
  void DiscardSetAside() const;

  // Whether damaged data was met at some time, as the index of names has it.
  bool IsMarkedCorrupted() const;

  // Whether the names or data of the shared objects have CRCs, whether their id records do, and how many there are.
  bool SharedObjectsHaveCrcs() const;
  bool SharedRecordsHaveCrcs() const;
  std::uint64_t SharedObjectCount() const;

  // Whether the id records of the shared objects can be read by their group.
  bool GroupMayReadShared() const;

  // Bytes of one of the store's own files, and of all files of a database; 0 when there are none.
  std::uint64_t SizeOf(const char16_t* pName) const;
  std::uint64_t SizeOf(const DatabaseName& Database) const;

 private:
  std::vector<std::filesystem::path> SetAsideFolders() const;
  std::vector<std::string> IndexedKeys() const;
  std::string ReadBlock(const char16_t* pName, std::uint64_t nBlock) const;

  std::filesystem::path m_Folder;
};

}  // namespace lumbra::tool
