#include "platform/rw_lock.h"

#include <mutex>
#include <utility>

#include "platform/exception.h"
#include "platform/result.h"

namespace lumbra {
namespace {

void Wait(os::Semaphore* pSemaphore) {
  const os::SystemError nError = os::WaitForSemaphore(pSemaphore);
  ULO_CHECK_RESULT(nError == os::kWaitAbandoned ? errWAIT_ABANDONED : ResultFromSystemError(nError));
}

}  // namespace

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
  {
    const std::lock_guard Guard(m_Guard);
    if (m_nState >= 0 && m_nWaitingWriters == 0) {
      ++m_nState;
      return;
    }
    ++m_nWaitingReaders;
  }
  Wait(m_pReaders);  // whoever releases us has counted us into the state
}

void ReaderWriterLock::LockExclusive() {
  {
    const std::lock_guard Guard(m_Guard);
    if (m_nState == 0) {
      m_nState = -1;
      return;
    }
    ++m_nWaitingWriters;
  }
  Wait(m_pWriters);  // whoever releases us has set the state to -1
}

void ReaderWriterLock::Unlock() {
  os::Semaphore* pRelease = nullptr;
  std::uint32_t nRelease = 0;
  {
    const std::lock_guard Guard(m_Guard);
    m_nState += m_nState > 0 ? -1 : 1;
    if (m_nState == 0 && m_nWaitingWriters > 0) {
      --m_nWaitingWriters;
      m_nState = -1;
      pRelease = m_pWriters;
      nRelease = 1;
    } else if (m_nState == 0 && m_nWaitingReaders > 0) {
      m_nState = std::exchange(m_nWaitingReaders, 0);
      pRelease = m_pReaders;
      nRelease = static_cast<std::uint32_t>(m_nState);
    }
  }
  if (pRelease != nullptr) os::ReleaseSemaphoreBy(pRelease, nRelease);
}

}  // namespace lumbra
