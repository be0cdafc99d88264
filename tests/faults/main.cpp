// The fault programme: lumbra_faults [--seed N] [--long] [--only CASE] [KIND ...]
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <random>
#include <string>

#include "faults/findings.h"
#include "faults/kinds.h"

namespace lumbra::test {
namespace {

namespace fs = std::filesystem;

struct Kind {
  const char* pName;
  void (*pRun)(const Choice& Which);
};
constexpr Kind kKinds[] = {{"canary", &RunCanary},   {"calls", &RunCalls}, {"allocations", &RunAllocations},
                           {"moments", &RunMoments}, {"bits", &RunBits},   {"threads", &RunThreads},
                           {"kills", &RunKills}};

// Seeds that once found something, and are run always.
struct KeptSeed {
  const char* pKind;
  std::uint64_t nSeed;
};
constexpr KeptSeed kKeptSeeds[] = {{"moments", 1}};

const Kind* KindOf(const std::string& Name) {
  const Kind* const pFound = std::ranges::find_if(kKinds, [&](const Kind& One) { return Name == One.pName; });
  return pFound == std::end(kKinds) ? nullptr : pFound;
}

int Run(int nArguments, char** ppArguments) {
  Choice Which;
  Which.nSeed = std::random_device()() % 100000;
  std::vector<const Kind*> Kinds;
  for (int i = 1; i < nArguments; ++i) {
    const std::string Text = ppArguments[i];
    const bool bNumber = Text == "--seed" || Text == "--only";
    if (Text == "--long") {
      Which.bLong = true;
    } else if (bNumber && i + 1 < nArguments) {
      const std::uint64_t nValue = std::strtoull(ppArguments[++i], nullptr, 0);
      if (Text == "--seed") Which.nSeed = nValue;
      if (Text == "--only") Which.nOnly = nValue;
    } else if (KindOf(Text) != nullptr) {
      Kinds.push_back(KindOf(Text));
    } else {
      std::fprintf(stderr, "usage: lumbra_faults [--seed N] [--long] [--only CASE] [KIND ...]; kinds:");
      for (const Kind& One : kKinds) std::fprintf(stderr, " %s", One.pName);
      std::fprintf(stderr, "\n");
      return 2;
    }
  }
  if (Kinds.empty()) {
    for (const Kind& One : kKinds) Kinds.push_back(&One);
  }
  std::printf("seed %llu\n", static_cast<unsigned long long>(Which.nSeed));
  Which.Folder = fs::canonical(fs::temp_directory_path()) / ("lumbra-faults-" + std::to_string(getpid()));
  for (const Kind* const pKind : Kinds) {
    const std::clock_t nBegun = std::clock();
    pKind->pRun(Which);
    for (const KeptSeed& Kept : kKeptSeeds) {
      const bool bAgain = std::strcmp(Kept.pKind, pKind->pName) == 0 && !Which.nOnly && Kept.nSeed != Which.nSeed;
      Choice Again = Which;
      Again.nSeed = Kept.nSeed;
      Again.bLong = false;
      if (bAgain) pKind->pRun(Again);
    }
    std::printf("  %.1f s\n", static_cast<double>(std::clock() - nBegun) / CLOCKS_PER_SEC);
    std::fflush(stdout);
  }
  fs::remove_all(Which.Folder);
  std::printf("%llu found\n", static_cast<unsigned long long>(Findings()));
  return Findings() == 0 ? 0 : 1;
}

}  // namespace

std::vector<std::uint64_t> Choice::Cases(std::uint64_t nAll, std::uint64_t nWanted) const {
  if (nOnly) return {*nOnly};
  std::vector<std::uint64_t> Numbers(nAll);
  for (std::uint64_t i = 0; i < nAll; ++i) Numbers[i] = i;
  if (bLong || nAll <= nWanted) return Numbers;
  std::vector<std::uint64_t> Some;
  std::ranges::sample(Numbers, std::back_inserter(Some), static_cast<std::ptrdiff_t>(nWanted), std::mt19937_64(nSeed));
  return Some;
}

void Choice::Start(const std::string& Kind, std::uint64_t nCase) const {
  const std::string Only = nCase == UINT64_MAX ? "" : " --only " + std::to_string(nCase);
  StartCase(Kind + " --seed " + std::to_string(nSeed) + Only);
}

fs::path Choice::Fresh(const char* pName) const {
  fs::remove_all(Folder / pName);
  fs::create_directories(Folder / pName);
  return Folder / pName;
}

}  // namespace lumbra::test

int main(int nArguments, char** ppArguments) {
  return lumbra::test::Run(nArguments, ppArguments);
}
