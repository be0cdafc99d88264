// What a look at a file, when it is opened, found in it. A file is started anew only when its bytes were read and are
// not ours, be it because they end early: a call that failed says nothing about what is there.
#pragma once

#include "lumbra/result_code.h"

namespace lumbra {

class [[nodiscard]] FileContent {
 public:
  static FileContent Ours() { return {Found::Ours, errOK}; }
  static FileContent Foreign() { return {Found::Foreign, errOK}; }
  static FileContent Unread(ResultCode nFailure) { return {Found::Unread, nFailure}; }

  bool IsOurs() const { return m_Found == Found::Ours; }

  // Why the file was not read; errOK when it was, whatever is in it.
  ResultCode Failure() const { return m_nFailure; }

  // Opens what is ours as it is, and has what is foreign started anew: there is no other way to that. Of what was not
  // read the answer is the failure, and the file stays as it is.
  template <class StartAnew>
  ResultCode OrStartAnew(StartAnew Start) const {
    return m_Found == Found::Foreign ? Start() : m_nFailure;
  }

 private:
  enum class Found { Ours, Foreign, Unread };

  FileContent(Found What, ResultCode nFailure) : m_Found(What), m_nFailure(nFailure) {}

  Found m_Found;
  ResultCode m_nFailure;  // errOK unless unread
};

}  // namespace lumbra
