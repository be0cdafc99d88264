// What "set-aside" holds: what was done to a store, and when.
#pragma once

#include <string>
#include <vector>

#include "lumbra/result_code.h"
#include "salvage/plan.h"

namespace lumbra::salvage {

struct Healing {
  std::string Time;         // as Undo takes it
  std::vector<Step> Steps;  // in all folders of the store, but for those in which it was taken back
  bool bTakenBack = false;  // in one of them
};

// Oldest first. Folders that are not for us are left out.
ResultCode ListHealings(const std::u16string& Store, std::vector<Healing>* pFound);

}  // namespace lumbra::salvage
