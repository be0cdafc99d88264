// A reader/writer lock that prefers writers: once a writer waits, new readers queue behind it, and a leaving
// writer hands the lock to the next writer before any reader. Waiting readers are admitted together, in one
// release.
//
// Not recursive: a thread that holds it in any way must not ask for it again.
#pragma once

#include <cstdint>

#include "lumbra/result_code.h"
#include "platform/os.h"

namespace lumbra {

class ReaderWriterLock {
 public:
  ReaderWriterLock() = default;
  ~ReaderWriterLock() { Destroy(); }  // the lock must be free
  ReaderWriterLock(const ReaderWriterLock&) = delete;
  ReaderWriterLock& operator=(const ReaderWriterLock&) = delete;

  // Makes what threads wait on. Until then only uncontended use works. Has no effect when it was done before.
  ResultCode Create();
  void Destroy();

  // Raise ulo::CheckResultFailedException when waiting fails. The lock is then as if they had not been called.
  void LockShared();
  void LockExclusive();

  // Ends a shared and an exclusive hold alike.
  void Unlock();

 private:
  void Wait(os::Semaphore* pSemaphore, std::int32_t* pnWaiting);
  void Admit();

  os::CriticalSection m_Guard;  // held for a few instructions, never across a wait
  os::Semaphore* m_pReaders = nullptr;
  os::Semaphore* m_pWriters = nullptr;
  std::int32_t m_nWaitingReaders = 0;
  std::int32_t m_nWaitingWriters = 0;
  std::int32_t m_nState = 0;  // 0 free, n > 0 held by n readers, -1 held by a writer
};

class SharedHold {
 public:
  explicit SharedHold(ReaderWriterLock& Lock) : m_Lock(Lock) { m_Lock.LockShared(); }
  ~SharedHold() { m_Lock.Unlock(); }
  SharedHold(const SharedHold&) = delete;
  SharedHold& operator=(const SharedHold&) = delete;

 private:
  ReaderWriterLock& m_Lock;
};

class ExclusiveHold {
 public:
  explicit ExclusiveHold(ReaderWriterLock& Lock) : m_Lock(Lock) { m_Lock.LockExclusive(); }
  ~ExclusiveHold() { m_Lock.Unlock(); }
  ExclusiveHold(const ExclusiveHold&) = delete;
  ExclusiveHold& operator=(const ExclusiveHold&) = delete;

 private:
  ReaderWriterLock& m_Lock;
};

}  // namespace lumbra
