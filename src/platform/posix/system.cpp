// Time, locks, semaphores and thread priority on posix.
#include <pthread.h>
#include <semaphore.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <utility>

#include "platform/posix/posix.h"

namespace lumbra::os {

std::uint32_t ProcessId() {
  return static_cast<std::uint32_t>(getpid());
}

std::uint64_t CurrentTime() {
  timespec Now{};
  clock_gettime(CLOCK_REALTIME, &Now);
  return static_cast<std::uint64_t>((Now.tv_sec + kSecondsTo1970) * kFileTimeUnitsPerSecond +
                                    Now.tv_nsec / kNanosecondsPerFileTimeUnit);
}

// ---- Locks ------------------------------------------------------------------------------------------------

namespace {

pthread_mutex_t* MutexIn(std::byte* pStorage) {
  return std::launder(reinterpret_cast<pthread_mutex_t*>(pStorage));
}

}  // namespace

CriticalSection::CriticalSection() {
  static_assert(sizeof(pthread_mutex_t) <= sizeof(m_Storage) && alignof(pthread_mutex_t) <= alignof(CriticalSection));
  pthread_mutexattr_t Attributes;
  pthread_mutexattr_init(&Attributes);
  pthread_mutexattr_settype(&Attributes, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(new (m_Storage) pthread_mutex_t, &Attributes);
  pthread_mutexattr_destroy(&Attributes);
}

CriticalSection::~CriticalSection() {
  pthread_mutex_destroy(MutexIn(m_Storage));
}
void CriticalSection::lock() {
  pthread_mutex_lock(MutexIn(m_Storage));
  m_Holder.Enter();
}
bool CriticalSection::try_lock() {
  if (pthread_mutex_trylock(MutexIn(m_Storage)) != 0) return false;
  m_Holder.Enter();
  return true;
}
void CriticalSection::unlock() {
  m_Holder.Leave();
  pthread_mutex_unlock(MutexIn(m_Storage));
}

// The system's own semaphore gives its count to whoever asks first: one that has just come would take what was released
// for those who wait and have not woken up yet. So each who waits has a place in a queue, and is woken for itself.
struct Semaphore {
  struct Place {
    sem_t Wake;
    bool bServed = false;
    Place* pNext = nullptr;
  };

  // Takes one off the count, or a place at the queue's end, which then answers false.
  bool TakeOrQueue(Place* pPlace) {
    const os::Hold Inside(Guard);
    if (nCount > 0) {
      --nCount;
      return true;
    }
    sem_init(&pPlace->Wake, 0, 0);
    *LinkTo(nullptr) = pPlace;
    return false;
  }

  // Gives up a place; whether it was served before.
  bool Leave(Place* pPlace) {
    const os::Hold Inside(Guard);  // who served it has let go of it
    sem_destroy(&pPlace->Wake);
    if (!pPlace->bServed) *LinkTo(pPlace) = pPlace->pNext;
    return pPlace->bServed;
  }

  // Serves those who wait, in the order in which they came, and keeps what is left.
  void Release(std::uint32_t nReleased) {
    const os::Hold Inside(Guard);
    for (; nReleased > 0 && pFirst != nullptr; --nReleased) {
      Place* const pServed = std::exchange(pFirst, pFirst->pNext);
      pServed->bServed = true;
      sem_post(&pServed->Wake);
    }
    nCount += nReleased;
  }

 private:
  Place** LinkTo(const Place* pPlace) REQUIRES(Guard) {
    Place** ppLink = &pFirst;
    while (*ppLink != pPlace) ppLink = &(*ppLink)->pNext;
    return ppLink;
  }

  CriticalSection Guard;
  std::uint32_t nCount GUARDED_BY(Guard) = 0;
  Place* pFirst GUARDED_BY(Guard) = nullptr;
};

SystemError CreateCountingSemaphore(Semaphore** ppSemaphore) {
  auto* const pCreated = new (std::nothrow) Semaphore;
  if (pCreated == nullptr) return kNotEnoughMemory;
  *ppSemaphore = pCreated;
  return kSuccess;
}

SystemError WaitForSemaphore(Semaphore* pSemaphore, CriticalSection& Held) {
  Semaphore::Place Own;
  const bool bTaken = pSemaphore != nullptr && pSemaphore->TakeOrQueue(&Own);
  Held.unlock();
  if (pSemaphore == nullptr) return kInvalidHandle;
  if (bTaken) return kSuccess;
  int nErrno = 0;
  do {
    nErrno = sem_wait(&Own.Wake) == 0 ? 0 : errno;
  } while (nErrno == EINTR);
  return pSemaphore->Leave(&Own) ? kSuccess : ErrorFromErrno(nErrno);
}

void ReleaseSemaphoreBy(Semaphore* pSemaphore, std::uint32_t nCount) {
  if (pSemaphore != nullptr) pSemaphore->Release(nCount);
}

void CloseSemaphore(Semaphore* pSemaphore) {
  delete pSemaphore;
}

// ---- The calling thread -----------------------------------------------------------------------------------

namespace {

constinit thread_local void* t_pThreadPointer = nullptr;

}  // namespace

void* GetThreadPointer() {
  return t_pThreadPointer;
}
void SetThreadPointer(void* pValue) {
  t_pThreadPointer = pValue;
}

// Threads do not borrow identities here.
SystemError SuspendImpersonation(void** ppToken) {
  *ppToken = nullptr;
  return kSuccess;
}
void ResumeImpersonation(void* /*pToken*/) {}

namespace {

// The system has no C interface for I/O priorities. A value is the class in the bits from 13 on and the level
// within the class below them; in the best-effort class 4 is the level of threads that nobody asked anything
// of.
constexpr int kWhoThread = 1;
constexpr int kCallingThread = 0;
constexpr std::uint32_t kClassShift = 13;
constexpr std::uint32_t kClassBestEffort = 2;
constexpr std::uint32_t kClassIdle = 3;
constexpr std::uint32_t kLevelMask = 7;
constexpr std::uint32_t kNormalBestEffort = 4;

// Levels of the vocabulary of os.h: 0 very low, 1 low, 2 normal.
std::uint32_t LevelOf(std::uint32_t nExact) {
  const std::uint32_t nClass = nExact >> kClassShift;
  if (nClass == kClassIdle) return 0;
  if (nClass == kClassBestEffort && (nExact & kLevelMask) > kNormalBestEffort) return 1;
  return kIoPriorityNormal;
}

SystemError SetExactIoPriority(std::uint32_t nExact) {
  const long nAnswer = syscall(SYS_ioprio_set, kWhoThread, kCallingThread, nExact);
  return nAnswer == 0 ? kSuccess : ErrorFromErrno(errno);
}

}  // namespace

SystemError QueryIoPriority(IoPriority* pPriority) {
  const long nAnswer = syscall(SYS_ioprio_get, kWhoThread, kCallingThread);
  if (nAnswer < 0) return ErrorFromErrno(errno);
  pPriority->nExact = static_cast<std::uint32_t>(nAnswer);
  pPriority->nLevel = LevelOf(pPriority->nExact);
  return kSuccess;
}

SystemError SetIoPriority(const IoPriority& Priority) {
  return SetExactIoPriority(Priority.nExact);
}
SystemError SetNormalIoPriority() {
  return SetExactIoPriority((kClassBestEffort << kClassShift) | kNormalBestEffort);
}

}  // namespace lumbra::os
