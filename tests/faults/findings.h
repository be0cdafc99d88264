// What the programme finds, with what reproduces it; and the end of a case that hangs.
#pragma once

#include <cstdint>
#include <string>

namespace lumbra::test {

// Names the case that is under way, and gives it a minute: a case that takes longer, or crashes, is told by its name
// and ends the programme.
void StartCase(const std::string& What);

// Any thread may call it.
void Found(const std::string& What);
std::uint64_t Findings();

// While one lives, findings are counted and not printed, and are none of the programme's: for faults that are planted.
class PlantedFault {
 public:
  PlantedFault();
  ~PlantedFault();
  PlantedFault(const PlantedFault&) = delete;
  PlantedFault& operator=(const PlantedFault&) = delete;
  std::uint64_t Reports() const;
};

}  // namespace lumbra::test
