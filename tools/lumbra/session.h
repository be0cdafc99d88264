// An open store, as the commands use it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "host/standalone_host.h"
#include "store_files.h"

namespace lumbra::tool {

// The options that every command has.
struct CommonOptions {
  std::string Store = "./lumbra-store";
  bool bCheckMode = false;
  std::string Host;
  std::uint32_t nTraceLevel = 0;
};

// The limits of scan and record, in the units of the interface; those that are not given are left alone.
struct LimitOptions {
  std::optional<std::uint64_t> SegmentEvents;
  std::optional<std::uint64_t> SegmentSize;
  std::optional<std::uint64_t> SegmentAge;
  std::optional<std::uint64_t> MaxEvents;
  std::optional<std::uint64_t> MaxSize;
  std::optional<std::uint64_t> MaxAge;
  std::optional<std::uint64_t> GlobalSize;
};

// The tool's own event.
struct Event {
  std::uint64_t nTime;    //  0: FILETIME
  std::uint64_t nObject;  //  8: the object that it is about
  std::uint64_t nValue;   // 16
  std::uint32_t nKind;    // 24
  std::uint32_t nZero;    // 28
};
static_assert(sizeof(Event) == 32);

struct ObjectName {
  std::uint32_t nType;
  std::string Name;  // UTF-8
};

enum class Missing { Create, Refuse };

class Session {
 public:
  // Opens the store, or throws a Failure. Missing::Refuse: a store that is not there is one.
  Session(const CommonOptions& Options, Missing Store);

  const StoreFiles& Files() const { return m_Files; }

  // Opens a database with the event size that it has, a new one with the size of Event. Answers its id.
  std::uint32_t OpenDatabase(const DatabaseName& Database, Missing IfMissing);

  // The same for a command that works with the tool's own events; throws a Failure for a database of others.
  std::uint32_t OpenEventDatabase(const DatabaseName& Database, Missing IfMissing);

  void SetLimits(std::uint32_t nDatabase, const LimitOptions& Limits);

  // The name and type of an object; nothing when it is not there any more.
  std::optional<ObjectName> NameOf(std::uint64_t nObject);

  bool IsCorrupted() const;

  // Calls one of the 19 operations.
  template <class... Parameters>
  ResultCode Call(ResultCode (*LumbraOperations::*pOperation)(HostObject*, Parameters...),
                  std::type_identity_t<Parameters>... Arguments) const {
    return m_Store.Call(pOperation, Arguments...);
  }

 private:
  StoreFiles m_Files;
  host::StandaloneHost m_Host;
  host::Store m_Store;
};

}  // namespace lumbra::tool
