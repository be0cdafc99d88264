#include "support/steps.h"

#include <stdexcept>

namespace lumbra::test {
namespace {

void EndStep() {
  (void)TakeTrace();
  MarkCalls();
}

void FailAt(const Place& Where, const std::string& Words, const std::string& What) {
  ADD_FAILURE_AT(Where.pFile, Where.nLine) << Words << ": " << What;
}

}  // namespace

std::string Show(ResultCode nCode) {
  return Name(nCode);
}
std::string Show(const Bytes& Data) {
  return std::to_string(Data.size()) + " bytes " + ToHex(Data);
}
std::string Show(const std::vector<std::string>& Lines) {
  std::string Text = std::to_string(Lines.size()) + " lines";
  for (const std::string& Line : Lines) Text += "\n  " + Line;
  return Text;
}

StepBase::StepBase(std::string Words, Place Where) : m_Words(std::move(Words)), m_Where(Where) {}
StepBase::~StepBase() {
  EndStep();
}

void StepBase::Fail(const std::string& What) const {
  FailAt(m_Where, m_Words, What);
}
void StepBase::Differs(const std::string& Expected, const std::string& Was) const {
  Fail("expected " + Expected + ", was " + Was);
}

void StepBase::CheckLines(const std::vector<std::string>& Expected, std::uint32_t nUpTo) const {
  const std::vector<std::string> Said = TakeTrace(nUpTo);
  if (Said != Expected) Differs(Show(Expected), Show(Said));
}

void StepBase::CheckCalls([[maybe_unused]] SystemCall Call, [[maybe_unused]] std::uint64_t nExpected) const {
#ifndef _WIN32
  const std::uint64_t nMade = CallsSinceMark(Call);
  if (nMade != nExpected) Fail("expected " + std::to_string(nExpected) + " calls, made " + std::to_string(nMade));
#endif
}

void Must(ResultCode nCode, Place Where) {
  if (Failed(nCode))
    throw std::runtime_error(std::string(Where.pFile) + ':' + std::to_string(Where.nLine) + ": " + Name(nCode));
  MarkCalls();
}

void AllAnswer(ResultCode nExpected, std::initializer_list<Answer> Given, const char* pFile, int nLine) {
  for (const Answer& One : Given) {
    if (One.nCode != nExpected)
      FailAt({pFile, nLine}, One.Words, "expected " + Show(nExpected) + ", was " + Show(One.nCode));
  }
  EndStep();
}

}  // namespace lumbra::test
