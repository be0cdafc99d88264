#include "support/system_calls.h"

#include <algorithm>
#include <atomic>
#include <ctime>
#include <initializer_list>

#include "support/gauges.h"

namespace lumbra::test {
namespace {

struct Gauge {
  std::atomic<std::uint64_t> nCalls{0};
  std::atomic<std::uint64_t> nMarked{0};
  std::atomic<std::uint64_t> nFailed{0};
  std::atomic<std::uint64_t> nFailFrom{UINT64_MAX};  // from the call of this number on ...
  std::atomic<std::uint64_t> nFailTimes{0};          // ... so many fail
  std::atomic<int> nNative{0};
};
Gauge g_Gauges[static_cast<int>(SystemCall::Count_)];
std::atomic<void (*)()> g_pWatchOpen{nullptr};
std::atomic<bool> g_bRagged{false};
std::atomic<std::int64_t> g_nClock{0};
std::atomic<std::uint64_t> g_nAllocations{0};
std::atomic<std::uint64_t> g_nFailAllocation{0};   // counts down to the first that fails; 0: none
std::atomic<std::uint64_t> g_nFailAllocations{0};  // how many are still to fail
std::atomic<std::uintptr_t> g_nFailingThread{0};   // and not thread_local, for which some systems allocate

std::atomic<bool> g_bPaused{false};
Gauge g_Any;  // of all kinds of calls; nNative is the cause
std::atomic<std::uint64_t> g_nFaults{0};

// The error of a cause, where a call of the kind can meet it; otherwise that of a device.
int NativeErrorFor(SystemCall Call, FaultCause Cause) {
  using enum SystemCall;
  const auto IsAmong = [Call](std::initializer_list<SystemCall> Calls) {
    return std::ranges::find(Calls, Call) != Calls.end();
  };
  const bool bOpens = IsAmong({Open, OpenFolder});
  if (Cause == FaultCause::Shortage && bOpens) return NativeError(os::kTooManyOpenFiles);
  if (Cause == FaultCause::Shortage && IsAmong({Write, WriteAt, SetSize, MakeFolder}))
    return NativeError(os::kDiskFull);
  if (Cause == FaultCause::Denied && (bOpens || IsAmong({Look, Remove, MakeFolder})))
    return NativeError(os::kAccessDenied);
  return NativeError(os::kIoDevice);
}

bool IsNext(Gauge& Counted) {
  const std::uint64_t nCall = Counted.nCalls++;
  return nCall >= Counted.nFailFrom && nCall - Counted.nFailFrom < Counted.nFailTimes;
}

Gauge& GaugeOf(SystemCall Call) {
  return g_Gauges[static_cast<int>(Call)];
}

}  // namespace

int CountCall(SystemCall Call) {
  if (g_bPaused) return 0;
  if (void (*const pWatch)() = g_pWatchOpen; pWatch != nullptr && Call == SystemCall::Open) pWatch();
  const bool bAny = IsNext(g_Any);
  const bool bOfItsKind = IsNext(GaugeOf(Call));
  if (!bAny && !bOfItsKind) return 0;
  ++g_nFaults;
  ++GaugeOf(Call).nFailed;
  return bOfItsKind ? GaugeOf(Call).nNative.load()
                    : NativeErrorFor(Call, static_cast<FaultCause>(g_Any.nNative.load()));
}

void ForgetCall(SystemCall Call) {
  --GaugeOf(Call).nCalls;
  --g_Any.nCalls;
}

bool CountAllocation() {
  if (g_bPaused) return false;
  ++g_nAllocations;
  if (g_nFailAllocation == 0 || g_nFailingThread != CurrentThread() || --g_nFailAllocation != 0) return false;
  if (--g_nFailAllocations != 0) g_nFailAllocation = 1;
  ++g_nFaults;
  return true;
}

bool TransfersAreRagged() {
  return g_bRagged;
}
std::int64_t ClockOfTest() {
  return g_nClock;
}

void ResetSystem() {
  const auto Reset = [](Gauge& One) {
    One.nCalls = 0;
    One.nMarked = 0;
    One.nFailed = 0;
    One.nFailFrom = UINT64_MAX;
  };
  for (Gauge& One : g_Gauges) Reset(One);
  Reset(g_Any);
  g_bPaused = false;
  g_nFaults = 0;
  WatchChanges({});
  g_pWatchOpen = nullptr;
  g_bRagged = false;
  g_nClock = 0;
  g_nAllocations = 0;
  g_nFailAllocation = 0;
}

std::uint64_t CallsOf(SystemCall Call) {
  return GaugeOf(Call).nCalls;
}

std::uint64_t AllCalls() {
  std::uint64_t nSum = 0;
  for (const Gauge& One : g_Gauges) nSum += One.nCalls;
  return nSum;
}

void MarkCalls() {
  for (Gauge& One : g_Gauges) One.nMarked = One.nCalls.load();
}
std::uint64_t CallsSinceMark(SystemCall Call) {
  return GaugeOf(Call).nCalls - GaugeOf(Call).nMarked;
}

std::uint64_t FailedCalls(SystemCall Call) {
  return GaugeOf(Call).nFailed;
}

void FailCalls(SystemCall Call, os::SystemError nError, std::uint64_t nSkip, std::uint64_t nTimes) {
  FailCallsNatively(Call, NativeError(nError), nSkip, nTimes);
}

void FailCallsNatively(SystemCall Call, int nNative, std::uint64_t nSkip, std::uint64_t nTimes) {
  Gauge& One = GaugeOf(Call);
  One.nNative = nNative;
  One.nFailTimes = nTimes;
  One.nFailFrom = One.nCalls + nSkip;
}

void FailAnyCalls(FaultCause Cause, std::uint64_t nSkip, std::uint64_t nTimes) {
  g_Any.nNative = static_cast<int>(Cause);
  g_Any.nFailTimes = nTimes;
  g_Any.nFailFrom = g_Any.nCalls + nSkip;
}
std::uint64_t FaultsMade() {
  return g_nFaults;
}
void PauseFaults(bool bPaused) {
  g_bPaused = bPaused;
}
bool FaultsArePaused() {
  return g_bPaused;
}

void WatchOpen(void (*pWatch)()) {
  g_pWatchOpen = pWatch;
}
void MakeTransfersRagged(bool bRagged) {
  g_bRagged = bRagged;
}
void SetClock(std::int64_t nSeconds) {
  g_nClock = nSeconds;
}
std::int64_t SystemClock() {
  return std::time(nullptr);  // which no detour stands before
}
std::uint64_t Allocations() {
  return g_nAllocations;
}
void FailAllocation(std::uint64_t nSkip, std::uint64_t nTimes) {
  g_nFailingThread = CurrentThread();
  g_nFailAllocations = nTimes;
  g_nFailAllocation = nSkip + 1;
}
bool AllocationFailed() {
  return g_nFailAllocation.exchange(0) == 0;
}

}  // namespace lumbra::test
