#include "progress.h"

#include <algorithm>
#include <cstdio>

#include "machine.h"

namespace lumbra::tool {
namespace {

constexpr std::chrono::milliseconds kBetween{200};

// "1:02:03"
std::string FormatSeconds(double dSeconds) {
  const auto nSeconds = static_cast<unsigned long long>(std::min(dSeconds, 1e9));
  char Text[40];
  if (nSeconds < 3600) {
    std::snprintf(Text, sizeof(Text), "%llu:%02llu", nSeconds / 60, nSeconds % 60);
  } else {
    std::snprintf(Text, sizeof(Text), "%llu:%02llu:%02llu", nSeconds / 3600, nSeconds / 60 % 60, nSeconds % 60);
  }
  return Text;
}

}  // namespace

Progress::Progress(std::string Unit, bool bShown) : m_Unit(std::move(Unit)), m_bShown(bShown && ErrorsGoToTerminal()) {}

void Progress::Show(std::uint64_t nDone, std::uint64_t nOfTotal, std::uint64_t nTotal) {
  const Clock::time_point Here = Clock::now();
  if (Here < m_Next) return;
  m_Next = Here + kBetween;
  const double dSeconds = std::max(std::chrono::duration<double>(Here - m_Start).count(), 1e-3);
  const double dDone = static_cast<double>(nDone);
  std::fprintf(stderr, "\r%llu %s  %.0f/s", static_cast<unsigned long long>(nDone), m_Unit.c_str(), dDone / dSeconds);
  if (nOfTotal != 0 && nTotal >= nOfTotal) {
    const double dPart = static_cast<double>(nOfTotal) / static_cast<double>(nTotal);
    std::fprintf(stderr, "  %.0f%%  %s left", dPart * 100, FormatSeconds(dSeconds * (1 - dPart) / dPart).c_str());
  }
  std::fputs("\033[K", stderr);
  m_bOnScreen = true;
}

void Progress::End() {
  if (m_bOnScreen) std::fputs("\r\033[K", stderr);
  m_bOnScreen = false;
}

}  // namespace lumbra::tool
