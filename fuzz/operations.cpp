// Operations against the record of what was answered that the fault programme keeps: the input is the choices of its
// driver. In the end, and after a new start, the store holds what was acknowledged.
#include "faults/driver.h"
#include "faults/findings.h"
#include "fuzz.h"
#include "support/system_calls.h"

namespace lumbra::test {

void Found(const std::string& What) {
  fuzz::Require(false, What);
}
void PauseFaults(bool /*bPaused*/) {}  // there are none

}  // namespace lumbra::test

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t nSize) {
  using namespace lumbra::fuzz;
  using lumbra::test::Driver;
  EmptyFolder();
  Input From(pData, nSize);
  Driver::Setup With{Folder(), From.Byte() % 2 != 0};
  With.Choose = [&From](std::uint64_t nEnd) {
    return From.Take<std::uint16_t>() % nEnd;
  };
  Driver Work(std::move(With));
  Require(Work.Open(), "it opens");
  for (std::uint64_t nStep = 0; !From.IsDone(); ++nStep) Work.Step(nStep);
  for (const char* const pWhen : {"in the end", "after a new start"}) {
    Work.Verify(Driver::End::Whole, Driver::Lookups::MustSucceed);
    Work.AddToEach(pWhen);
    Work.Close();
    Require(Work.Open(), "it opens again");
  }
  return 0;
}
