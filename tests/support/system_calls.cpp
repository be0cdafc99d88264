#include "support/system_calls.h"

#include <fcntl.h>
#include <semaphore.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <new>

namespace lumbra::test {
namespace {

struct Gauge {
  std::atomic<std::uint64_t> nCalls{0};
  std::atomic<std::uint64_t> nFailFrom{UINT64_MAX};  // calls from this number on ...
  std::atomic<std::uint64_t> nFailTo{UINT64_MAX};    // ... to before this one fail
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
  if (nCall < Counted.nFailFrom || nCall >= Counted.nFailTo) return false;
  errno = Counted.nErrno;
  return true;
}

bool Interrupted() {
  if (!g_bRagged || g_nTransfers++ % 2 == 0) return false;
  errno = EINTR;
  return true;
}

std::size_t Cut(std::size_t nSize) {
  return g_bRagged ? std::max<std::size_t>(nSize / 2, std::min<std::size_t>(nSize, 1)) : nSize;
}

bool AllocationFails() {
  ++g_nAllocations;
  return t_nFailAllocation != 0 && --t_nFailAllocation == 0;
}

}  // namespace

void ResetSystem() {
  for (Gauge& One : g_Gauges) {
    One.nCalls = 0;
    One.nFailFrom = One.nFailTo = UINT64_MAX;
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
  const std::uint64_t nFrom = One.nCalls + nSkip;
  One.nFailTo = nTimes > UINT64_MAX - nFrom ? UINT64_MAX : nFrom + nTimes;
  One.nFailFrom = nFrom;
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

extern "C" {

int __real_open(const char*, int, ...);
int __real_close(int);
ssize_t __real_read(int, void*, size_t);
ssize_t __real_write(int, const void*, size_t);
ssize_t __real_pread(int, void*, size_t, off_t);
ssize_t __real_pwrite(int, const void*, size_t, off_t);
off_t __real_lseek(int, off_t, int);
int __real_fstat(int, struct stat*);
int __real_ftruncate(int, off_t);
int __real_fsync(int);
int __real_flock(int, int);
int __real_stat(const char*, struct stat*);
int __real_statx(int, const char*, int, unsigned, struct statx*);
int __real_unlink(const char*);
int __real_mkdir(const char*, mode_t);
long __real_syscall(long, ...);
int __real_sem_wait(sem_t*);
int __real_clock_gettime(clockid_t, struct timespec*);
void* __real_malloc(size_t);
void* __real_calloc(size_t, size_t);

int __wrap_open(const char* pPath, int nFlags, ...) {
  std::va_list Arguments;
  va_start(Arguments, nFlags);
  const mode_t nMode = (nFlags & O_CREAT) != 0 ? static_cast<mode_t>(va_arg(Arguments, int)) : 0;
  va_end(Arguments);
  return Fails(SystemCall::Open) ? -1 : __real_open(pPath, nFlags, nMode);
}
int __wrap_close(int nFile) {
  const bool bFails = Fails(SystemCall::Close);
  const int nError = errno;
  const int nAnswer = __real_close(nFile);  // the descriptor goes in any case, as it does with a failing disk
  errno = nError;
  return bFails ? -1 : nAnswer;
}
ssize_t __wrap_read(int nFile, void* pBuffer, size_t nSize) {
  if (Fails(SystemCall::Read) || Interrupted()) return -1;
  return __real_read(nFile, pBuffer, Cut(nSize));
}
ssize_t __wrap_write(int nFile, const void* pData, size_t nSize) {
  if (Fails(SystemCall::Write) || Interrupted()) return -1;
  return __real_write(nFile, pData, Cut(nSize));
}
ssize_t __wrap_pread(int nFile, void* pBuffer, size_t nSize, off_t nOffset) {
  if (Fails(SystemCall::ReadAt) || Interrupted()) return -1;
  return __real_pread(nFile, pBuffer, Cut(nSize), nOffset);
}
ssize_t __wrap_pwrite(int nFile, const void* pData, size_t nSize, off_t nOffset) {
  if (Fails(SystemCall::WriteAt) || Interrupted()) return -1;
  return __real_pwrite(nFile, pData, Cut(nSize), nOffset);
}
off_t __wrap_lseek(int nFile, off_t nOffset, int nOrigin) {
  return Fails(SystemCall::Seek) ? -1 : __real_lseek(nFile, nOffset, nOrigin);
}
int __wrap_fstat(int nFile, struct stat* pStatus) {
  return Fails(SystemCall::Size) ? -1 : __real_fstat(nFile, pStatus);
}
int __wrap_ftruncate(int nFile, off_t nSize) {
  return Fails(SystemCall::SetSize) ? -1 : __real_ftruncate(nFile, nSize);
}
int __wrap_fsync(int nFile) {
  return Fails(SystemCall::Sync) ? -1 : __real_fsync(nFile);
}
int __wrap_flock(int nFile, int nOperation) {
  return Fails(SystemCall::Lock) ? -1 : __real_flock(nFile, nOperation);
}
int __wrap_stat(const char* pPath, struct stat* pStatus) {
  return Fails(SystemCall::Look) ? -1 : __real_stat(pPath, pStatus);
}
int __wrap_statx(int nFolder, const char* pPath, int nFlags, unsigned nMask, struct statx* pStatus) {
  return Fails(SystemCall::Look) ? -1 : __real_statx(nFolder, pPath, nFlags, nMask, pStatus);
}
int __wrap_unlink(const char* pPath) {
  return Fails(SystemCall::Remove) ? -1 : __real_unlink(pPath);
}
int __wrap_mkdir(const char* pPath, mode_t nMode) {
  return Fails(SystemCall::MakeFolder) ? -1 : __real_mkdir(pPath, nMode);
}
long __wrap_syscall(long nNumber, ...) {
  std::va_list Arguments;
  va_start(Arguments, nNumber);
  const long nFirst = va_arg(Arguments, long);
  const long nSecond = va_arg(Arguments, long);
  const long nThird = va_arg(Arguments, long);
  va_end(Arguments);
  const bool bPriority = nNumber == SYS_ioprio_get || nNumber == SYS_ioprio_set;
  if (bPriority && Fails(SystemCall::Priority)) return -1;
  return __real_syscall(nNumber, nFirst, nSecond, nThird);
}
int __wrap_sem_wait(sem_t* pSemaphore) {
  return Fails(SystemCall::Wait) ? -1 : __real_sem_wait(pSemaphore);
}
int __wrap_clock_gettime(clockid_t nClock, struct timespec* pTime) {
  if (nClock != CLOCK_REALTIME || g_nClock == 0) return __real_clock_gettime(nClock, pTime);
  *pTime = {g_nClock, 0};
  return 0;
}
void* __wrap_malloc(size_t nSize) {
  return AllocationFails() ? nullptr : __real_malloc(nSize);
}
void* __wrap_calloc(size_t nCount, size_t nSize) {
  return AllocationFails() ? nullptr : __real_calloc(nCount, nSize);
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
void operator delete(void* pMemory, const std::nothrow_t&) noexcept {
  std::free(pMemory);
}
