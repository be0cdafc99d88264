// lumbra_faults [--seed N] [--long] [--heal] [--cache KIB] [--only CASE] [KIND ...]
//   --heal: every store is healed before it is opened
//   --cache KIB: what stores keep in memory of their files; 16384 otherwise
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <random>

#include "faults/programme.h"

extern "C" void __sanitizer_set_death_callback(void (*pCallback)()) __attribute__((weak));

namespace lumbra::test {
namespace {

namespace fs = std::filesystem;

struct Kind {
  const char* pName;
  std::string (*pRun)(const Choice& Which);
  std::vector<std::uint64_t> KeptSeeds = {};  // that once found something, and are run always
};
const Kind kKinds[] = {{"canary", &RunCanary},            // planted faults: each must be found
                       {"calls", &RunCalls},              // each system call fails, once and for good
                       {"allocations", &RunAllocations},  // each allocation
                       {"moments", &RunMoments, {1}},     // the process or the power ends at each moment
                       {"bits", &RunBits},                // each bit of a small checked store is another one
                       {"threads", &RunThreads},          // eight threads do everything at once
                       {"heals", &RunHeals},              // each file is lost, cut or altered, and healed
                       {"kills", &RunKills}};             // a recorder is killed, again and again

constexpr std::uint64_t kPrintedPerCase = 3;
char g_Case[200];  // a signal prints it
std::atomic<std::uint64_t> g_nFindings{0};
std::atomic<std::uint64_t> g_nInCase{0};
std::atomic<bool> g_bPlanted{false};

void TellCase() {
  for (const char* const pText :
       {"\nFOUND ", static_cast<const char*>(g_Case), ": it crashed, or took more than a minute\n"}) {
    if (write(STDOUT_FILENO, pText, std::strlen(pText)) < 0) return;
  }
}
void EndCase(int nSignal) {
  TellCase();
  signal(nSignal, SIG_DFL);
  raise(nSignal);
}

int Main(int nArguments, char** ppArguments) {
  Choice Which;
  Which.nSeed = std::random_device()() % 100000;
  std::vector<Kind> Kinds;
  for (int i = 1; i < nArguments; ++i) {
    const std::string Text = ppArguments[i];
    const Kind* const pKind = std::ranges::find(kKinds, Text, &Kind::pName);
    const char* const pValue = i + 1 < nArguments ? ppArguments[i + 1] : nullptr;
    if (pKind != std::end(kKinds)) {
      Kinds.push_back(*pKind);
    } else if (Text == "--long") {
      Which.bLong = true;
    } else if (Text == "--heal") {
      Which.What = host::Heal::On;
    } else if ((Text == "--seed" || Text == "--only" || Text == "--cache") && pValue != nullptr) {
      const std::uint64_t nValue = std::strtoull(ppArguments[++i], nullptr, 0);
      if (Text == "--seed") Which.nSeed = nValue;
      if (Text == "--only") Which.nOnly = nValue;
      if (Text == "--cache") Which.nCacheSize = static_cast<std::uint32_t>(nValue);
    } else {
      std::fprintf(stderr,
                   "usage: lumbra_faults [--seed N] [--long] [--heal] [--cache KIB] [--only CASE] [KIND ...]; kinds:");
      for (const Kind& One : kKinds) std::fprintf(stderr, " %s", One.pName);
      std::fprintf(stderr, "\n");
      return 2;
    }
  }
  if (Kinds.empty()) std::ranges::copy(kKinds, std::back_inserter(Kinds));
  Which.Folder = fs::canonical(fs::temp_directory_path()) / ("lumbra-faults-" + std::to_string(getpid()));
  for (const Kind& One : Kinds) {
    std::vector<std::uint64_t> Seeds = {Which.nSeed};
    if (!Which.nOnly) std::ranges::remove_copy(One.KeptSeeds, std::back_inserter(Seeds), Which.nSeed);
    for (const std::uint64_t nSeed : Seeds) {
      const std::string Counts = One.pRun(
          {nSeed, Which.bLong && nSeed == Which.nSeed, Which.What, Which.nCacheSize, Which.nOnly, Which.Folder});
      std::printf("%s --seed %llu: %s\n", One.pName, static_cast<unsigned long long>(nSeed), Counts.c_str());
      std::fflush(stdout);
    }
  }
  fs::remove_all(Which.Folder);
  std::printf("%llu found\n", static_cast<unsigned long long>(g_nFindings));
  return g_nFindings == 0 ? 0 : 1;
}

}  // namespace

void Found(const std::string& What) {
  ++g_nFindings;
  if (++g_nInCase > kPrintedPerCase || g_bPlanted) return;  // more of the same, as a rule
  std::printf("FOUND %s: %s\n", g_Case, What.c_str());
  std::fflush(stdout);
}

bool IsFound(const std::function<void()>& Planted) {
  const std::uint64_t nBefore = g_nFindings;
  g_bPlanted = true;
  Planted();
  g_bPlanted = false;
  return g_nFindings.exchange(nBefore) != nBefore;
}

Record MakeStore(const Choice& Which, const fs::path& Folder, bool bChecked, int nSteps) {
  ResetSystem();
  Driver Work(Which.With(Folder, bChecked));
  if (!Work.Open()) Found("it does not open");
  for (int i = 0; i < nSteps; ++i) Work.Step();
  Work.Close();
  return Work.Known();
}

std::vector<std::uint64_t> Choice::Cases(std::uint64_t nAll, std::uint64_t nWanted) const {
  if (nOnly) return {*nOnly};
  const Source Chance = SourceOf(nSeed);
  std::vector<std::uint64_t> Numbers;
  for (std::uint64_t i = 0; i < nAll; ++i) {
    if (bLong || Chance(nAll) < nWanted) Numbers.push_back(i);
  }
  return Numbers;
}

void Choice::Start(const std::string& Kind, std::uint64_t nCase) const {
  const std::string Only = nCase == kNoCase ? "" : " --only " + std::to_string(nCase);
  std::snprintf(g_Case, sizeof(g_Case), "%s --seed %llu%s", Kind.c_str(), static_cast<unsigned long long>(nSeed),
                Only.c_str());
  g_nInCase = 0;
  const bool bSanitized = __sanitizer_set_death_callback != nullptr;
  if (bSanitized) __sanitizer_set_death_callback(&TellCase);
  for (const int nSignal : {SIGALRM, SIGABRT}) signal(nSignal, &EndCase);
  if (!bSanitized) signal(SIGSEGV, &EndCase);
  alarm(60);
}

fs::path Choice::Fresh(const char* pName) const {
  fs::remove_all(Folder / pName);
  fs::create_directories(Folder / pName);
  return Folder / pName;
}

Driver::Setup Choice::With(const fs::path& Store, bool bChecked, std::uint64_t nSerials) const {
  Driver::Setup Made{.Folder = Store,
                     .bChecked = bChecked,
                     .nSeed = nSeed + nSerials,
                     .What = What,
                     .nCacheSize = nCacheSize,
                     .pPause = &PauseFaults};
  if (std::getenv("LUMBRA_FAULTS_TRACE") != nullptr) {
    Made.Trace = [](std::uint32_t nLevel, std::string_view Line) {
      host::WriteTraceLine(stderr, nLevel, Line);
    };
  }
  return Made;
}

}  // namespace lumbra::test

int main(int nArguments, char** ppArguments) {
  return lumbra::test::Main(nArguments, ppArguments);
}
