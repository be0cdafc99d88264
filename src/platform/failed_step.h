// The line that a failed step of segments, their manager and of syncs leaves in the trace; answers the code.
#pragma once

#include <cstdint>

#include "platform/trace.h"

namespace lumbra {

inline ResultCode TraceFailedStep(const char* pFile, std::int32_t nLine, ResultCode nCode) {
  Trace(kHostRoot, traceFailure, "lmb\tFailed in %d line, file %s. Err: %terr", nLine, pFile, nCode);
  return nCode;
}

}  // namespace lumbra

#define FAILED_STEP(code) ::lumbra::TraceFailedStep(__FILE__, __LINE__, (code))
