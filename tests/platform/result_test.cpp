// Result codes: their messages and the translations into them.
#include "platform/result.h"

#include <new>
#include <stdexcept>

#include "platform/exception.h"
#include "support/world.h"

namespace lumbra::test {
namespace {

TEST(ResultCodes, ComeFromSystemErrorsAndHaveMessagesAndHostForms) {
  const std::pair<std::uint32_t, std::uint32_t> kCases[] = {
      {0, 0x00000000},       {2, 0x80010102},          {4, 0x80070004},          {32, 0x80010104},
      {33, 0x80010104},      {112, 0x80000062},        {183, 0x80010105},        {234, 0x80000044},
      {267, 0x80010103},     {14001, 0x80010108},      {0x80070005, 0x80000045}, {0x80070004, 0x80070004},
      {0x12345, 0x00000000}, {0x80004005, 0x80010100}, {0x80070000, 0x00000000}, {0xC0070002, 0x80010102},
  };
  for (const auto& [nError, nCode] : kCases) {
    EXPECT_EQ(nCode, static_cast<std::uint32_t>(ResultFromSystemError(nError))) << nError;
  }

  const auto Message = [](std::uint32_t nCode) {
    return std::u16string(ResultCodeMessage(static_cast<ResultCode>(nCode)));
  };
  EXPECT_EQ(u"Cannot open an anonymous level security token", Message(0x80010110));
  EXPECT_EQ(u"No error", Message(0));
  EXPECT_EQ(u"Unknown platform result code", Message(0x8001010A));
  for (const std::uint32_t nPlain : {0x800000C5u, 0x41u, 2u}) EXPECT_EQ(u"Unknown result code", Message(nPlain));
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

TEST(ResultCodes, ExceptionsBecomeCodes) {
  EXPECT_CODE(errREQUIRE_VIOLATION, CodeOf(ulo::contract::RequireViolation()));
  EXPECT_CODE(errENSURE_VIOLATION, CodeOf(ulo::contract::EnsureViolation()));
  EXPECT_CODE(errACCESS_DENIED, CodeOf(ulo::CheckResultFailedException("f.cpp", 1, errACCESS_DENIED)));
  EXPECT_CODE(errUNEXPECTED, CodeOf(ulo::ResultCodeException("f.cpp", 1, u"", errOK)));
  EXPECT_CODE(errUNKNOWN_EXCEPTION, CodeOf(ulo::Exception()));
  EXPECT_CODE(errOUT_OF_MEMORY, CodeOf(std::bad_alloc()));
  EXPECT_CODE(errOUT_OF_MEMORY, CodeOf(std::length_error("")));
  EXPECT_CODE(errUNKNOWN_EXCEPTION, CodeOf(7));

  const ulo::ResultCodeException Failure("f.cpp", 3, u"no folder", errPATH_NOT_FOUND);
  EXPECT_STREQ("ResultCodeException", Failure.what());
  EXPECT_EQ(u"no folder: 0x80010103 (Path not found)", Failure.Description());
  EXPECT_EQ(u"0x80000041 (Out of memory)", ulo::CheckResultFailedException("", 0, errOUT_OF_MEMORY).Description());
}

}  // namespace
}  // namespace lumbra::test
