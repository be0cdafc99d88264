#include "platform/rw_lock.h"

#include <utility>

#include "platform/exception.h"
#include "platform/result.h"

namespace lumbra {

ResultCode ReaderWriterLock::Create() {
  if (m_pReaders != nullptr) return errOK;
  os::Semaphore* pReaders = nullptr;
  os::SystemError nError = os::CreateCountingSemaphore(&pReaders);
  if (nError != os::kSuccess) return ResultFromSystemError(nError);
  nError = os::CreateCountingSemaphore(&m_pWriters);
  if (nError != os::kSuccess) {
    os::CloseSemaphore(pReaders);
    return ResultFromSystemError(nError);
  }
  m_pReaders = pReaders;
  return errOK;  // the counters are 0, or count those who have come already
}

void ReaderWriterLock::Destroy() {
  os::CloseSemaphore(std::exchange(m_pReaders, nullptr));
  os::CloseSemaphore(std::exchange(m_pWriters, nullptr));
}

void ReaderWriterLock::LockShared() {
  if (CountReaders(1)) return;
  m_Guard.lock();
  TakeOver();
  if (m_nState < 0 || m_nWaitingWriters != 0) return Wait(m_pReaders, &m_nWaitingReaders);
  ++m_nState;
  GiveBack();
  m_Guard.unlock();
}

void ReaderWriterLock::LockExclusive() {
  m_Guard.lock();
  TakeOver();
  if (m_nState != 0) return Wait(m_pWriters, &m_nWaitingWriters);
  m_nState = -1;
  m_Guard.unlock();
}

void ReaderWriterLock::Unlock() {
  if (!CountReaders(UINT32_MAX)) Leave();  // one less
}

void ReaderWriterLock::Leave() {
  const os::Hold Guard(m_Guard);
  TakeOver();
  m_nState += m_nState > 0 ? -1 : 1;
  Admit();
  GiveBack();
}

bool ReaderWriterLock::IsHeld() {
  const os::Hold Guard(m_Guard);
  return m_nFreeReaders.load() == kGuarded ? m_nState != 0 : m_nFreeReaders.load() != 0;
}

// Counts a reader in or out where their number alone decides; false, and nothing done, where the guard does.
bool ReaderWriterLock::CountReaders(std::uint32_t nChange) {
  std::uint32_t nReaders = m_nFreeReaders.load(std::memory_order_relaxed);
  while (nReaders != kGuarded) {
    if (m_nFreeReaders.compare_exchange_weak(nReaders, nReaders + nChange, std::memory_order_acq_rel,
                                             std::memory_order_relaxed))
      return true;
  }
  return false;
}

// From now on, and until it is given back, the state is what the guard guards.
void ReaderWriterLock::TakeOver() {
  const std::uint32_t nReaders = m_nFreeReaders.exchange(kGuarded, std::memory_order_acq_rel);
  if (nReaders != kGuarded) m_nState = static_cast<std::int32_t>(nReaders);
}

void ReaderWriterLock::GiveBack() {
  if (m_nState < 0 || m_nWaitingReaders != 0 || m_nWaitingWriters != 0) return;
  m_nFreeReaders.store(static_cast<std::uint32_t>(m_nState), std::memory_order_release);
}

// Leaves the guard on its way. Whoever admits the caller has counted it into the state, and out of
// those who wait.
void ReaderWriterLock::Wait(os::Semaphore* pSemaphore, std::int32_t* pnWaiting) {
  ++*pnWaiting;
  os::SystemError nError = os::WaitForSemaphore(pSemaphore, m_Guard);
  if (nError == os::kSuccess) return;
  m_Guard.lock();
  if (*pnWaiting > 0) {
    // One of those who wait: should the caller have been admitted meanwhile, another one has its place.
    --*pnWaiting;
    Admit();  // the readers that queued behind a writer
    GiveBack();
    m_Guard.unlock();
  } else {
    // All who waited have been admitted, so one release is left for this thread.
    nError = os::WaitForSemaphore(pSemaphore, m_Guard);
    if (nError == os::kSuccess) return;
    Leave();
  }
  ULO_CHECK_RESULT(nError == os::kWaitAbandoned ? errWAIT_ABANDONED : ResultFromSystemError(nError));
}

// Lets in who may come now, and wakes them before the guard is left: so whoever finds itself admitted finds the
// semaphore released.
void ReaderWriterLock::Admit() {
  if (m_nState == 0 && m_nWaitingWriters > 0) {
    --m_nWaitingWriters;
    m_nState = -1;
    os::ReleaseSemaphoreBy(m_pWriters, 1);
  } else if (m_nState >= 0 && m_nWaitingWriters == 0 && m_nWaitingReaders > 0) {
    const std::int32_t nAdmitted = std::exchange(m_nWaitingReaders, 0);
    m_nState += nAdmitted;
    os::ReleaseSemaphoreBy(m_pReaders, static_cast<std::uint32_t>(nAdmitted));
  }
}

}  // namespace lumbra
