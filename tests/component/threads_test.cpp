// Many threads on one instance, doing everything at once. What each was promised is there in the end; the
// thread sanitizer looks for the rest.
#include <functional>
#include <thread>

#include "component/component_fixture.h"

namespace lumbra::test {
namespace {

class ThreadsTest : public ComponentTest {};

TEST_F(ThreadsTest, DoEverythingAtOnce) {
  m_Host->TraceToCallback(300, &NoteTraceLine);
  Expect({errOK, errOK}, {InitDb(1), SetLimit(1, limitSegmentEvents, 50)});
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
      [&](std::uint32_t i) { EXPECT_GE(20u, Events(i % 2 == 0 ? 1 : m_nNamed, i, 20).size()); },
      [&](std::uint32_t i) {
        const std::u16string Path = u"C:\\shared\\" + Letter(i % 26);
        const std::uint64_t nId = Find(i % 3 == 0 ? 0 : i % 3 == 1 ? 1 : m_nNamed, Path);
        if (m_nLast == errREAD_ONLY) return;
        Expect({errOK, Path, errOK}, {m_nLast, NameOf(nId), m_nLast});
      },
      [&](std::uint64_t i) {
        // Objects of the shared store change while it is compacted.
        const std::uint64_t nId = Find(0, u"C:\\data\\" + Letter(i % 26));
        const ResultCode nCode = m_nLast == errOK ? Call(&Ops::SetObjectData, nId, &i, 1 + i % 8, 1) : m_nLast;
        EXPECT_TRUE(nCode == errOK || nCode == errREAD_ONLY) << Name(nCode);
        std::uint64_t nRead = 0;
        (void)Call(&Ops::GetObjectData, nId, &nRead, sizeof(nRead), nullptr, 1);
        EXPECT_TRUE(nCode != errOK || nRead % 256 == i % 256) << i << ' ' << nRead;
        if (i % 30 == 0) (void)Call(&Ops::RemoveAllObjectData, nId);
      },
      [&](std::uint32_t i) {
        const ResultCode nCode = i % 10 == 0 ? Call(&Ops::Compact, 0) : errOK;
        EXPECT_TRUE(nCode == errOK || nCode == errREAD_ONLY) << Name(nCode);
      },
      [&](std::uint32_t i) {
        EXPECT_CODE(errOK, i % 10 == 0 ? m_Host->SendFlush() : errOK);
        EXPECT_CODE(errOK, CodeOf(Records(i % 2 == 0 ? kAllDatabases : 1)));
      },
      [&](std::uint32_t i) {
        EXPECT_CODE(errOK, m_Store.SetNumber(propWRITES_SUSPENDED, i + 1 == kRounds ? 0 : i % 2));
      },
      [&](std::uint32_t i) {
        (void)InitDb(2 + i % 40);  // these meet suspended writes
        OpenNamed(Letter(i % 20).c_str());
        (void)ClearDb(2 + i % 40);
        (void)SetLimit(1, limitSegmentSize, 1000000 + i);
      },
      [&](std::uint32_t i) {
        if (i % 10 != 0) return;
        host::Store Other = m_Host->Create();  // comes and goes, and shares the object store with the first
        Expect({errOK, errOK, errOK},
               {Other.SetReportFolder(WideFolder() + u"/other" + Letter(i / 10 % 26)), Other.Init(),
                Other.Call(&Ops::FindObject, 0, typeFile, u"C:\\shared\\a", kZeroTerminated, 1, 0, 0, nullptr)});
      },
  };
  std::vector<std::thread> Threads;
  for (const auto& Work : kWork)
    Threads.emplace_back([&Work] {
      for (std::uint32_t i = 0; i < kRounds; ++i) Work(i);
    });
  for (std::thread& One : Threads) One.join();
  Expect({kRounds, errOK, kRounds, errOK}, {Records(1), m_nLast, Records(m_nNamed), m_nLast});
}

}  // namespace
}  // namespace lumbra::test
