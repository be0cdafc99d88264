// The reader/writer lock: who is admitted when.
#include "platform/rw_lock.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/exception.h"
#include "support/system_calls.h"

namespace lumbra::test {
namespace {

// Threads that take the lock, note that they have it, and keep it until they are told. One that has to wait
// is known to stand in the queue once it waits on its semaphore.
class LockTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetSystem();
    ASSERT_EQ(errOK, m_Lock.Create());
  }
  void TearDown() override {
    for (std::thread& One : m_Threads) One.join();
  }

  // Starts a thread that is to be admitted, or one that is to wait, and lets it come so far.
  void Enters(char cName, void (ReaderWriterLock::*pTake)()) {
    const std::size_t nEntered = Entered(0).size();
    Start(cName, pTake);
    Entered(nEntered + 1);
  }
  void Waits(char cName, void (ReaderWriterLock::*pTake)()) {
    const std::uint64_t nWaiting = CallsOf(SystemCall::Wait);
    Start(cName, pTake);
    while (CallsOf(SystemCall::Wait) == nWaiting) std::this_thread::yield();
  }

  void Release(char cName) {
    const std::lock_guard Hold(m_Mutex);
    m_Released += cName;
    m_Changed.notify_all();
  }

  // Waits until so many threads have entered; their names in order.
  std::string Entered(std::size_t nCount) {
    std::unique_lock Hold(m_Mutex);
    m_Changed.wait(Hold, [&] { return m_Entered.size() >= nCount; });
    return m_Entered;
  }

  static constexpr auto kShared = &ReaderWriterLock::LockShared;
  static constexpr auto kExclusive = &ReaderWriterLock::LockExclusive;
  ReaderWriterLock m_Lock;

 private:
  void Start(char cName, void (ReaderWriterLock::*pTake)()) {
    m_Threads.emplace_back([this, cName, pTake] {
      (m_Lock.*pTake)();
      std::unique_lock Hold(m_Mutex);
      m_Entered += cName;
      m_Changed.notify_all();
      m_Changed.wait(Hold, [&] { return m_Released.find(cName) != std::string::npos; });
      Hold.unlock();
      m_Lock.Unlock();
    });
  }

  std::mutex m_Mutex;
  std::condition_variable m_Changed;
  std::string m_Entered;
  std::string m_Released;
  std::vector<std::thread> m_Threads;
};

TEST_F(LockTest, AWaitingWriterGoesBeforeLaterReaders) {
  Enters('a', kShared);
  Enters('b', kShared);
  Waits('W', kExclusive);
  Waits('c', kShared);  // although readers hold the lock
  Release('a');
  Release('b');
  EXPECT_EQ("abW", Entered(3));
  Release('W');
  EXPECT_EQ("abWc", Entered(4));
  Release('c');
}

TEST_F(LockTest, AWriterHandsOnToTheNextWriterAndThenToAllReaders) {
  Enters('a', kShared);
  Waits('V', kExclusive);
  Waits('W', kExclusive);
  for (const char cName : {'1', '2', '3', '4', '5'}) Waits(cName, kShared);
  Release('a');
  const char cFirst = Entered(2)[1];
  const char cSecond = cFirst == 'V' ? 'W' : 'V';
  Release(cFirst);
  EXPECT_EQ(cSecond, Entered(3)[2]);
  Release(cSecond);
  EXPECT_EQ(8u, Entered(8).size());  // all five readers hold it at once
  for (const char cName : {'1', '2', '3', '4', '5'}) Release(cName);
}

TEST_F(LockTest, AWaitThatFailsIsAnException) {
  m_Lock.LockExclusive();
  FailCalls(SystemCall::Wait, EINVAL);
  try {
    m_Lock.LockShared();
    ADD_FAILURE();
  } catch (const ulo::CheckResultFailedException& Failure) {
    EXPECT_EQ(errPARAMETER_INVALID, Failure.Code());
  }
}

}  // namespace
}  // namespace lumbra::test
