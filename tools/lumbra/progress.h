// How far a long command has come: a line on the terminal, which is written anew now and then. Nothing where nobody
// looks.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace lumbra::tool {

class Progress {
 public:
  // Counts such things, "events". Without bShown nothing is ever shown.
  explicit Progress(std::string Unit, bool bShown = true);
  ~Progress() { End(); }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // So many are done; and of a total, in any unit, where it is known, for the time that is left.
  void Tell(std::uint64_t nDone, std::uint64_t nOfTotal = 0, std::uint64_t nTotal = 0) {
    if (m_bShown) Show(nDone, nOfTotal, nTotal);
  }

  // Takes the line away, before something else is written there.
  void End();

 private:
  using Clock = std::chrono::steady_clock;

  void Show(std::uint64_t nDone, std::uint64_t nOfTotal, std::uint64_t nTotal);

  const std::string m_Unit;
  const bool m_bShown;
  const Clock::time_point m_Start = Clock::now();
  Clock::time_point m_Next = m_Start;
  bool m_bOnScreen = false;
};

}  // namespace lumbra::tool
