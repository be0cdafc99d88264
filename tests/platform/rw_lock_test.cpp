// The reader/writer lock: who is admitted when.
#include "platform/rw_lock.h"

#include <condition_variable>
#include <mutex>
#include <thread>

#include "support/system_calls.h"
#include "support/world.h"

namespace lumbra::test {
namespace {

// Threads that take the lock, those with a capital letter for a name exclusively, note that they have it, and keep it
// until they may leave. One that has to wait is known to stand in the queue once it waits on its semaphore.
class LockTest : public World {
 protected:
  LockTest() { EXPECT_CODE(errOK, m_Lock.Create()); }
  ~LockTest() override { Leave("abcdefVW"); }

  // Starts threads one after the other, and lets each come so far that it is admitted or waits.
  void Start(const std::string& Names) {
    for (const char cName : Names) {
      const std::uint64_t nSettled = Settled();
      m_Threads.emplace_back([this, cName] {
        cName <= 'Z' ? m_Lock.LockExclusive() : m_Lock.LockShared();
        std::unique_lock Hold(m_Mutex);
        m_Entered += cName;
        m_Changed.notify_all();
        m_Changed.wait(Hold, [&] { return m_Leaving.find(cName) != std::string::npos; });
        m_Lock.Unlock();
      });
      while (Settled() == nSettled) std::this_thread::yield();
    }
  }
  std::uint64_t Settled() { return Leave("").size() + CallsOf(SystemCall::Wait); }

  // Lets threads leave, and waits until so many have entered in all; their names in order.
  std::string Leave(const std::string& Names, std::size_t nEntered = 0) {
    std::unique_lock Hold(m_Mutex);
    m_Leaving += Names;
    m_Changed.notify_all();
    m_Changed.wait(Hold, [&] { return m_Entered.size() >= nEntered; });
    return m_Entered;
  }

  ReaderWriterLock m_Lock;
  std::mutex m_Mutex;
  std::condition_variable m_Changed;
  std::string m_Entered;
  std::string m_Leaving;
  std::vector<std::jthread> m_Threads;  // the last, so that the others are there until these have ended
};

TEST_F(LockTest, AWaitingWriterGoesBeforeLaterReaders) {
  Start("ab");
  EXPECT_EQ("ab", Leave("", 2));
  Start("Wc");  // c waits although readers hold the lock
  ASSERT_EQ("abW", Leave("ab", 3));
  EXPECT_EQ("abWc", Leave("W", 4));
}

TEST_F(LockTest, AWriterHandsOnToTheNextWriterAndThenToAllReaders) {
  Start("aVWbcdef");
  ASSERT_EQ("a", Leave("", 1));
  const std::string First = Leave("a", 2).substr(1);
  const std::string Second = First == "V" ? "W" : "V";
  ASSERT_EQ("a" + First + Second, Leave(First, 3));
  EXPECT_EQ(8u, Leave(Second, 8).size());  // all five readers hold it at once
}

}  // namespace
}  // namespace lumbra::test
