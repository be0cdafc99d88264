// What our own code guarantees, looked at while it runs: in builds for the debugger and the sanitizers, where
// LUMBRA_INVARIANTS is defined. A breach ends the process. Bytes of a disk, arguments of a host and answers of the
// system are no invariants: they get a code.
#pragma once

#include <cstdlib>

#include "platform/trace.h"

namespace lumbra {

#ifdef LUMBRA_INVARIANTS
inline constexpr bool kChecksInvariants = true;
#else
inline constexpr bool kChecksInvariants = false;
#endif

[[noreturn]] inline void EndBrokenProcess(const char* pInvariant, const char* pFile, std::int32_t nLine) {
  Trace(kHostRoot, traceFailure, "lmb\tBroken invariant (%s) in %d line, file %s", pInvariant, nLine, pFile);
  std::abort();
}

}  // namespace lumbra

// Not evaluated in other builds.
#define LUMBRA_INVARIANT(...)                                                           \
  do {                                                                                  \
    if constexpr (::lumbra::kChecksInvariants) {                                        \
      if (!(__VA_ARGS__)) ::lumbra::EndBrokenProcess(#__VA_ARGS__, __FILE__, __LINE__); \
    }                                                                                   \
  } while (false)
