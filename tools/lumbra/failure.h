// What ends a command: one line that says what failed, with which code, and what that means for the user.
#pragma once

#include <exception>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

#include "host/printed_text.h"
#include "lumbra/result_code.h"

namespace lumbra::tool {

using host::Printable;

// "what failed: errNAME (0x...): what it means for the user". Names in both texts are printable.
class Failure : public std::runtime_error {
 public:
  Failure(const std::string& What, ResultCode nCode);
  Failure(const std::string& What, ResultCode nCode, const std::string& Meaning);

  ResultCode Code() const { return m_nCode; }

 private:
  ResultCode m_nCode;
};

// What the system said of a path that was looked at.
Failure FailureAt(const std::filesystem::path& Path, const std::error_code& Error);

// "lumbra: " and what failed, on stderr, behind all that standard output was given before.
void ReportFailure(const std::exception& Reason);

// Throws a Failure for a failing code.
void Check(ResultCode nCode, const std::string& What);

}  // namespace lumbra::tool
