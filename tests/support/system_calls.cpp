#include "support/system_calls.h"

#include <atomic>

#include "support/gauges.h"

namespace lumbra::test {
namespace {

struct Gauge {
  std::atomic<std::uint64_t> nCalls{0};
  std::atomic<std::uint64_t> nFailFrom{UINT64_MAX};  // from the call of this number on ...
  std::atomic<std::uint64_t> nFailTimes{0};          // ... so many fail
  std::atomic<int> nNative{0};
};
Gauge g_Gauges[static_cast<int>(SystemCall::Count_)];
std::atomic<void (*)()> g_pWatchOpen{nullptr};
std::atomic<bool> g_bRagged{false};
std::atomic<std::int64_t> g_nClock{0};
std::atomic<std::uint64_t> g_nAllocations{0};
std::atomic<std::uint64_t> g_nFailAllocation{0};  // counts down to the one that fails; 0: none
std::atomic<std::uintptr_t> g_nFailingThread{0};  // and not thread_local, for which some systems allocate

Gauge& GaugeOf(SystemCall Call) {
  return g_Gauges[static_cast<int>(Call)];
}

}  // namespace

int CountCall(SystemCall Call) {
  if (void (*const pWatch)() = g_pWatchOpen; pWatch != nullptr && Call == SystemCall::Open) pWatch();
  Gauge& Counted = GaugeOf(Call);
  const std::uint64_t nCall = Counted.nCalls++;
  return nCall < Counted.nFailFrom || nCall - Counted.nFailFrom >= Counted.nFailTimes ? 0 : Counted.nNative.load();
}

void ForgetCall(SystemCall Call) {
  --GaugeOf(Call).nCalls;
}

bool CountAllocation() {
  ++g_nAllocations;
  return g_nFailAllocation != 0 && g_nFailingThread == CurrentThread() && --g_nFailAllocation == 0;
}

bool TransfersAreRagged() {
  return g_bRagged;
}
std::int64_t ClockOfTest() {
  return g_nClock;
}

void ResetSystem() {
  for (Gauge& One : g_Gauges) {
    One.nCalls = 0;
    One.nFailFrom = UINT64_MAX;
  }
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

void FailCalls(SystemCall Call, os::SystemError nError, std::uint64_t nSkip, std::uint64_t nTimes) {
  FailCallsNatively(Call, NativeError(nError), nSkip, nTimes);
}

void FailCallsNatively(SystemCall Call, int nNative, std::uint64_t nSkip, std::uint64_t nTimes) {
  Gauge& One = GaugeOf(Call);
  One.nNative = nNative;
  One.nFailTimes = nTimes;
  One.nFailFrom = One.nCalls + nSkip;
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
std::uint64_t Allocations() {
  return g_nAllocations;
}
void FailAllocation(std::uint64_t nSkip) {
  g_nFailingThread = CurrentThread();
  g_nFailAllocation = nSkip + 1;
}
bool AllocationFailed() {
  return g_nFailAllocation.exchange(0) == 0;
}

}  // namespace lumbra::test
