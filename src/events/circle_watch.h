// Finds out whether a walk from object to object runs in a circle, which only damaged or ill-linked objects make it do.
#pragma once

#include <cstdint>

namespace lumbra {

// Brent's method: one id is remembered, anew at each power of two of steps. A circle brings the walk back to an id that
// it remembers before it has gone round a third time; a straight walk of any length never does.
class CircleWatch {
 public:
  // Told each id of the walk in turn; true when it was here before.
  bool WasHere(std::uint64_t nId) {
    if (nId == m_nRemembered) return true;
    if (++m_nSteps == m_nNextMark) {
      m_nRemembered = nId;
      m_nNextMark *= 2;
    }
    return false;
  }

 private:
  std::uint64_t m_nRemembered = 0;  // no object has the id 0
  std::uint64_t m_nSteps = 0;
  std::uint64_t m_nNextMark = 1;
};

}  // namespace lumbra
