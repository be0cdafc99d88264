// An open store, as the commands use it.
#pragma once

#include <cstdint>
#include <functional>
#include <iterator>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "host/loaded_module.h"
#include "host/standalone_host.h"
#include "store_files.h"

namespace lumbra::tool {

// The options that every command has.
struct CommonOptions {
  std::string Store = "./lumbra-store";
  bool bStoreGiven = false;  // by the user, and not the one above
  bool bTrustStore = false;
  bool bCheckMode = false;
  bool bGroupReadable = false;
  std::uint32_t nCacheSize = 16384;  // KiB
  std::string Host;
  std::string Module;  // the file of the module that runs the command; empty: the component that is linked in
  std::uint32_t nTraceLevel = 0;
  std::uint32_t nWait = 0;  // seconds for another process to let go of the store
};

// The limits of scan and record, in the order of kLimits; those that are not given are left alone.
struct LimitOptions {
  std::optional<std::uint64_t> Values[std::size(kLimits)];
};

// Gives a limit of a database that comes without any limit of its segments of the same kind a sixteenth of it for
// those, since only whole segments are dropped, and says so on stderr. Of the limit of all databases the one that is
// recorded into gets that where its segments have no limit at all.
LimitOptions WithSegmentLimits(LimitOptions Limits);

// The tool's own event.
struct Event {
  std::uint64_t nTime;    //  0: FILETIME
  std::uint64_t nObject;  //  8: the object that it is about
  std::uint64_t nValue;   // 16
  std::uint32_t nKind;    // 24
  std::uint32_t nZero;    // 28
};
static_assert(sizeof(Event) == 32);

// The longest name that the tool takes or shows, in UTF-16 units: the longest path of Windows. A store can hold longer
// ones, of any number of components, which would cost whoever looks at them as much.
inline constexpr std::size_t kMaxNameUnits = 32767;
inline constexpr char kNameTooLong[] = "(name too long)";
inline constexpr char kAboutNothing[] = "-";
inline constexpr char kNameGone[] = "(its name is gone)";
inline constexpr char kNameUnreadable[] = "(its name cannot be read)";

struct ObjectName {
  std::uint32_t nType;
  std::string Name;  // UTF-8, or the bytes of a file's name that is none
};

// The files of the store that the options name; throws a Failure for a folder that cannot be one.
StoreFiles FilesOf(const CommonOptions& Options);

// What holds for the folders that the tool opens itself.
os::FolderRules RulesOf(const CommonOptions& Options);

// The options with the check mode of the store's shared objects, and with their readers: for commands whose new files
// must be of the same kind.
CommonOptions InModeOfStore(const CommonOptions& Options);

enum class Missing { Create, Refuse };

// Told what the store traces about failures and damage, without the "lmb\t" in front.
using DamageListener = std::function<void(std::string_view Line)>;

class Session {
 public:
  // Opens the store, or throws a Failure. Missing::Refuse: a store that is not there is one.
  Session(const CommonOptions& Options, Missing Store, DamageListener Listener = {});

  const StoreFiles& Files() const { return m_Files; }

  // Opens a database with the event size that it has, a new one with the size of Event. Answers its id.
  std::uint32_t OpenDatabase(const DatabaseName& Database, Missing IfMissing);

  // The same for a command that works with the tool's own events; throws a Failure for a database of others.
  std::uint32_t OpenEventDatabase(const DatabaseName& Database, Missing IfMissing);

  // The same for one that is there and will be cleared: its header may be missing or damaged, and is made anew.
  std::uint32_t OpenDatabaseToClear(const DatabaseName& Database);

  // Opens the database that an object id names.
  void OpenDatabaseOf(std::uint64_t nObject);

  void SetLimits(std::uint32_t nDatabase, const LimitOptions& Limits);

  // Finds an object by name, or (with bCreate) creates it, clearing away damage that stands in the way. errSIZE_INVALID
  // for a name of more than kMaxNameUnits.
  ResultCode FindObject(std::uint32_t nDatabase, std::uint32_t nType, const std::string& Name, bool bCreate,
                        std::uint64_t nParent, std::uint64_t* pnObject);

  // The name and type of an object. Its database must be open. errSIZE_INVALID, with the type alone, for a name of more
  // than kMaxNameUnits.
  ResultCode ReadName(std::uint64_t nObject, ObjectName* pName);

  bool IsCorrupted() const;

  // The exit status of a command that reads: where something was healed or found, it was damaged or missing.
  int StatusOfReading(int nStatus) const;

  // Brings what was written to the disk, or throws a Failure. The last step of every command that writes.
  void Flush();

  // The same for a command that a failure ends: that is the one to be told, whatever becomes of the flush.
  void TryToFlush() { (void)m_Host.SendFlush(); }

  // Calls one of the 19 operations.
  template <class... Parameters>
  ResultCode Call(ResultCode (*LumbraOperations::*pOperation)(HostObject*, Parameters...),
                  std::type_identity_t<Parameters>... Arguments) const {
    return m_Store.Call(pOperation, Arguments...);
  }

 private:
  ResultCode Init();
  ResultCode InitWhenFree(std::uint32_t nWait, const std::string& What);
  std::uint32_t OpenWhatIsThere(const DatabaseName& Database);
  void Announce(const DatabaseName& Database, bool bNewName) const;
  void Trace(std::uint32_t nLevel, DamageListener Listener);

  StoreFiles m_Files;
  host::LoadedModule m_Module;
  host::StandaloneHost m_Host;
  host::Store m_Store;
  bool m_bDamaged = false;         // something was healed, or found and left
  std::set<std::uint32_t> m_Open;  // the numbered databases that are open
};

}  // namespace lumbra::tool
