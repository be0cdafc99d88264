// From names to the ids of objects, by a pass over the records of a store: what the tree does not reach is found, too.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "format/object_id.h"
#include "inspect/objects.h"
#include "lumbra/result_code.h"

namespace lumbra::inspect {

// A name as FindObject takes it.
struct SoughtName {
  std::uint8_t nType;
  std::uint32_t nFlagsOverride;
  std::u16string Name;
};

// errUNSPECIFIED for a path without any component.
ResultCode CheckName(const SoughtName& Sought, bool bBelowParent);

struct FoundName {
  tObjectId nId = 0;       // without a database; 0 where there is no such object
  bool bConfirmed = true;  // its name was read: where that is damaged, the hash alone tells
};

struct FoundNames {
  std::vector<FoundName> Names;   // in the order in which they were asked for
  std::uint32_t nUnreadable = 0;  // records: what was not found may be among them
};

// Looks for names in an object store that is open, whose number is that of its segment, or 0, below one of its objects,
// or from their roots on; a root that is linked leads on to where it links to. Of objects with one name the newest
// counts, as it does for the tree.
FoundNames FindNames(Objects* pIn, std::uint32_t nNumber, std::uint32_t nParentShortId,
                     std::span<const SoughtName> Sought);

}  // namespace lumbra::inspect
