// Result codes: their messages, and their translation from system errors and exceptions.
#pragma once

#include <cstdint>

#include "lumbra/result_code.h"
#include "platform/os.h"

namespace lumbra {

// The fixed message of a code; "Unknown platform result code" for a platform code (bits 16 to 30 equal 1)
// without one, "Unknown result code" for any other.
const char16_t* ResultCodeMessage(ResultCode nCode);

// The code of a Win32 error number or an HRESULT. Total: every value yields a code; a number without a name
// of its own passes through as 0x8007xxxx.
ResultCode ResultFromSystemError(std::uint32_t nError);
inline ResultCode ResultFromSystemError(os::SystemError nError) {
  return ResultFromSystemError(static_cast<std::uint32_t>(nError));
}

// Those of kTooManyOpenFiles and kWriteProtect, which have no name among the codes.
inline constexpr auto kTooManyOpenFilesResult = static_cast<ResultCode>(static_cast<std::int32_t>(0x80070004u));
inline constexpr auto kWriteProtectResult = static_cast<ResultCode>(static_cast<std::int32_t>(0x80070013u));

// The form in which the host knows some of the framework's codes; every other code unchanged.
ResultCode ToHostResult(ResultCode nCode);

// The code of the exception that is being handled. Called inside a catch (...) only; never throws.
ResultCode ResultFromCurrentException() noexcept;

}  // namespace lumbra
