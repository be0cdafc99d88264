// The tool's commands. Each answers the exit status, and throws a Failure when it cannot go on.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "schema.h"
#include "session.h"

namespace lumbra::tool {

inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 2;
inline constexpr int kExitIncomplete = 3;  // it was read, and something was damaged or missing
inline constexpr int kExitUnsettled = 4;   // it still contradicts itself, and somebody has the store
inline constexpr int kExitCursorInvalid = 10;
inline constexpr int kExitCursorGone = 12;  // what it points to was dropped or cleared
inline constexpr int kExitInterrupted = 130;

// ---- Events -----------------------------------------------------------------------------------------------

struct ScanOptions {
  DatabaseName Database;
  std::vector<std::string> Paths;
  LimitOptions Limits;
};
int Scan(const CommonOptions& Common, const ScanOptions& Options);

struct RecordOptions {
  DatabaseName Database;
  std::string File;  // empty: standard input
  LimitOptions Limits;
};
int Record(const CommonOptions& Common, const RecordOptions& Options);

enum class OutputForm { Table, Json, Csv };
enum class OnGap { Error, Earliest, Latest };

// What an event must be to be shown.
struct EventFilterOptions {
  std::vector<std::uint64_t> Kinds;  // empty: any
  std::vector<std::uint64_t> NotKinds;
  std::optional<std::uint64_t> Object;
  std::string Since;  // moments; empty: any
  std::string Until;
  std::vector<std::string> Names;  // patterns
  std::vector<std::string> NotNames;
  std::string Under;  // empty: any path

  bool operator==(const EventFilterOptions&) const = default;
};

struct EventsOptions {
  DatabaseName Database;
  // Where to begin, and where to end.
  std::optional<std::uint64_t> Lines;  // the newest
  std::optional<std::uint64_t> From;   // an event id
  std::optional<std::uint64_t> Count;
  bool bReverse = false;
  bool bFollow = false;
  bool bJustOne = false;
  std::optional<std::string> Cursor;       // from the event on that was looked at last
  std::optional<std::string> AfterCursor;  // from the next one on
  std::string CursorFile;
  OnGap IfGone = OnGap::Earliest;
  EventFilterOptions Filter;
  // How they are shown.
  OutputForm Form = OutputForm::Table;
  std::vector<std::string> Fields;  // empty: the usual ones
  std::optional<Schema> Layout;
  bool bParents = false;
  bool bShowCursor = false;
  bool bNumbers = false;
  bool bUtc = false;
  bool bQuiet = false;
  bool bCountOnly = false;
};
int Events(const CommonOptions& Common, const EventsOptions& Options);

// With a module or a trace, for which there are the options of old: the newest, from, count, parents, table or JSON.
int EventsThroughComponent(const CommonOptions& Common, const EventsOptions& Options);

struct SchemaOptions {
  DatabaseName Database;
  std::optional<std::string> Text;  // to be kept
};
int ShowOrKeepSchema(const CommonOptions& Common, const SchemaOptions& Options);

// ---- Objects ----------------------------------------------------------------------------------------------

struct FindOptions {
  DatabaseName Database;  // also 0, the shared objects
  std::uint32_t nType = typeFile;
  std::uint64_t nParent = 0;  // an object id; 0 for none
  bool bCreate = false;
  bool bEscaped = false;  // the names are written as the tool shows them
  std::vector<std::string> Names;
};
int Find(const CommonOptions& Common, const FindOptions& Options);

struct NameOptions {
  std::vector<std::uint64_t> Ids;
};
int Name(const CommonOptions& Common, const NameOptions& Options);

struct ObjectsOptions {
  std::optional<DatabaseName> Database;  // also 0, the shared objects; none: all of the store
  std::string Under;                     // a path; empty: every object
  bool bTree = false;
  bool bData = false;
  bool bJson = false;
};
int ListObjects(const CommonOptions& Common, const ObjectsOptions& Options);

struct LinkOptions {
  std::uint64_t nId = 0;
  std::uint64_t nTarget = 0;
};
int Link(const CommonOptions& Common, const LinkOptions& Options);

struct DataOptions {
  std::uint64_t nId = 0;
  std::uint32_t nKey = 0;
  std::string File;  // empty: standard output or input
};
int GetData(const CommonOptions& Common, const DataOptions& Options);
int SetData(const CommonOptions& Common, const DataOptions& Options);
int ClearData(const CommonOptions& Common, const DataOptions& Options);

// ---- The store --------------------------------------------------------------------------------------------

struct InfoOptions {
  enum class Form { Table, Json, Prometheus };
  Form Output = Form::Table;
  bool bSegments = false;
  bool bTimes = false;
};
int Info(const CommonOptions& Common, const InfoOptions& Options);

struct BackupOptions {
  std::string Folder;
};
int Backup(const CommonOptions& Common, const BackupOptions& Options);
int VerifyManifest(const CommonOptions& Common);

struct ModuleOptions {
  std::string File;
};
int Module(const CommonOptions& Common, const ModuleOptions& Options);

struct NoOptions {};
int ListDatabases(const CommonOptions& Common, const NoOptions& Options);
int CheckStore(const CommonOptions& Common, const NoOptions& Options);
struct CompactOptions {
  bool bReplace = false;
  bool bLossy = false;
};
int Compact(const CommonOptions& Common, const CompactOptions& Options);

struct RepairOptions {
  bool bYes = false;
  bool bStartEmpty = false;
  bool bDiscard = false;
  std::string Undo;  // the time of what is to be taken back; empty: nothing
};
int Repair(const CommonOptions& Common, const RepairOptions& Options);

struct VerifyOptions {
  std::optional<DatabaseName> Database;  // none: all of the store
  bool bJson = false;
  bool bManifest = false;  // of a backup
};
int Verify(const CommonOptions& Common, const VerifyOptions& Options);

struct DumpOptions {
  std::string File;
};
int Dump(const CommonOptions& Common, const DumpOptions& Options);

struct ClearOptions {
  DatabaseName Database;
  bool bYes = false;
  bool bForce = false;
};
int Clear(const CommonOptions& Common, const ClearOptions& Options);

}  // namespace lumbra::tool
