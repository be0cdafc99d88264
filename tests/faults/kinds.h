// The kinds of disturbances. Each runs its cases, prints what they came to in one line, and tells what it finds.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace lumbra::test {

struct Choice {
  std::uint64_t nSeed = 1;
  bool bLong = false;                       // all cases there are
  std::optional<std::uint64_t> nOnly = {};  // one case, by its number
  std::filesystem::path Folder = {};        // to work in

  // The numbers of the cases to run: of nAll some nWanted, which the seed decides, in their order.
  std::vector<std::uint64_t> Cases(std::uint64_t nAll, std::uint64_t nWanted) const;
  // Names a case, as what reproduces it.
  void Start(const std::string& Kind, std::uint64_t nCase) const;
  std::filesystem::path Fresh(const char* pName) const;  // an empty folder
};

void RunCalls(const Choice& Which);        // each system call fails, once and for good
void RunAllocations(const Choice& Which);  // each allocation
void RunMoments(const Choice& Which);      // the process or the power ends at each moment
void RunBits(const Choice& Which);         // each bit of a small checked store is another one
void RunThreads(const Choice& Which);      // eight threads do everything at once
void RunKills(const Choice& Which);        // a recorder is killed, again and again
void RunCanary(const Choice& Which);       // planted faults: the programme fails unless each is reported

}  // namespace lumbra::test
