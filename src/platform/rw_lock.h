// A reader/writer lock that prefers writers: once a writer waits, new readers queue behind it, and a leaving
// writer hands the lock to the next writer before any reader. Waiting readers are admitted together, in one
// release.
//
// Not recursive: a thread that holds it in any way must not ask for it again.
#pragma once

#include <atomic>
#include <cstdint>

#include "lumbra/result_code.h"
#include "platform/os.h"

namespace lumbra {

class CAPABILITY("reader/writer lock") ReaderWriterLock {
 public:
  ReaderWriterLock() = default;
  ~ReaderWriterLock() { Destroy(); }  // the lock must be free
  ReaderWriterLock(const ReaderWriterLock&) = delete;
  ReaderWriterLock& operator=(const ReaderWriterLock&) = delete;

  // Makes what threads wait on. Until then only uncontended use works. Has no effect when it was done before.
  ResultCode Create();
  void Destroy();

  // Raise ulo::CheckResultFailedException when waiting fails. The lock is then as if they had not been called.
  void LockShared() ACQUIRE_SHARED();
  void LockExclusive() ACQUIRE();

  // Ends a shared and an exclusive hold alike.
  void Unlock() RELEASE_GENERIC();

  // Says to the compiler that the caller holds it in one way or the other; where invariants are checked, that somebody
  // does.
  void AssertShared() ASSERT_SHARED_CAPABILITY(this) { LUMBRA_INVARIANT(IsHeld()); }

 private:
  static constexpr std::uint32_t kGuarded = 0x80000000;

  bool IsHeld() EXCLUDES(m_Guard);
  bool CountReaders(std::uint32_t nChange);
  void TakeOver() REQUIRES(m_Guard);
  void GiveBack() REQUIRES(m_Guard);
  void Leave() EXCLUDES(m_Guard);
  void Wait(os::Semaphore* pSemaphore, std::int32_t* pnWaiting) RELEASE(m_Guard);
  void Admit() REQUIRES(m_Guard);

  // While there is no writer and nobody waits, readers come and go by their number alone, which stands here. With
  // kGuarded in it m_nState counts, under the guard.
  std::atomic<std::uint32_t> m_nFreeReaders{0};
  os::CriticalSection m_Guard;  // held for a few instructions, never across a wait
  os::Semaphore* m_pReaders = nullptr;
  os::Semaphore* m_pWriters = nullptr;
  std::int32_t m_nWaitingReaders GUARDED_BY(m_Guard) = 0;
  std::int32_t m_nWaitingWriters GUARDED_BY(m_Guard) = 0;
  std::int32_t m_nState GUARDED_BY(m_Guard) = 0;  // 0 free, n > 0 held by n readers, -1 held by a writer
};

class SCOPED_CAPABILITY SharedHold {
 public:
  explicit SharedHold(ReaderWriterLock& Lock) ACQUIRE_SHARED(Lock) : m_Lock(Lock) { m_Lock.LockShared(); }
  ~SharedHold() RELEASE() { m_Lock.Unlock(); }
  SharedHold(const SharedHold&) = delete;
  SharedHold& operator=(const SharedHold&) = delete;

 private:
  ReaderWriterLock& m_Lock;
};

class SCOPED_CAPABILITY ExclusiveHold {
 public:
  explicit ExclusiveHold(ReaderWriterLock& Lock) ACQUIRE(Lock) : m_Lock(Lock) { m_Lock.LockExclusive(); }
  ~ExclusiveHold() RELEASE() { m_Lock.Unlock(); }
  ExclusiveHold(const ExclusiveHold&) = delete;
  ExclusiveHold& operator=(const ExclusiveHold&) = delete;

 private:
  ReaderWriterLock& m_Lock;
};

}  // namespace lumbra
