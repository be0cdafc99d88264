#include "support/system_calls.h"

#include <fcntl.h>
#include <semaphore.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace lumbra::test {
namespace {

struct Gauge {
  std::atomic<std::uint64_t> nCalls{0};
  std::atomic<std::uint64_t> nFailFrom{UINT64_MAX};  // from the call of this number on ...
  std::atomic<std::uint64_t> nFailTimes{0};          // ... so many fail
  std::atomic<int> nErrno{0};
};
Gauge g_Gauges[static_cast<int>(SystemCall::Count_)];
std::atomic<bool> g_bRagged{false};
std::atomic<std::uint64_t> g_nTransfers{0};
std::atomic<std::int64_t> g_nClock{0};
std::atomic<std::uint64_t> g_nAllocations{0};
thread_local std::uint64_t t_nFailAllocation = 0;  // counts down to the one that fails; 0: none

// Counts a call; true when it is one that fails.
bool Fails(SystemCall Call) {
  Gauge& Counted = g_Gauges[static_cast<int>(Call)];
  const std::uint64_t nCall = Counted.nCalls++;
  if (nCall < Counted.nFailFrom || nCall - Counted.nFailFrom >= Counted.nFailTimes) return false;
  errno = Counted.nErrno;
  return true;
}

// Shortens a transfer, and fails every other one as if it had been interrupted.
bool Interrupts(std::size_t* pnSize) {
  if (!g_bRagged) return false;
  *pnSize = (*pnSize + 1) / 2;
  errno = EINTR;
  return g_nTransfers++ % 2 != 0;
}

bool AllocationFails() {
  ++g_nAllocations;
  return t_nFailAllocation != 0 && --t_nFailAllocation == 0;
}

}  // namespace

void ResetSystem() {
  for (Gauge& One : g_Gauges) {
    One.nCalls = 0;
    One.nFailFrom = UINT64_MAX;
  }
  g_bRagged = false;
  g_nClock = 0;
  g_nAllocations = 0;
  t_nFailAllocation = 0;
}

std::uint64_t CallsOf(SystemCall Call) {
  return g_Gauges[static_cast<int>(Call)].nCalls;
}

std::uint64_t AllCalls() {
  std::uint64_t nSum = 0;
  for (const Gauge& One : g_Gauges) nSum += One.nCalls;
  return nSum;
}

void FailCalls(SystemCall Call, int nErrno, std::uint64_t nSkip, std::uint64_t nTimes) {
  Gauge& One = g_Gauges[static_cast<int>(Call)];
  One.nErrno = nErrno;
  One.nFailTimes = nTimes;
  One.nFailFrom = One.nCalls + nSkip;
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
  t_nFailAllocation = nSkip + 1;
}
bool AllocationFailed() {
  const bool bFailed = t_nFailAllocation == 0;
  t_nFailAllocation = 0;
  return bFailed;
}

// A detour of one call: __real_ is the system's, __wrap_ what the code under test reaches.
#define DETOUR(type, name, parameters, arguments, bFails, failed) \
  type __real_##name parameters;                                  \
  type __wrap_##name parameters {                                 \
    return (bFails) ? failed : __real_##name arguments;           \
  }
#define CALL(type, name, parameters, arguments, call) \
  DETOUR(type, name, parameters, arguments, Fails(SystemCall::call), -1)
#define TRANSFER(name, parameters, arguments, call) \
  DETOUR(ssize_t, name, parameters, arguments, Fails(SystemCall::call) || Interrupts(&n), -1)

extern "C" {

TRANSFER(read, (int f, void* p, size_t n), (f, p, n), Read)
TRANSFER(write, (int f, const void* p, size_t n), (f, p, n), Write)
TRANSFER(pread, (int f, void* p, size_t n, off_t o), (f, p, n, o), ReadAt)
TRANSFER(pwrite, (int f, const void* p, size_t n, off_t o), (f, p, n, o), WriteAt)
CALL(off_t, lseek, (int f, off_t o, int w), (f, o, w), Seek)
CALL(int, fstat, (int f, struct stat* s), (f, s), Size)
CALL(int, ftruncate, (int f, off_t n), (f, n), SetSize)
CALL(int, fsync, (int f), (f), Sync)
CALL(int, flock, (int f, int o), (f, o), Lock)
CALL(int, stat, (const char* p, struct stat* s), (p, s), Look)
CALL(int, statx, (int f, const char* p, int g, unsigned m, struct statx* s), (f, p, g, m, s), Look)
CALL(int, unlink, (const char* p), (p), Remove)
CALL(int, mkdir, (const char* p, mode_t m), (p, m), MakeFolder)
CALL(int, sem_wait, (sem_t * s), (s), Wait)
DETOUR(void*, malloc, (size_t n), (n), AllocationFails(), nullptr)
DETOUR(void*, calloc, (size_t c, size_t n), (c, n), AllocationFails(), nullptr)

int __real_open(const char*, int, ...);
int __wrap_open(const char* pPath, int nFlags, mode_t nMode) {
  const bool bFolder = (nFlags & O_DIRECTORY) != 0;  // a look, not a file that is opened
  return !bFolder && Fails(SystemCall::Open) ? -1 : __real_open(pPath, nFlags, nMode);
}
long __real_syscall(long, ...);
long __wrap_syscall(long nNumber, long a, long b, long c) {
  const bool bPriority = nNumber == SYS_ioprio_get || nNumber == SYS_ioprio_set;
  return bPriority && Fails(SystemCall::Priority) ? -1 : __real_syscall(nNumber, a, b, c);
}
int __real_clock_gettime(clockid_t, struct timespec*);
int __wrap_clock_gettime(clockid_t nClock, struct timespec* pTime) {
  if (nClock != CLOCK_REALTIME || g_nClock == 0) return __real_clock_gettime(nClock, pTime);
  *pTime = {g_nClock, 0};
  return 0;
}

}  // extern "C"

std::int64_t SystemClock() {
  timespec Now{};
  __real_clock_gettime(CLOCK_REALTIME, &Now);
  return Now.tv_sec;
}

}  // namespace lumbra::test

void* operator new(std::size_t nSize, const std::nothrow_t&) noexcept {
  return lumbra::test::AllocationFails() ? nullptr : lumbra::test::__real_malloc(nSize);
}
void* operator new(std::size_t nSize) {
  if (void* const pMemory = operator new(nSize, std::nothrow)) return pMemory;
  throw std::bad_alloc();
}
void operator delete(void* pMemory) noexcept {
  std::free(pMemory);
}
void operator delete(void* pMemory, std::size_t) noexcept {
  std::free(pMemory);
}
