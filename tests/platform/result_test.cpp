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

TEST(ResultCodes, HaveMessages) {
  const auto Message = [](std::uint32_t nCode) {
    return std::u16string(ResultCodeMessage(CodeOfNumber(nCode)));
  };
  EXPECT_EQ(u"Cannot open an anonymous level security token", Message(0x80010110));
  EXPECT_EQ(u"No error", Message(0));
  EXPECT_EQ(u"Unknown platform result code", Message(0x8001010A));
  for (const std::uint32_t nPlain : {0x800000C5u, 0x41u, 2u}) EXPECT_EQ(u"Unknown result code", Message(nPlain));
}

TEST(ResultCodes, HaveHostForms) {
  EXPECT_CODE(errOBJECT_NOT_FOUND, ToHostResult(errPATH_NOT_FOUND));
  EXPECT_CODE(errSTORE_NOT_INITIALIZED, ToHostResult(errNOT_INITIALIZED));
  EXPECT_CODE(errHOST_FALSE, ToHostResult(errFALSE));
  EXPECT_CODE(errPARAMETER_INVALID, ToHostResult(errPARAMETER_INVALID));
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

TEST(ResultCodes, ExceptionsDescribeThem) {
  const ulo::ResultCodeException Failure("f.cpp", 3, u"no folder", errPATH_NOT_FOUND);
  EXPECT_STREQ("ResultCodeException", Failure.what());
  EXPECT_EQ(u"no folder: 0x80010103 (Path not found)", Failure.Description());
  EXPECT_EQ(u"0x80000041 (Out of memory)", ulo::CheckResultFailedException("", 0, errOUT_OF_MEMORY).Description());
}

}  // namespace
}  // namespace lumbra::test
