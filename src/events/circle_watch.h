// Finds out whether a walk from object to object runs in a circle, which only damaged or ill-linked objects make it do.
#pragma once

#include <cstdint>

namespace lumbra {

// Brent's method: one id is remembered, anew at each power of two of steps. A straight walk of any length never meets
// it again; one that ends in a circle does, after at most three times as many steps as the way into it or the circle
// itself is long.
class CircleWatch {
 public:
  // Told each id of the walk in turn; true when it is the one that is remembered.
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
