// The few exceptions of the framework. They carry a result code and travel from the lock and path code to the
// interface table, where ResultFromCurrentException turns them into codes; storage classes neither throw nor
// catch them.
#pragma once

#include <cstdint>
#include <exception>
#include <string>
#include <utility>

#include "lumbra/result_code.h"

namespace ulo {

using lumbra::ResultCode;

class Exception : public std::exception {
 public:
  Exception() = default;
  explicit Exception(std::string Text, std::u16string Message = {})
      : m_Text(std::move(Text)), m_Message(std::move(Message)) {}

  const char* what() const noexcept override { return m_Text.c_str(); }
  const std::u16string& Message() const noexcept { return m_Message; }

 private:
  std::string m_Text = "Unknown exception";
  std::u16string m_Message;
};

// Gives an exception class its own name as standard message.
template <class Derived, class Base>
class ExceptionBase : public Base {
 public:
  using Base::Base;
  const char* what() const noexcept override { return Derived::kName; }
};

// An operation failed with a result code, at a place in the source.
class ResultCodeException : public ExceptionBase<ResultCodeException, Exception> {
 public:
  static constexpr const char* kName = "ResultCodeException";

  ResultCodeException(const char* pFile, std::uint32_t nLine, std::u16string Message, ResultCode nCode)
      : ExceptionBase(kName, std::move(Message)), m_pFile(pFile), m_nLine(nLine), m_nCode(nCode) {}

  const char* File() const noexcept { return m_pFile; }
  std::uint32_t Line() const noexcept { return m_nLine; }
  ResultCode Code() const noexcept { return m_nCode; }

  // "message: 0x80000041 (Out of memory)", without "message: " when there is none.
  std::u16string Description() const;

 private:
  const char* m_pFile;
  std::uint32_t m_nLine;
  ResultCode m_nCode;
};

// A call that must succeed failed.
class CheckResultFailedException : public ExceptionBase<CheckResultFailedException, ResultCodeException> {
 public:
  static constexpr const char* kName = "CheckResultFailedException";

  CheckResultFailedException(const char* pFile, std::uint32_t nLine, ResultCode nCode)
      : ExceptionBase(pFile, nLine, std::u16string(), nCode) {}
};

// Violations of contracts, raised by other components of the framework only.
namespace contract {
class RequireViolation : public Exception {
  using Exception::Exception;
};
class InvariantViolation : public Exception {
  using Exception::Exception;
};
class EnsureViolation : public Exception {
  using Exception::Exception;
};
}  // namespace contract

}  // namespace ulo

// Raises CheckResultFailedException when a code is a failure.
#define ULO_CHECK_RESULT(code)                                                    \
  do {                                                                            \
    if (const ::lumbra::ResultCode nChecked = (code); ::lumbra::Failed(nChecked)) \
      throw ::ulo::CheckResultFailedException(__FILE__, __LINE__, nChecked);      \
  } while (false)
