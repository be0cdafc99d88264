// The line that a failed check leaves in the trace. Each storage class turns the checked expression itself
// into the text, so that text and code cannot drift apart.
#pragma once

#include <cstdint>

#include "platform/file_content.h"
#include "platform/trace.h"

namespace lumbra {

struct CheckPlace {
  const char* pFile;
  std::int32_t nLine;
};

// Both answer the code they are given.
inline ResultCode ObjectDbFailedCheck(const char* pText, CheckPlace Place, ResultCode nCode) {
  Trace(kHostRoot, traceFailure, "lmb\tObjectDB failed check (%s), file: %s, line: %d. Err: %terr", pText, Place.pFile,
        Place.nLine, nCode);
  return nCode;
}
inline ResultCode PlainDbFailedCheck(const char* pText, CheckPlace Place, ResultCode nCode) {
  Trace(kHostRoot, traceFailure, "lmb\tPlainDB failed check (%s), file: %s, line: %d. Err: %terr", pText, Place.pFile,
        Place.nLine, nCode);
  return nCode;
}

}  // namespace lumbra

// Leaves the function with the code when the expression is false. The _AS form gives the text apart, for
// expressions whose arithmetic must be wider than their text.
#define ODB_CHECK_AS(text, expression, code)                                                                      \
  do {                                                                                                            \
    if (!(expression)) return ::lumbra::ObjectDbFailedCheck("Failed check: " text, {__FILE__, __LINE__}, (code)); \
  } while (false)
#define ODB_CHECK(expression, code) ODB_CHECK_AS(#expression, expression, code)

// The same for a function that looks at a file and answers what it found: the file counts as unread.
#define ODB_LOOK(expression, code)                                                                    \
  do {                                                                                                \
    if (!(expression))                                                                                \
      return ::lumbra::FileContent::Unread(                                                           \
          ::lumbra::ObjectDbFailedCheck("Failed check: " #expression, {__FILE__, __LINE__}, (code))); \
  } while (false)

#define PLAINDB_CHECK(expression, code)                                                                \
  do {                                                                                                 \
    if (!(expression))                                                                                 \
      return ::lumbra::PlainDbFailedCheck("Failed check: " #expression, {__FILE__, __LINE__}, (code)); \
  } while (false)
