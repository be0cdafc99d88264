// Reads everything of a store, and says what contradicts the format, or itself.
//
// Beside a writer: sizes are taken first, of events, ids and data in this order, and a tree is read after its ids were
// counted. What contradicts itself is looked at again when kSettleTime is over, once for all that was suspected, and is
// told when it still does: as unsettled where somebody has the store. No more memory is taken than the files have
// bytes, whatever they claim.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "inspect/finding.h"
#include "inspect/store.h"
#include "lumbra/result_code.h"

namespace lumbra::inspect {

struct VerifyRequest {
  std::optional<Database> Only;  // otherwise all of them, the shared objects, and the index of names

  // Where events of this size of a database hold ids of objects: bytes from their start. May be null.
  std::function<std::vector<std::uint32_t>(const Database& Of, std::uint32_t nEventSize)> IdFields;
};

// What was read, and what was told of it.
struct Verified {
  std::uint64_t nFiles = 0;
  std::uint64_t nBytes = 0;
  std::uint64_t nEvents = 0;
  std::uint64_t nObjects = 0;
  std::uint64_t nDamages = 0;
  std::uint64_t nLeftovers = 0;
  std::uint64_t nUnsettled = 0;
  bool bWhole = true;  // false: the progress ended it
};

// A failure when the store cannot be looked at. What cannot be read in it is a finding. Of many findings of one kind in
// a file the first are told one by one, and of the others how many there are. The progress counts bytes.
ResultCode Verify(const Store& Of, const VerifyRequest& What, const Report& Tell, const Progress& Going,
                  Verified* pTotals);

}  // namespace lumbra::inspect
