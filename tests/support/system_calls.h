// The boundary to the operating system and to the heap, as tests see it: calls are counted, made to fail or
// come up short, and the clock is set. The linker leads every call of the code under test here (--wrap), so
// that production code carries no hooks.
#pragma once

#include <cerrno>
#include <cstdint>

namespace lumbra::test {

enum class SystemCall {
  Open,
  Read,
  Write,
  ReadAt,
  WriteAt,
  Seek,
  Size,  // of an open file
  SetSize,
  Sync,
  Lock,
  Look,  // at a file by its name
  Remove,
  MakeFolder,
  Priority,  // of the thread's input and output
  Wait,      // on a semaphore
  Count_
};

// Undoes what the last test set, and counts from 0.
void ResetSystem();

std::uint64_t CallsOf(SystemCall Call);
std::uint64_t AllCalls();

// Lets nSkip calls pass and then makes nTimes of them fail with an errno value.
void FailCalls(SystemCall Call, int nErrno, std::uint64_t nSkip = 0, std::uint64_t nTimes = 1);

// Makes every read and write move half of what is asked for, at least a byte, and be interrupted every other
// time.
void MakeTransfersRagged(bool bRagged);

// Sets the clock to a time in seconds since 1970; 0 gives it back to the system.
void SetClock(std::int64_t nSeconds);
std::int64_t SystemClock();  // what it shows without us, in seconds since 1970

// Allocations of the code under test, by operator new and by malloc.
std::uint64_t Allocations();

// Lets nSkip allocations of the calling thread pass and makes the next one fail.
void FailAllocation(std::uint64_t nSkip);
bool AllocationFailed();  // whether that came to pass; ends it otherwise

}  // namespace lumbra::test
