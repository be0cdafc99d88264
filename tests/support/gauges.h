// The gauges behind system_calls.h: what the detours of a system tell them, and what they ask of the system.
#pragma once

#include "support/system_calls.h"

namespace lumbra::test {

// Counts a call; the system's number of the error that it fails with, 0 when it goes its way.
int CountCall(SystemCall Call);
void ForgetCall(SystemCall Call);  // one that turned out to be a part of another

// Counts an allocation; true when it is one that fails.
bool CountAllocation();

bool FaultsArePaused();
bool TransfersAreRagged();
std::int64_t ClockOfTest();  // 0 where the system's counts

// ---- By the system ----------------------------------------------------------------------------------------

int NativeError(os::SystemError nError);
std::uintptr_t CurrentThread();

}  // namespace lumbra::test
