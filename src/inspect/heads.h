// The first bytes of each file of a store, which say what it is: read without the rest, however many segments there
// are.
#pragma once

#include "inspect/finding.h"
#include "inspect/horizon.h"
#include "inspect/store.h"

namespace lumbra::inspect {

// Reports files that are missing, short, or do not say what their names do: of the shared objects and the index of
// names, and of the segments of a horizon. What is being made or dropped meanwhile is given time to settle.
void CheckSharedHeads(const Store& Of, const Report& Tell);
void CheckHeads(const Store& Of, const Database& What, const Horizon& At, const Report& Tell);

}  // namespace lumbra::inspect
