// The line that a failed check leaves in the trace: its text, the place that calls, and the code, which is the answer.
#pragma once

#include <cstdint>

#include "objects/check_texts.h"
#include "platform/trace.h"

namespace lumbra {

namespace objdb {
inline ResultCode FailedCheck(CheckText Text, ResultCode nCode, const char* pFile = __builtin_FILE(),
                              std::int32_t nLine = __builtin_LINE()) {
  Trace(kHostRoot, traceFailure, "lmb\tObjectDB failed check (%s), file: %s, line: %d. Err: %terr", Text.Get(), pFile,
        nLine, nCode);
  return nCode;
}
}  // namespace objdb

namespace plaindb {
inline ResultCode FailedCheck(CheckText Text, ResultCode nCode, const char* pFile = __builtin_FILE(),
                              std::int32_t nLine = __builtin_LINE()) {
  Trace(kHostRoot, traceFailure, "lmb\tPlainDB failed check (%s), file: %s, line: %d. Err: %terr", Text.Get(), pFile,
        nLine, nCode);
  return nCode;
}
}  // namespace plaindb

}  // namespace lumbra
