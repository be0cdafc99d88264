#include "platform/result.h"

#include <exception>
#include <new>
#include <stdexcept>

#include "platform/exception.h"

namespace lumbra {
namespace {

constexpr bool IsPlatformCode(ResultCode nCode) {
  return (static_cast<std::uint32_t>(nCode) & 0x7FFF0000u) == 0x00010000u;
}

// The Win32 errors that have a code of their own. 393, 637 and 14001 are the cloud file, image signature and
// side-by-side errors.
struct SystemErrorCode {
  std::uint32_t nError;
  ResultCode nCode;
};
constexpr SystemErrorCode kSystemErrorCodes[] = {
    {0, errOK},
    {1, errNOT_SUPPORTED},
    {2, errFILE_NOT_FOUND},
    {3, errPATH_NOT_FOUND},
    {5, errACCESS_DENIED},
    {6, errHANDLE_INVALID},
    {8, errOUT_OF_MEMORY},
    {21, errNOT_READY},
    {24, errSIZE_INVALID},
    {31, errUNSPECIFIED},
    {32, errSHARING_VIOLATION},
    {33, errSHARING_VIOLATION},
    {50, errNOT_SUPPORTED},
    {53, errPATH_NOT_FOUND},
    {80, errALREADY_EXISTS},
    {87, errPARAMETER_INVALID},
    {111, errBUFFER_TOO_SMALL},
    {112, errOUT_OF_SPACE},
    {122, errBUFFER_TOO_SMALL},
    {123, errPATH_NAME_INVALID},
    {126, errMODULE_NOT_FOUND},
    {127, errSYMBOL_NOT_FOUND},
    {160, errPARAMETER_INVALID},
    {183, errALREADY_EXISTS},
    {234, errBUFFER_TOO_SMALL},
    {267, errPATH_NOT_FOUND},
    {393, errCLOUD_FILE_ABORTED},
    {637, errIMAGE_BAD_SIGNATURE},
    {995, errOPERATION_CANCELLED},
    {1168, errNOT_FOUND},
    {1347, errANONYMOUS_TOKEN},
    {1413, errINDEX_INVALID},
    {1450, errINSUFFICIENT_RESOURCES},
    {1460, errOPERATION_TIMEOUT},
    {14001, errSXS_INCORRECT},
};

}  // namespace

const char16_t* ResultCodeMessage(ResultCode nCode) {
  switch (nCode) {
#define LUMBRA_RESULT_CODE_MESSAGE(name, value, message) \
  case name:                                             \
    return u##message;
    LUMBRA_DESCRIBED_RESULT_CODES(LUMBRA_RESULT_CODE_MESSAGE)
#undef LUMBRA_RESULT_CODE_MESSAGE
    default:
      return IsPlatformCode(nCode) ? u"Unknown platform result code" : u"Unknown result code";
  }
}

ResultCode ResultFromSystemError(std::uint32_t nError) {
  for (const SystemErrorCode& Known : kSystemErrorCodes) {
    if (Known.nError == nError) return Known.nCode;
  }
  if (nError < 0x10000u) return static_cast<ResultCode>(nError | 0x80070000u);
  const bool bFailure = (nError & 0x80000000u) != 0;
  if (!bFailure) return errOK;
  const bool bWrappedWin32 = (nError & 0x0FFF0000u) == 0x00070000u;
  return bWrappedWin32 ? ResultFromSystemError(nError & 0xFFFFu) : errPLATFORM_UNSPECIFIED;
}

ResultCode ToHostResult(ResultCode nCode) {
  switch (nCode) {
    case errNOT_FOUND:
    case errFILE_NOT_FOUND:
    case errPATH_NOT_FOUND:
      return errOBJECT_NOT_FOUND;
    case errNOT_INITIALIZED:
      return errSTORE_NOT_INITIALIZED;
    case errALREADY_EXISTS:
      return errOBJECT_ALREADY_EXISTS;
    case errFALSE:
      return errHOST_FALSE;
    default:
      return nCode;
  }
}

ResultCode ResultFromCurrentException() noexcept {
  try {
    throw;
  } catch (const ulo::contract::RequireViolation&) {
    return errREQUIRE_VIOLATION;
  } catch (const ulo::contract::InvariantViolation&) {
    return errINVARIANT_VIOLATION;
  } catch (const ulo::contract::EnsureViolation&) {
    return errENSURE_VIOLATION;
  } catch (const ulo::ResultCodeException& Failure) {
    return Failure.Code() == errOK ? errUNEXPECTED : Failure.Code();
  } catch (const ulo::Exception&) {
    return errUNKNOWN_EXCEPTION;
  } catch (const std::bad_alloc&) {
    return errOUT_OF_MEMORY;
  } catch (const std::length_error&) {
    return errOUT_OF_MEMORY;
  } catch (...) {
    return errUNKNOWN_EXCEPTION;
  }
}

}  // namespace lumbra

namespace ulo {

std::u16string ResultCodeException::Description() const {
  std::u16string Text = Message();
  if (!Text.empty()) Text += u": ";
  Text += u"0x";
  for (int nShift = 28; nShift >= 0; nShift -= 4) {
    Text += u"0123456789abcdef"[(static_cast<std::uint32_t>(m_nCode) >> nShift) & 0xFu];
  }
  Text += u" (";
  Text += lumbra::ResultCodeMessage(m_nCode);
  Text += u")";
  return Text;
}

}  // namespace ulo
