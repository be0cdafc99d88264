#include "failure.h"

#include <cstdio>

#include "host/printed_text.h"
#include "host/trace_format.h"
#include "machine.h"
#include "platform/result.h"

namespace lumbra::tool {
namespace {

const char* MeaningOf(ResultCode nCode) {
  if (nCode == kTooManyOpenFilesResult) return "this process may not have so many files open";
  if (nCode == kWriteProtectResult)
    return "its file system is read-only; commands that read, such as verify, work there";
  switch (nCode) {
    case errSHARING_VIOLATION:
      return "another process holds the store; try again when it is done";
    case errOPEN_FAILED:
      return "the files cannot be opened or created; is the disk full, or are they somebody else's?";
    case errOBJECT_NOT_FOUND:
    case errFILE_NOT_FOUND:
    case errPATH_NOT_FOUND:
      return "there is no such thing";
    case errNOT_FOUND:
      return "there is nothing under this id or key";
    case errACCESS_DENIED:
      return "the file system does not let you do this";
    case errOUT_OF_SPACE:
      return "the disk, or what the store can number, is full";
    case errWRITE_FAILED:
      return "a write failed; is the disk full? What was recorded before is safe";
    case errREAD_FAILED:
      return "the disk did not deliver what was written";
    case errDATA_CORRUPTED:
      return "stored data is damaged; the rest of the store can still be read";
    case errINDEX_INVALID:
      return "the store holds 207 named databases already, and no more than that";
    case errSIZE_INVALID:
      return "the name or the data is too long";
    case errUNSPECIFIED:
    case errHASH_ZERO:
      return "the name has nothing in it that can be recorded";
    case errOUT_OF_MEMORY:
      return "there is not enough memory";
    case errOBJECT_ALREADY_EXISTS:
      return "another name, which the store cannot tell from this one, is open";
    case errPARAMETER_INVALID:
      return "the store does not take this";
    case errREAD_ONLY:
      return "the store takes no writes at the moment";
    default:
      return "an unexpected answer of the store; --trace 500 shows what led to it";
  }
}

ResultCode CodeOf(const std::error_code& Error) {
  if (Error == std::errc::permission_denied) return errACCESS_DENIED;
  if (Error == std::errc::io_error) return errREAD_FAILED;
  return Error == std::errc::no_such_file_or_directory ? errPATH_NOT_FOUND : errUNSPECIFIED;
}

}  // namespace

Failure::Failure(const std::string& What, ResultCode nCode) : Failure(What, nCode, MeaningOf(nCode)) {}

Failure::Failure(const std::string& What, ResultCode nCode, const std::string& Meaning)
    : std::runtime_error(host::PrintableSentence(What + ": " + host::DescribeCode(nCode) + ": " + Meaning)),
      m_nCode(nCode) {}

Failure FailureAt(const std::filesystem::path& Path, const std::error_code& Error) {
  return Failure("look at " + Printable(TextOf(Path)), CodeOf(Error), MessageOf(Error));
}

void ReportFailure(const std::exception& Reason) {
  std::fflush(stdout);
  std::fprintf(stderr, "lumbra: %s\n", host::PrintableSentence(Reason.what()).c_str());
}

void Check(ResultCode nCode, const std::string& What) {
  if (Failed(nCode)) throw Failure(What, nCode);
}

}  // namespace lumbra::tool
