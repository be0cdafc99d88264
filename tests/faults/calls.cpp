// Every system call and every allocation of a run of work fails, once or until the fault is gone. Nothing crashes; what
// was answered as done is kept; and when the fault is gone the store goes on as it is.
#include <algorithm>
#include <cstdio>

#include "faults/driver.h"
#include "faults/findings.h"
#include "faults/kinds.h"
#include "support/system_calls.h"

namespace lumbra::test {
namespace {

constexpr std::uint64_t kSteps = 120;
constexpr std::uint64_t kStepsOfAFault = 3;  // those that a fault for good lasts

enum class Failing { Nothing, Call, Allocation };

// The case's number: checked or not, once or for good, and which call, from which follows why it fails.
struct Disturbance {
  explicit Disturbance(std::uint64_t nCase)
      : bChecked(nCase % 2 != 0),
        bForGood(nCase / 2 % 2 != 0),
        nSkip(nCase / 4),
        Cause(static_cast<FaultCause>(nSkip % 3)) {}
  void Begin(Failing What) const {
    const std::uint64_t nTimes = bForGood ? UINT64_MAX : 1;
    if (What == Failing::Call) FailAnyCalls(Cause, nSkip, nTimes);
    if (What == Failing::Allocation) FailAllocation(nSkip, nTimes);
  }
  bool bChecked;
  bool bForGood;
  std::uint64_t nSkip;
  FaultCause Cause;
};

void EndFaults() {
  FailAnyCalls(FaultCause::Device, 0, 0);
  AllocationFailed();
}

void WorkUnder(Failing What, const Disturbance& How, Driver* pDriver) {
  How.Begin(What);
  const auto GoOn = [&] {
    EndFaults();
    if (How.Cause == FaultCause::Denied) pDriver->Close();  // a right that was refused is not asked for again
    if (!pDriver->Open()) Found("it does not open when the fault is gone");
    pDriver->AddToEach("when the fault is gone");
  };
  pDriver->Open();
  std::uint64_t nUnderFault = 0;
  for (std::uint64_t nStep = 0; nStep < kSteps; ++nStep) {
    pDriver->Step(nStep);
    if (FaultsMade() != 0 && ++nUnderFault == kStepsOfAFault) GoOn();
  }
  if (What != Failing::Nothing) GoOn();
}

std::uint64_t Disturb(const Choice& Which, Failing What, std::uint64_t nCase) {
  const Disturbance How(nCase);
  ResetSystem();
  SetClock(SystemClock() + 1000);  // so that every segment has an age
  Driver Work({Which.Fresh("calls"), How.bChecked, Which.nSeed});
  WorkUnder(What, How, &Work);
  const std::uint64_t nFaults = FaultsMade();
  const auto Lookups = How.bChecked && nFaults != 0 ? Driver::Lookups::MayFail : Driver::Lookups::MustSucceed;
  Work.Verify(Driver::End::Whole, Lookups);
  Work.Close();
  const std::uint64_t nAll = What == Failing::Allocation ? Allocations() : AllCalls();
  if (!Work.Open()) Found("it does not open again");
  Work.Verify(Driver::End::Whole, Lookups);
  // A slot that could not be written behind its node's CRC is damage to the next lookup.
  if (Work.IsMarkedCorrupted() && Lookups == Driver::Lookups::MustSucceed) Found("it is marked corrupted");
  Work.AddToEach("after a new start");
  return What == Failing::Nothing ? nAll : nFaults;
}

void RunEach(const Choice& Which, Failing What, const char* pKind, std::uint64_t nWanted) {
  Which.Start(pKind, UINT64_MAX);
  std::uint64_t nAll = 0;
  for (const std::uint64_t nChecked : {0, 1}) {
    Disturb(Which, Failing::Nothing, nChecked);
    nAll = std::max(nAll, What == Failing::Call ? AllCalls() : Allocations());
  }
  std::uint64_t nFaults = 0;
  const std::vector<std::uint64_t> Cases = Which.Cases(4 * nAll, nWanted);
  for (const std::uint64_t nCase : Cases) {
    Which.Start(pKind, nCase);
    nFaults += Disturb(Which, What, nCase);
  }
  std::printf("%s: %zu runs of %llu, %llu failed\n", pKind, Cases.size(), static_cast<unsigned long long>(4 * nAll),
              static_cast<unsigned long long>(nFaults));
}

}  // namespace

void RunCalls(const Choice& Which) {
  RunEach(Which, Failing::Call, "calls", 600);
}

void RunAllocations(const Choice& Which) {
  RunEach(Which, Failing::Allocation, "allocations", 600);
}

}  // namespace lumbra::test
