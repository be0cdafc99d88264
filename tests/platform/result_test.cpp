// Result codes: their messages and the translations into them.
#include "platform/result.h"

#include <new>
#include <stdexcept>

#include "platform/exception.h"
#include "support/world.h"

namespace lumbra::test {
namespace {

TEST(ResultCodes, ComeFromSystemErrors) {
  const std::tuple<const char*, std::uint32_t, ResultCode> kShapes[] = {
      {"success", 0, errOK},
      {"with a code of its own", 112, errOUT_OF_SPACE},
      {"with the code of another", 33, errSHARING_VIOLATION},
      {"without a code", 4, CodeOfNumber(0x80070004)},
      {"wrapped", 0x80070000 | 267, errPATH_NOT_FOUND},
      {"wrapped, without a code", 0x80070004, CodeOfNumber(0x80070004)},
      {"a failure of another kind", 0x80004005, errPLATFORM_UNSPECIFIED},
      {"a success of another kind", 0x12345, errOK}};
  for (const auto& [pWords, nError, nCode] : kShapes) EXPECT_CODE(nCode, ResultFromSystemError(nError)) << pWords;
}

// The code of an exception of this kind.
ResultCode CodeOf(const auto& Thrown) {
  try {
    throw Thrown;
  } catch (...) {
    return ResultFromCurrentException();
  }
}

TEST(ResultCodes, ComeFromExceptions) {
  EXPECT_CODE(errREQUIRE_VIOLATION, CodeOf(ulo::contract::RequireViolation()));
  EXPECT_CODE(errENSURE_VIOLATION, CodeOf(ulo::contract::EnsureViolation()));
  EXPECT_CODE(errACCESS_DENIED, CodeOf(ulo::CheckResultFailedException("f.cpp", 1, errACCESS_DENIED)));
  EXPECT_CODE(errUNEXPECTED, CodeOf(ulo::ResultCodeException("f.cpp", 1, u"", errOK)));
  EXPECT_CODE(errOUT_OF_MEMORY, CodeOf(std::bad_alloc()));
  EXPECT_CODE(errOUT_OF_MEMORY, CodeOf(std::length_error("")));
  EXPECT_CODE(errUNKNOWN_EXCEPTION, CodeOf(7));
}

}  // namespace
}  // namespace lumbra::test
