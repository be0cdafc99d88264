#include "faults/findings.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>

extern "C" void __sanitizer_set_death_callback(void (*pCallback)()) __attribute__((weak));

namespace lumbra::test {
namespace {

constexpr unsigned kSecondsPerCase = 60;
constexpr std::uint64_t kPrintedPerCase = 3;

char g_Case[200];
std::atomic<std::uint64_t> g_nFindings{0};
std::atomic<std::uint64_t> g_nInCase{0};
std::atomic<std::uint64_t> g_nPlanted{0};
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

}  // namespace

void StartCase(const std::string& What) {
  std::snprintf(g_Case, sizeof(g_Case), "%s", What.c_str());
  g_nInCase = 0;
  if (__sanitizer_set_death_callback != nullptr) __sanitizer_set_death_callback(&TellCase);
  for (const int nSignal : {SIGALRM, SIGABRT}) signal(nSignal, &EndCase);
  if (__sanitizer_set_death_callback == nullptr) signal(SIGSEGV, &EndCase);
  alarm(kSecondsPerCase);
}

void Found(const std::string& What) {
  if (g_bPlanted) {
    ++g_nPlanted;
    return;
  }
  ++g_nFindings;
  if (++g_nInCase > kPrintedPerCase) return;  // more of the same, as a rule
  std::printf("FOUND %s: %s\n", g_Case, What.c_str());
  std::fflush(stdout);
}

std::uint64_t Findings() {
  return g_nFindings;
}

PlantedFault::PlantedFault() {
  g_nPlanted = 0;
  g_bPlanted = true;
}
PlantedFault::~PlantedFault() {
  g_bPlanted = false;
}
std::uint64_t PlantedFault::Reports() const {
  return g_nPlanted;
}

}  // namespace lumbra::test
