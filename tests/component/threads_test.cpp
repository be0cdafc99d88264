// Many threads on one instance: those that meet in one database, and what comes, goes and stops them meanwhile. What
// each was promised is there in the end; the thread sanitizer looks for the rest. Threads that work on everything else
// are those of lumbra_faults.
#include <functional>
#include <thread>

#include "component/component_fixture.h"

namespace lumbra::test {
namespace {

class ThreadsTest : public ComponentTest {};

TEST_F(ThreadsTest, DoEverythingAtOnce) {
  constexpr std::uint32_t kRounds = 300;
  const auto AddTo = [this](std::uint32_t nDb) {
    ResultCode nCode = Add(nDb, 1);
    for (; nCode == errREAD_ONLY; nCode = Add(nDb, 1)) std::this_thread::yield();  // until writes are taken again
    EXPECT_CODE(errOK, nCode);
    EXPECT_TRUE(m_Host->Create(kSharedInstance));
  };
  const std::function<void(std::uint32_t)> kWork[] = {
      [&](std::uint32_t) { AddTo(1); },
      [&](std::uint32_t) { AddTo(m_nNamed); },
      [&](std::uint32_t i) { EXPECT_GE(20u, Times(i % 2 == 0 ? 1 : m_nNamed, i, 20).size()); },
      [&](std::uint32_t i) { (void)Info(i % 2 == 0 ? kAllDatabases : 1); },
      [&](std::uint32_t i) { Must(m_Store.SetNumber(propWRITES_SUSPENDED, i + 1 == kRounds ? 0 : i % 2)); },
      [&](std::uint32_t i) {
        (void)InitDb(2 + i % 40);  // these meet suspended writes
        std::uint32_t nDb = 0;
        (void)InitNamed(std::u16string(1 + i % 20, u'n').c_str(), &nDb);
        (void)ClearDb(2 + i % 40);
        (void)SetLimit(1, limitSegmentSize, 1000000 + i);
      },
      [&](std::uint32_t i) {
        if (i % 10 != 0) return;
        host::Store Other = m_Host->Create();  // comes and goes, and shares the object store with the first
        // A folder of its own: a flush that is under way keeps the one before.
        Must(Other.SetReportFolder(WideFolder() + u"/other" + std::u16string(1 + i / 10, u'o')));
        Must(Other.Init());
        Must(Other.Call(&Ops::FindObject, 0, typeFile, u"C:\\shared\\x", kZeroTerminated, 1, 0, 0, nullptr));
      },
  };
  m_Host->TraceToCallback(300, &NoteTraceLine);
  Must(InitDb(1));
  Must(SetLimit(1, limitSegmentEvents, 50));
  std::vector<std::thread> Threads;
  for (const auto& Work : kWork)
    Threads.emplace_back([&Work] {
      for (std::uint32_t i = 0; i < kRounds; ++i) Work(i);
    });
  for (std::thread& One : Threads) One.join();
  EXPECT_EQ(kRounds, Info(1).nRecords);
  EXPECT_EQ(kRounds, Info(m_nNamed).nRecords);
}

}  // namespace
}  // namespace lumbra::test
