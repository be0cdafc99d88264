// What those who read a store say of what they find wrong with it.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace lumbra::inspect {

enum class Grade {
  Damage,     // bytes that were read contradict the format, or each other
  Leftover,   // what a killed process leaves behind: it takes room, and nothing is lost by it
  Unsettled,  // a contradiction that stays while somebody has the store, who may be about to finish what he writes
};

struct Finding {
  Grade Of;
  std::u16string File;        // within the store, with '/' between the names
  std::uint64_t nOffset = 0;  // bytes from its start
  std::string What;           // a sentence without a full stop
  std::string Expected;       // both empty where there is nothing to compare
  std::string Found;
};

using Report = std::function<void(const Finding&)>;

// Told now and then how far something has come, of a total in the same unit, 0 where that is not known. False ends it.
using Progress = std::function<bool(std::uint64_t nDone, std::uint64_t nTotal)>;

}  // namespace lumbra::inspect
