// The linker's detours (--wrap): __real_ is the system's call, __wrap_ what the code under test reaches.
#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <initializer_list>
#include <new>
#include <utility>

#include "platform/posix/posix.h"
#include "support/system_calls.h"

namespace lumbra::test {
extern "C" int __real_fstat(int, struct stat*);
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
std::atomic<bool> g_bRagged{false};
std::atomic<std::int64_t> g_nClock{0};
std::atomic<std::uint64_t> g_nAllocations{0};
std::atomic<std::uint64_t> g_nFailAllocation{0};   // counts down to the first that fails; 0: none
std::atomic<std::uint64_t> g_nFailAllocations{0};  // how many are still to fail
std::atomic<pthread_t> g_nFailingThread{0};

ChangeWatch g_Watch;
std::atomic<bool> g_bPaused{false};
Gauge g_Any;  // of all kinds of calls; nNative is the cause
std::atomic<std::uint64_t> g_nFaults{0};

// The first errno value that becomes the error.
int NativeError(os::SystemError nError) {
  int nErrno = 1;
  while (os::ErrorFromErrno(nErrno) != nError) ++nErrno;
  return nErrno;
}

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

// Counts a call; the errno value that it fails with, 0 when it goes its way.
int CountCall(SystemCall Call) {
  if (g_bPaused) return 0;
  const bool bAny = IsNext(g_Any);
  const bool bOfItsKind = IsNext(GaugeOf(Call));
  if (!bAny && !bOfItsKind) return 0;
  ++g_nFaults;
  ++GaugeOf(Call).nFailed;
  return bOfItsKind ? GaugeOf(Call).nNative.load()
                    : NativeErrorFor(Call, static_cast<FaultCause>(g_Any.nNative.load()));
}

// Counts an allocation; true when it is one that fails.
bool CountAllocation() {
  if (g_bPaused) return false;
  ++g_nAllocations;
  if (g_nFailAllocation == 0 || g_nFailingThread != pthread_self() || --g_nFailAllocation != 0) return false;
  if (--g_nFailAllocations != 0) g_nFailAllocation = 1;
  ++g_nFaults;
  return true;
}

std::atomic<std::uint64_t> g_nTransfers{0};

bool Fails(SystemCall Call) {
  const int nErrno = CountCall(Call);
  if (nErrno != 0) errno = nErrno;
  return nErrno != 0;
}

// Shortens a transfer, and fails every other one as if it had been interrupted.
bool Interrupts(std::size_t* pnSize) {
  if (!g_bRagged) return false;
  *pnSize = (*pnSize + 1) / 2;
  errno = EINTR;
  return g_nTransfers++ % 2 != 0;
}

bool Watched() {
  return g_Watch && !g_bPaused;
}

std::string PathOf(int nDescriptor) {
  char Path[PATH_MAX];
  const std::string Link = "/proc/self/fd/" + std::to_string(nDescriptor);
  const ssize_t nSize = readlink(Link.c_str(), Path, sizeof(Path));
  return std::string(Path, static_cast<std::size_t>(std::max<ssize_t>(nSize, 0)));
}

// A name in a folder that has come or gone.
void TellName(DiskChange::Kind What, int nFolder, const char* pName) {
  if (!Watched()) return;
  DiskChange Change{What, PathOf(nFolder) + '/' + pName};
  g_Watch(Change);
}

bool IsFolder(int nDescriptor) {
  struct stat Status {};
  return __real_fstat(nDescriptor, &Status) == 0 && S_ISDIR(Status.st_mode);
}

// Asks for the fate of a change of an open file, and makes it unless it is lost or fails; answers what the call does.
template <class MakeIt>
ssize_t Told(DiskChange Change, ssize_t nDone, MakeIt Make) {
  const Fate Decided = g_Watch(Change);
  if (Decided == Fate::Happens) return Make(Change);
  errno = EIO;
  return Decided == Fate::IsLost ? nDone : -1;
}

}  // namespace

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
  g_Watch = {};
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
void MakeTransfersRagged(bool bRagged) {
  g_bRagged = bRagged;
}
void SetClock(std::int64_t nSeconds) {
  g_nClock = nSeconds;
}
std::uint64_t Allocations() {
  return g_nAllocations;
}
void FailAllocation(std::uint64_t nSkip, std::uint64_t nTimes) {
  g_nFailingThread = pthread_self();
  g_nFailAllocations = nTimes;
  g_nFailAllocation = nSkip + 1;
}
bool AllocationFailed() {
  return g_nFailAllocation.exchange(0) == 0;
}

void WatchChanges(ChangeWatch Watch) {
  g_Watch = std::move(Watch);
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
TRANSFER(pread, (int f, void* p, size_t n, off_t o), (f, p, n, o), ReadAt)
CALL(off_t, lseek, (int f, off_t o, int w), (f, o, w), Seek)
CALL(int, fstat, (int f, struct stat* s), (f, s), Size)
CALL(int, flock, (int f, int o), (f, o), Lock)
CALL(int, stat, (const char* p, struct stat* s), (p, s), Look)
CALL(int, statx, (int f, const char* p, int g, unsigned m, struct statx* s), (f, p, g, m, s), Look)
CALL(int, fstatat, (int f, const char* p, struct stat* s, int g), (f, p, s, g), Look)
CALL(int, sem_wait, (sem_t * s), (s), Wait)
DETOUR(void*, malloc, (size_t n), (n), CountAllocation(), nullptr)
DETOUR(void*, calloc, (size_t c, size_t n), (c, n), CountAllocation(), nullptr)

ssize_t __real_pwrite(int, const void*, size_t, off_t);
ssize_t __wrap_pwrite(int f, const void* p, size_t n, off_t o) {
  if (Fails(SystemCall::WriteAt) || Interrupts(&n)) return -1;
  if (!Watched()) return __real_pwrite(f, p, n, o);
  DiskChange Change{DiskChange::Write, PathOf(f), static_cast<std::uint64_t>(o), {static_cast<const char*>(p), n}};
  return Told(std::move(Change), static_cast<ssize_t>(n),
              [f, o](const DiskChange& Made) { return __real_pwrite(f, Made.Bytes.data(), Made.Bytes.size(), o); });
}
ssize_t __real_write(int, const void*, size_t);
ssize_t __wrap_write(int f, const void* p, size_t n) {
  if (Fails(SystemCall::Write) || Interrupts(&n)) return -1;
  if (!Watched()) return __real_write(f, p, n);
  const auto nOffset = static_cast<std::uint64_t>(__real_lseek(f, 0, SEEK_CUR));
  return Told({DiskChange::Write, PathOf(f), nOffset, {static_cast<const char*>(p), n}}, static_cast<ssize_t>(n),
              [f](const DiskChange& Made) { return __real_write(f, Made.Bytes.data(), Made.Bytes.size()); });
}
int __real_ftruncate(int, off_t);
int __wrap_ftruncate(int f, off_t n) {
  if (Fails(SystemCall::SetSize)) return -1;
  if (!Watched()) return __real_ftruncate(f, n);
  return static_cast<int>(Told({DiskChange::SetSize, PathOf(f), static_cast<std::uint64_t>(n)}, 0,
                               [f, n](const DiskChange&) { return __real_ftruncate(f, n); }));
}
int __real_fsync(int);
int __wrap_fsync(int f) {
  if (Fails(SystemCall::Sync)) return -1;
  if (!Watched()) return __real_fsync(f);
  return static_cast<int>(Told({IsFolder(f) ? DiskChange::SyncFolder : DiskChange::Sync, PathOf(f)}, 0,
                               [f](const DiskChange&) { return __real_fsync(f); }));
}
int __real_unlinkat(int, const char*, int);
int __wrap_unlinkat(int f, const char* pName, int nFlags) {
  const int nAnswer = Fails(SystemCall::Remove) ? -1 : __real_unlinkat(f, pName, nFlags);
  if (nAnswer == 0) TellName(DiskChange::Remove, f, pName);
  return nAnswer;
}
int __real_mkdirat(int, const char*, mode_t);
int __wrap_mkdirat(int f, const char* pName, mode_t nMode) {
  const int nAnswer = Fails(SystemCall::MakeFolder) ? -1 : __real_mkdirat(f, pName, nMode);
  if (nAnswer == 0) TellName(DiskChange::MakeFolder, f, pName);
  return nAnswer;
}
int __real_openat(int, const char*, int, ...);
int __wrap_openat(int f, const char* pName, int nFlags, mode_t nMode) {
  if (Fails((nFlags & O_DIRECTORY) != 0 ? SystemCall::OpenFolder : SystemCall::Open)) return -1;
  const int nDescriptor = __real_openat(f, pName, nFlags, nMode);
  if (nDescriptor >= 0 && (nFlags & O_EXCL) != 0) TellName(DiskChange::Create, f, pName);  // the store's way to create
  return nDescriptor;
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
