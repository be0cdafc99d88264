// Result codes: what every operation of the store answers.
//
// A code of 0 or above is success, a negative one (bit 31 set) failure. Four families share the space:
// framework codes 0x8000xxxx, platform codes 0x8001xxxx, the codes that are the store's own (0x800000C0 to
// 0x800000D8, 0x80000181, 0x80000188, 0x80000202, and the successes 3, 0x41 and 0xD8), and Win32 errors
// without a name of their own, which pass through as 0x8007xxxx with the error number in the low 16 bits.
#pragma once

#include <cstdint>

namespace lumbra {

// The framework's and the platform's codes: X(name, value, message).
#define LUMBRA_DESCRIBED_RESULT_CODES(X)                                             \
  X(errOK, 0x00000000, "No error")                                                   \
  X(errFALSE, 0x00000001, "False")                                                   \
  X(errINTERFACE_NOT_SUPPORTED, 0x80000001, "Interface not supported")               \
  X(errUNEXPECTED, 0x80000040, "Unexpected")                                         \
  X(errOUT_OF_MEMORY, 0x80000041, "Out of memory")                                   \
  X(errNOT_SUPPORTED, 0x80000042, "Not supported")                                   \
  X(errNOT_IMPLEMENTED, 0x80000043, "Not implemented")                               \
  X(errBUFFER_TOO_SMALL, 0x80000044, "Buffer too small")                             \
  X(errACCESS_DENIED, 0x80000045, "Access denied")                                   \
  X(errPARAMETER_INVALID, 0x80000046, "Invalid argument")                            \
  X(errNOT_MATCHED, 0x8000004A, "Not matched")                                       \
  X(errUNSPECIFIED, 0x8000004B, "Unspecified error")                                 \
  X(errNOT_FOUND, 0x8000004C, "Not found")                                           \
  X(errFOUND, 0x8000004D, "Found")                                                   \
  X(errLOCKED, 0x8000004F, "Locked")                                                 \
  X(errNOT_LOCKED, 0x80000050, "Not locked")                                         \
  X(errOPERATION_CANCELLED, 0x80000051, "Operation cancelled")                       \
  X(errMETHOD_NOT_FOUND, 0x80000057, "Method not found")                             \
  X(errSTACK_EMPTY, 0x80000058, "Stack is empty")                                    \
  X(errMEDIA, 0x80000059, "Media error")                                             \
  X(errSIGNATURE_INVALID, 0x8000005A, "Invalid signature")                           \
  X(errVERSION_INVALID, 0x8000005B, "Invalid version")                               \
  X(errSIZE_INVALID, 0x8000005C, "Invalid size")                                     \
  X(errTYPE_INVALID, 0x8000005D, "Invalid type")                                     \
  X(errINDEX_INVALID, 0x8000005E, "Invalid index")                                   \
  X(errOUT_OF_SPACE, 0x80000062, "Out of space")                                     \
  X(errNOT_READY, 0x80000063, "Not ready")                                           \
  X(errLESS_THAN, 0x80000064, "Less than")                                           \
  X(errMORE_THAN, 0x80000065, "More than")                                           \
  X(errPROHIBITED, 0x80000066, "Prohibited")                                         \
  X(errALREADY_DONE, 0x80000067, "Already done")                                     \
  X(errNEED_REBOOT, 0x80000068, "Need reboot")                                       \
  X(errBASES_CORRUPTED, 0x80000069, "Bases corrupted")                               \
  X(errSTATE_INVALID, 0x8000006A, "Invalid state")                                   \
  X(errNOT_INITIALIZED, 0x8000006B, "Not initialized")                               \
  X(errINSUFFICIENT_RESOURCES, 0x8000006C, "Insufficient resources")                 \
  X(errRESULT_INVALID, 0x80000071, "Invalid result")                                 \
  X(errUNKNOWN_EXCEPTION, 0x80000072, "Unknown exception")                           \
  X(errMETA_INFORMATION_NOT_FOUND, 0x80000076, "Meta information not found")         \
  X(errCLASS_NOT_FOUND, 0x80000100, "Class not found")                               \
  X(errPROPERTY_NOT_FOUND, 0x80000180, "Property not found")                         \
  X(errOPERATION_TIMEOUT, 0x80000221, "Operation timeout")                           \
  X(errPLATFORM_UNSPECIFIED, 0x80010100, "Unspecified platform error")               \
  X(errHANDLE_INVALID, 0x80010101, "Invalid handle")                                 \
  X(errFILE_NOT_FOUND, 0x80010102, "File not found")                                 \
  X(errPATH_NOT_FOUND, 0x80010103, "Path not found")                                 \
  X(errSHARING_VIOLATION, 0x80010104, "Sharing violation")                           \
  X(errALREADY_EXISTS, 0x80010105, "Already exists")                                 \
  X(errWAIT_ABANDONED, 0x80010106, "Wait abandoned")                                 \
  X(errSYMBOL_NOT_FOUND, 0x80010107, "Symbol not found")                             \
  X(errSXS_INCORRECT, 0x80010108, "Sxs is incorrect")                                \
  X(errPATH_NAME_INVALID, 0x80010109, "Invalid path name")                           \
  X(errANONYMOUS_TOKEN, 0x80010110, "Cannot open an anonymous level security token") \
  X(errPASSWORD_INVALID, 0x80010111, "Password is invalid")                          \
  X(errMODULE_NOT_FOUND, 0x80010112, "Module not found")                             \
  X(errIMAGE_BAD_SIGNATURE, 0x80010113, "System image bad signature")                \
  X(errCLOUD_FILE_ABORTED, 0x80010114, "Cloud file request aborted")                 \
  X(errMEMORY_MAPPING_FAILED, 0x80010115, "Memory mapping failed")

// The codes without a message of their own: X(name, value, use).
#define LUMBRA_PLAIN_RESULT_CODES(X)                                                                \
  X(errHOST_FALSE, 0x00000003, "the host's form of errFALSE")                                       \
  X(errNO_MORE_EVENTS, 0x00000041, "success: fewer events were delivered than asked")               \
  X(errDATA_REPAIRED, 0x000000D8, "success: an object was found or created after a repair")         \
  X(errINDEX_OUT_OF_RANGE, 0x80000056, "an event index at or past the end of its segment")          \
  X(errREQUIRE_VIOLATION, 0x80000073, "a caught contract violation: precondition")                  \
  X(errINVARIANT_VIOLATION, 0x80000074, "a caught contract violation: invariant")                   \
  X(errENSURE_VIOLATION, 0x80000075, "a caught contract violation: postcondition")                  \
  X(errHASH_ZERO, 0x800000C0, "an object's hash came out zero")                                     \
  X(errREAD_ONLY, 0x800000C1, "the store does not accept writes now")                               \
  X(errSTORE_NOT_INITIALIZED, 0x800000C2, "the database or service is not open")                    \
  X(errOPEN_FAILED, 0x800000C3, "a store or database could not be opened")                          \
  X(errOBJECT_NOT_FOUND, 0x800000C5, "no such object, object id or file")                           \
  X(errNO_HOST_OBJECT, 0x800000C7, "a message was to be sent through a host object that is absent") \
  X(errREAD_FAILED, 0x800000CA, "a read or size query failed or came up short")                     \
  X(errWRITE_FAILED, 0x800000CB, "a write, truncation or size change failed")                       \
  X(errTOO_MANY_RECORDS, 0x800000CD, "a record file is full")                                       \
  X(errINDEX_MISMATCH, 0x800000D0, "compaction wrote a record at another index")                    \
  X(errOBJECT_ALREADY_EXISTS, 0x800000D1, "the host's form of errALREADY_EXISTS")                   \
  X(errDATA_CORRUPTED, 0x800000D8, "stored data is inconsistent")                                   \
  X(errPROPERTY_READ_ONLY, 0x80000181, "a property that may no longer be set")                      \
  X(errPROPERTY_NOT_HANDLED, 0x80000188, "an unknown property or access mode")                      \
  X(errCONVERSION_FAILED, 0x80000202, "a UTF-16/UTF-8 conversion failed")

// A type of its own, so that a code is neither a number nor a truth value by accident, and is not dropped without a
// word. Codes without a name are values of it as well. In the tables it is a 32-bit integer: a host in C declares it
// int32_t.
enum class [[nodiscard]] ResultCode : std::int32_t{
#define LUMBRA_RESULT_CODE_CONSTANT(name, value, text) name = static_cast<std::int32_t>(value##u),
    LUMBRA_DESCRIBED_RESULT_CODES(LUMBRA_RESULT_CODE_CONSTANT) LUMBRA_PLAIN_RESULT_CODES(LUMBRA_RESULT_CODE_CONSTANT)
#undef LUMBRA_RESULT_CODE_CONSTANT
};
using enum ResultCode;

constexpr bool Failed(ResultCode code) {
  return static_cast<std::int32_t>(code) < 0;
}
constexpr bool Succeeded(ResultCode code) {
  return !Failed(code);
}

// The name of a code ("errNOT_FOUND"), or nullptr for a value without one.
constexpr const char* ResultCodeName(ResultCode code) {
  switch (code) {
#define LUMBRA_RESULT_CODE_NAME(name, value, text) \
  case name:                                       \
    return #name;
    LUMBRA_DESCRIBED_RESULT_CODES(LUMBRA_RESULT_CODE_NAME)
    LUMBRA_PLAIN_RESULT_CODES(LUMBRA_RESULT_CODE_NAME)
#undef LUMBRA_RESULT_CODE_NAME
    default:
      return nullptr;
  }
}

}  // namespace lumbra
