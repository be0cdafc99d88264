// The line that a failed step of segments, their manager and of syncs leaves in the trace: the code, and the place that
// calls.
#pragma once

#include <cstdint>

#include "platform/trace.h"

namespace lumbra {

inline void TraceFailedStep(ResultCode nCode, const char* pFile = __builtin_FILE(),
                            std::int32_t nLine = __builtin_LINE()) {
  Trace(kHostRoot, traceFailure, "lmb\tFailed in %d line, file %s. Err: %terr", nLine, pFile, nCode);
}

// The same, as a step's answer.
inline ResultCode FailedStep(ResultCode nCode, const char* pFile = __builtin_FILE(),
                             std::int32_t nLine = __builtin_LINE()) {
  TraceFailedStep(nCode, pFile, nLine);
  return nCode;
}

}  // namespace lumbra
