// The steps of a test. A step is one call with the words for it, and what it must answer, say and cost; a failure tells
// the line of the step, its words, what was expected and what was there:
//
//   Step("set 100 bytes in place", SetData(Id(1), 7, Data)).Is(errOK).Writes(1).Says({});
//   AllAnswer(errPARAMETER_INVALID, {{"hash 0", Db().FindObject(0, &id)},
//                                    {"no room for an id", Db().FindObject(1, nullptr)}});
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/system_calls.h"
#include "support/world.h"

namespace lumbra::test {

// Where a step stands in its test: taken by default arguments, which the caller's line fills in.
struct Place {
  const char* pFile;
  int nLine;
};

// A value as a failure shows it: codes by their names, bytes in hex, lists whole.
std::string Show(ResultCode nCode);
std::string Show(const Bytes& Data);
std::string Show(const std::vector<std::string>& Lines);
template <class Value>
std::string Show(const Value& Given) {
  return ::testing::PrintToString(Given);
}
template <class Value>
std::string Show(const std::vector<Value>& Given) {
  std::string Text = std::to_string(Given.size()) + " of ";
  for (const Value& One : Given) Text += Show(One) + ' ';
  return Text;
}

// What every step has, whatever it answers. What it said and cost is what happened since the step before it.
class StepBase {
 protected:
  StepBase(std::string Words, Place Where);
  ~StepBase();

  void Fail(const std::string& What) const;
  void Differs(const std::string& Expected, const std::string& Was) const;
  void CheckLines(const std::vector<std::string>& Expected, std::uint32_t nUpTo) const;
  void CheckCalls(SystemCall Call, std::uint64_t nExpected) const;

 private:
  const std::string m_Words;
  const Place m_Where;
};

template <class Value>
class Step : StepBase {
 public:
  [[nodiscard]] Step(std::string Words, Value Given, const char* pFile = __builtin_FILE(), int nLine = __builtin_LINE())
      : StepBase(std::move(Words), {pFile, nLine}), m_Given(std::move(Given)) {}

  Step& Is(const std::type_identity_t<Value>& Expected) {
    if (!(m_Given == Expected)) Differs(Show(Expected), Show(m_Given));
    return *this;
  }
  // The trace lines up to a level, "LEVEL text", in their order.
  Step& Says(const std::vector<std::string>& Expected, std::uint32_t nUpTo = 400) {
    CheckLines(Expected, nUpTo);
    return *this;
  }
  // On Windows, where calls are not counted, anything.
  Step& Calls(SystemCall Call, std::uint64_t nExpected) {
    CheckCalls(Call, nExpected);
    return *this;
  }
  Step& Reads(std::uint64_t nExpected) { return Calls(SystemCall::ReadAt, nExpected); }
  Step& Writes(std::uint64_t nExpected) { return Calls(SystemCall::WriteAt, nExpected); }

 private:
  Value m_Given;
};
Step(std::string, const char*)->Step<std::string>;

// What a test builds on: a failure ends it. It counts for no step.
void Must(ResultCode nCode, Place Where = {__builtin_FILE(), __builtin_LINE()});

// Calls in their order, each with its words, that must all answer one code.
struct Answer {
  std::string Words;
  ResultCode nCode;
};
void AllAnswer(ResultCode nExpected, std::initializer_list<Answer> Given, const char* pFile = __builtin_FILE(),
               int nLine = __builtin_LINE());

}  // namespace lumbra::test
