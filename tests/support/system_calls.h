// The boundary to the operating system and to the heap, as tests see it: calls are counted, made to fail or
// come up short, and the clock is set. Every call of the code under test is led here by the linker (--wrap), so that
// production code carries no hooks. That is done on posix alone, since the code above the seam is the same: on Windows
// a test that asks for it ends there, skipped.
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <string>

#include "platform/os.h"

namespace lumbra::test {

enum class SystemCall {
  Open,
  OpenFolder,  // to list it or to sync it
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

inline std::int64_t SystemClock() {  // what it shows without us, in seconds since 1970
  return std::time(nullptr);
}

#ifdef _WIN32

// Has a function called at each opening of a file, on the thread that opens.
void WatchOpen(void (*pWatch)());

struct PosixAlone {
  template <class... Any>
  std::uint32_t operator()(Any...) const {
    EndTest();
  }

  [[noreturn]] static void EndTest();
};
inline constexpr PosixAlone CallsOf, AllCalls, CallsSinceMark, FailedCalls, FailCalls, SetClock, GetIoPriority,
    SetIoPriority, Allocations, FailAllocation, AllocationFailed;
inline constexpr std::uint32_t kNormalIoPriority = 0, kLowestIoPriority = 0;
inline void MarkCalls() {}

#else

std::uint64_t CallsOf(SystemCall Call);
std::uint64_t AllCalls();
void MarkCalls();
std::uint64_t CallsSinceMark(SystemCall Call);  // or since the last reset
std::uint64_t FailedCalls(SystemCall Call);     // those that were made to fail

// Lets nSkip calls pass and then makes nTimes of them fail with an error, or with an errno value.
void FailCalls(SystemCall Call, os::SystemError nError, std::uint64_t nSkip = 0, std::uint64_t nTimes = 1);
void FailCallsNatively(SystemCall Call, int nErrno, std::uint64_t nSkip = 0, std::uint64_t nTimes = 1);

// Lets nSkip calls of all kinds pass and makes the next nTimes of them fail, each with the error that the cause has for
// its kind: a device that fails, no room or no descriptors, or no right.
enum class FaultCause { Device, Shortage, Denied };
void FailAnyCalls(FaultCause Cause, std::uint64_t nSkip, std::uint64_t nTimes);
std::uint64_t FaultsMade();  // calls and allocations that were made to fail since the last reset

// While they are paused, calls and allocations are neither counted nor made to fail, and no change is told.
void PauseFaults(bool bPaused);

// Makes every read and write move half of what is asked for, at least a byte, and be interrupted every other time.
void MakeTransfersRagged(bool bRagged);

// A change of what is on the disk.
struct DiskChange {
  enum Kind { Write, SetSize, Sync, Create, Remove, MakeFolder, SyncFolder };
  Kind What;
  std::string Path;
  std::uint64_t nOffset = 0;  // of a write; the size that is set
  std::string Bytes = {};     // of a write
};
enum class Fate { Happens, IsLost, Fails };  // lost: it is answered as done and never made

// Has a function told of every change, in their order: before a write, a size or a sync, whose bytes it may alter and
// whose fate it decides; after a name has come or gone. An empty function ends that.
using ChangeWatch = std::function<Fate(DiskChange&)>;
void WatchChanges(ChangeWatch Watch);

// Sets the clock to a time in seconds since 1970; 0 gives it back to the system.
void SetClock(std::int64_t nSeconds);

// The I/O priority of the calling thread, as the system's own number.
inline constexpr std::uint32_t kNormalIoPriority = (2u << 13) | 4;  // the class of best effort, and its level
inline constexpr std::uint32_t kLowestIoPriority = 3u << 13;        // idle
std::uint32_t GetIoPriority();
void SetIoPriority(std::uint32_t nPriority);

// Allocations of the code under test, by operator new and by malloc.
std::uint64_t Allocations();

// Lets nSkip allocations of the calling thread pass and makes the next nTimes of them fail.
void FailAllocation(std::uint64_t nSkip, std::uint64_t nTimes = 1);
bool AllocationFailed();  // whether all of that came to pass; ends it otherwise

#endif

}  // namespace lumbra::test
