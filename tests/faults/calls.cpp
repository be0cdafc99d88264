// Every system call and every allocation of a run of work fails, once or until the fault is gone. Nothing crashes; what
// was answered as done is kept; and when the fault is gone the store goes on as it is.
#include <algorithm>

#include "faults/programme.h"

namespace lumbra::test {
namespace {

constexpr int kSteps = 120;
constexpr int kStepsOfAFault = 3;  // those that a fault for good lasts

using Fail = void (*)(FaultCause Cause, std::uint64_t nSkip, std::uint64_t nTimes);
void FailAllocations(FaultCause, std::uint64_t nSkip, std::uint64_t nTimes) {
  FailAllocation(nSkip, nTimes);
}

// The case's number: checked or not, once or for good, and which call, from which follows why it fails.
struct Disturbance {
  explicit Disturbance(std::uint64_t nCase)
      : bChecked(nCase % 2 != 0),
        nTimes(nCase / 2 % 2 != 0 ? UINT64_MAX : 1),
        nSkip(nCase / 4),
        Cause(static_cast<FaultCause>(nSkip % 3)) {}
  bool bChecked;
  std::uint64_t nTimes;
  std::uint64_t nSkip;
  FaultCause Cause;
};

// A flush during which a sync failed is answered so, and so is each one behind it, until the store is opened again.
struct FlushWatch {
  void operator()(const Fact& Of) {
    const std::uint64_t nNow = FailedCalls(SystemCall::Sync);
    bFailed = bFailed || (bFlushing && nNow != nBefore);
    if (Of.Kind == Fact::Flushed && bFailed) Found("a flush is answered as done whose sync failed");
    if (Of.Kind != Fact::Begin) return;
    bFlushing = Of.Of.nTag == kFlush;
    bFailed = bFailed && Of.Of.nTag != kOpen;
    nBefore = nNow;
  }
  bool bFlushing = false;
  bool bFailed = false;
  std::uint64_t nBefore = 0;
};

void GoOn(const Disturbance& How, Driver* pDriver) {
  FailAnyCalls(How.Cause, 0, 0);
  (void)AllocationFailed();
  if (How.Cause == FaultCause::Denied) pDriver->Close();  // a right that was refused is not asked for again
  if (!pDriver->Open()) Found("it does not open when the fault is gone");
  pDriver->AddToEach("when the fault is gone");
}

void WorkUnder(Fail Begin, const Disturbance& How, Driver* pDriver) {
  if (Begin != nullptr) Begin(How.Cause, How.nSkip, How.nTimes);
  (void)pDriver->Open();  // the first fault may be here
  int nUnderFault = 0;
  for (int i = 0; i < kSteps; ++i) {
    pDriver->Step();
    if (FaultsMade() != 0 && ++nUnderFault == kStepsOfAFault) GoOn(How, pDriver);
  }
  if (Begin != nullptr) GoOn(How, pDriver);
}

// Answers how many faults there were; without a fault, how many there could be.
std::uint64_t Disturb(const Choice& Which, Fail Begin, std::uint64_t nCase, std::uint64_t (*pCount)()) {
  const Disturbance How(nCase);
  ResetSystem();
  SetClock(SystemClock() + 1000);  // so that every segment has an age
  Driver::Setup With = Which.With(Which.Fresh("calls"), How.bChecked);
  With.Tell = FlushWatch();
  Driver Work(std::move(With));
  WorkUnder(Begin, How, &Work);
  const std::uint64_t nFaults = FaultsMade();
  const std::uint64_t nAll = pCount();
  const auto Lookups = How.bChecked && nFaults != 0 ? Driver::Lookups::MayFail : Driver::Lookups::MustSucceed;
  Work.Verify(Driver::End::Whole, Lookups);
  Work.Close();
  if (!Work.Open()) Found("it does not open again");
  Work.Verify(Driver::End::Whole, Lookups);
  // A slot that could not be written behind its node's CRC is damage to the next lookup.
  if (Work.IsMarkedCorrupted() && Lookups == Driver::Lookups::MustSucceed) Found("it is marked corrupted");
  Work.AddToEach("after a new start");
  return Begin == nullptr ? nAll : nFaults;
}

std::string RunEach(const Choice& Which, Fail Begin, std::uint64_t (*pCount)(), const char* pKind) {
  Which.Start(pKind, kNoCase);
  const std::uint64_t nAll = 4 * std::max(Disturb(Which, nullptr, 0, pCount), Disturb(Which, nullptr, 1, pCount));
  std::uint64_t nFaults = 0;
  const std::vector<std::uint64_t> Cases = Which.Cases(nAll, 600);
  for (const std::uint64_t nCase : Cases) {
    Which.Start(pKind, nCase);
    nFaults += Disturb(Which, Begin, nCase, pCount);
  }
  return std::to_string(Cases.size()) + " runs of " + std::to_string(nAll) + ", " + std::to_string(nFaults) + " failed";
}

}  // namespace

std::string RunCalls(const Choice& Which) {
  return RunEach(Which, &FailAnyCalls, &AllCalls, "calls");
}
std::string RunAllocations(const Choice& Which) {
  return RunEach(Which, &FailAllocations, &Allocations, "allocations");
}

}  // namespace lumbra::test
