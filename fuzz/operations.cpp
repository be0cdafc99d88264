// The input is the choices of the driver: what it does, and with what. Every answer is the one that its record expects,
// and so is all content in the end, also after a new start.
#include "faults/driver.h"
#include "fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t nSize) {
  using namespace lumbra::fuzz;
  using lumbra::test::Driver;
  std::filesystem::remove_all(Folder());
  Input From(pData, nSize);
  const auto Choose = [&](std::uint64_t nEnd) {
    return From.Below(nEnd);
  };
  Driver Work({.Folder = Folder(), .bChecked = From.Below(2) != 0, .Choose = Choose, .bExact = true});
  Require(Work.Open(), "it opens");
  while (!From.IsDone()) Work.Step();
  for (const char* const pWhen : {"in the end", "after a new start"}) {
    Work.Verify(Driver::End::Whole, Driver::Lookups::MustSucceed);
    Work.AddToEach(pWhen);
    Work.Close();
    Require(Work.Open(), "it opens again");
  }
  return 0;
}
