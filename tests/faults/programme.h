// The fault programme: kinds of disturbances, and the cases that they run.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "faults/driver.h"
#include "support/system_calls.h"

namespace lumbra::test {

inline constexpr std::uint64_t kOtherSerials = 1000000;  // added to the seed of what is added later
inline constexpr std::uint64_t kNoCase = UINT64_MAX;

struct Choice {
  std::uint64_t nSeed = 1;
  bool bLong = false;                       // all cases there are
  host::Heal What = host::Heal::Off;        // before a store is opened
  std::uint32_t nCacheSize = 16384;         // propCACHE_SIZE of the store
  std::optional<std::uint64_t> nOnly = {};  // one case, by its number
  std::filesystem::path Folder = {};        // to work in

  // The numbers of the cases to run: of nAll about nWanted, which the seed decides, in their order.
  std::vector<std::uint64_t> Cases(std::uint64_t nAll, std::uint64_t nWanted) const;
  // Names the case that is under way, and gives it a minute. A case that takes longer, or crashes, is told with what
  // reproduces it, and ends the programme.
  void Start(const std::string& Kind, std::uint64_t nCase) const;
  std::filesystem::path Fresh(const char* pName) const;  // an empty folder
  // What a driver is given whose faults are those of the boundary.
  Driver::Setup With(const std::filesystem::path& Store, bool bChecked, std::uint64_t nSerials = 0) const;
};

// Works for so many steps on a fresh store, undisturbed; what it promises then.
Record MakeStore(const Choice& Which, const std::filesystem::path& Folder, bool bChecked, int nSteps);

// Each runs its cases, tells what it finds, and returns its counts in one line.
std::string RunCalls(const Choice& Which);
std::string RunAllocations(const Choice& Which);
std::string RunMoments(const Choice& Which);
std::string RunBits(const Choice& Which);
std::string RunThreads(const Choice& Which);
std::string RunKills(const Choice& Which);
std::string RunHeals(const Choice& Which);
std::string RunCanary(const Choice& Which);

// Runs what must be found, and answers whether anything was: that is none of the programme's findings.
bool IsFound(const std::function<void()>& Planted);

}  // namespace lumbra::test
