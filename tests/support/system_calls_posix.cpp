// The linker's detours (--wrap): __real_ is the system's call, __wrap_ what the code under test reaches.
#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <new>

#include "platform/posix/posix.h"
#include "support/gauges.h"

namespace lumbra::test {
namespace {

std::atomic<std::uint64_t> g_nTransfers{0};

bool Fails(SystemCall Call) {
  const int nErrno = CountCall(Call);
  if (nErrno != 0) errno = nErrno;
  return nErrno != 0;
}

// Shortens a transfer, and fails every other one as if it had been interrupted.
bool Interrupts(std::size_t* pnSize) {
  if (!TransfersAreRagged()) return false;
  *pnSize = (*pnSize + 1) / 2;
  errno = EINTR;
  return g_nTransfers++ % 2 != 0;
}

}  // namespace

// The first errno value that becomes the error.
int NativeError(os::SystemError nError) {
  int nErrno = 1;
  while (os::ErrorFromErrno(nErrno) != nError) ++nErrno;
  return nErrno;
}

std::uintptr_t CurrentThread() {
  return static_cast<std::uintptr_t>(pthread_self());
}

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
CALL(int, fstatat, (int f, const char* p, struct stat* s, int g), (f, p, s, g), Look)
CALL(int, unlink, (const char* p), (p), Remove)
CALL(int, mkdir, (const char* p, mode_t m), (p, m), MakeFolder)
CALL(int, sem_wait, (sem_t * s), (s), Wait)
DETOUR(void*, malloc, (size_t n), (n), CountAllocation(), nullptr)
DETOUR(void*, calloc, (size_t c, size_t n), (c, n), CountAllocation(), nullptr)

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
  if (nClock != CLOCK_REALTIME || ClockOfTest() == 0) return __real_clock_gettime(nClock, pTime);
  *pTime = {ClockOfTest(), 0};
  return 0;
}

}  // extern "C"

std::int64_t SystemClock() {
  timespec Now{};
  __real_clock_gettime(CLOCK_REALTIME, &Now);
  return Now.tv_sec;
}

const std::uint32_t kNormalIoPriority = (2u << 13) | 4;  // the class of best effort, and its level
const std::uint32_t kLowestIoPriority = 3u << 13;        // idle
std::uint32_t GetIoPriority() {
  return static_cast<std::uint32_t>(__real_syscall(SYS_ioprio_get, 1, 0));
}
void SetIoPriority(std::uint32_t nPriority) {
  __real_syscall(SYS_ioprio_set, 1, 0, nPriority);
}

}  // namespace lumbra::test

void* operator new(std::size_t nSize, const std::nothrow_t&) noexcept {
  return lumbra::test::CountAllocation() ? nullptr : lumbra::test::__real_malloc(nSize);
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
