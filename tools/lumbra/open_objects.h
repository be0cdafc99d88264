// The object stores of a store, as the commands find them that read: the shared one, and those of segments.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "inspect/horizon.h"
#include "inspect/objects.h"
#include "inspect/paths.h"
#include "inspect/store.h"
#include "reading.h"
#include "session.h"

namespace lumbra::tool {

// An object store that is open. Its objects have ids from nBase + 1 on.
struct OpenObjects {
  std::uint64_t nBase = 0;
  inspect::ObjectsOrigin Life;
  inspect::Horizon Seen;  // of that segment alone, where it was listed
  std::unique_ptr<inspect::Objects> pObjects;
};

class ObjectStores {
 public:
  // The store outlives it; what cannot be opened is told as a finding.
  ObjectStores(const inspect::Store& Of, const CommonOptions& Common, Findings* pFindings);

  // Those of a database, the newest segment first, or the shared one for the database 0; throws a Failure where there
  // is no such database, or it has no id. They are opened by Open, one at a time.
  std::vector<OpenObjects> List(const DatabaseName& Database);
  std::vector<OpenObjects> List(const inspect::Database& Database);

  // The one that an id leads to; throws a Failure where there is no such database.
  OpenObjects StoreOf(std::uint64_t nId);

  // False where it is not there, or cannot be read, which is told.
  bool Open(OpenObjects* pWhich);

  // The object that kHostObjectAlias stands for; 0 where none has the host's name.
  std::uint64_t HostObject();

 private:
  const inspect::Store& m_Store;
  const std::string m_Host;
  Findings* const m_pFindings;
  inspect::BlockCache m_Cache;
  std::optional<std::uint64_t> m_nHostObject;
};

// A line for what could not be read.
std::string DescribeStoreOf(std::uint64_t nId);

}  // namespace lumbra::tool
