// Looks for lost and damaged files of a store that cost more than themselves when the component meets them: it would
// start a database anew, empty a file, discard a segment or forget names. Reads a few bytes of each file, and changes
// nothing.
#pragma once

#include <string>

#include "lumbra/result_code.h"
#include "platform/os.h"
#include "salvage/plan.h"

namespace lumbra::salvage {

// Makes the plan for a whole store, by its folder; an empty one where there is none. After a failure of the system,
// from which nothing is known of the files, the plan has no steps, and its refusal names the file.
ResultCode Look(const std::u16string& Store, const Wishes& Wanted, Plan* pPlan);

// The same of a folder that is open.
ResultCode Look(const os::FolderHandle& pStore, const Wishes& Wanted, Plan* pPlan);

struct EventSize {
  std::uint32_t nBytes = 0;  // as the header has it; 0 where there is none, or it is damaged
  bool bLost = false;        // there are events, but no header tells their size: the component would begin anew
};

// The size of a database's events. Folder is that of the database, within the store's.
ResultCode LookAtEventSize(const std::u16string& Store, const std::u16string& Folder, EventSize* pFound);

}  // namespace lumbra::salvage
