// Many threads on one instance, doing everything at once. What each was promised is there in the end; the
// thread sanitizer looks for the rest.
#include <atomic>
#include <functional>
#include <thread>

#include "component/component_fixture.h"

namespace lumbra::test {
namespace {

class ThreadsTest : public ComponentTest {};

TEST_F(ThreadsTest, DoEverythingAtOnce) {
  m_Host->TraceToCallback(300, &NoteTraceLine);
  ASSERT_CODE(errOK, Open());
  ASSERT_CODE(errOK, Call(&Ops::InitDB, 1, 16));
  ASSERT_CODE(errOK, Call(&Ops::SetDBParams, 1, limitSegmentEvents, 50));
  const std::uint32_t nNamed = OpenNamed(u"named");
  std::atomic<bool> bStrange{false};
  const auto Expect = [&bStrange](bool bGood) {
    if (!bGood) bStrange = true;
  };
  constexpr std::uint64_t kRounds = 300;

  const auto AddTo = [&](std::uint32_t nDb) {
    const Event Added{1, 0};
    ResultCode nCode = errREAD_ONLY;
    while (nCode == errREAD_ONLY) {  // until writes are taken again
      nCode = Call(&Ops::AddEvent, nDb, &Added, sizeof(Added), nullptr);
      std::this_thread::yield();
    }
    Expect(nCode == errOK);
  };
  const std::function<void(std::uint64_t)> kWork[] = {
      [&](std::uint64_t) {
        AddTo(1);
        Expect(m_Host->Create(kSharedInstance) ? true : false);
      },
      [&](std::uint64_t) {
        AddTo(nNamed);
        Expect(m_Host->Create(kSharedInstance) ? true : false);
      },
      [&](std::uint64_t i) {
        Event Read[20];
        std::uint32_t nRead = 0;
        Call(&Ops::GetEvents, i % 2 == 0 ? 1 : nNamed, i, Read, sizeof(Read), 20, &nRead, nullptr);
        Expect(nRead <= 20);
      },
      [&](std::uint64_t i) {
        std::uint64_t nId = 0;
        const std::u16string Path = u"C:\\shared\\" + std::u16string(1, static_cast<char16_t>(u'a' + i % 26));
        const std::uint32_t nDb = i % 3 == 0 ? 0 : i % 3 == 1 ? 1 : nNamed;
        const ResultCode nCode = Call(&Ops::FindObject, nDb, typeFile, Path.c_str(), kZeroTerminated, 1, 0, 0, &nId);
        Expect(nCode == errOK || nCode == errREAD_ONLY);
        char16_t Text[100] = {};
        if (nCode == errOK)
          Expect(Call(&Ops::GetObjectName, nId, Text, sizeof(Text), nullptr, 0, nullptr) == errOK && Path == Text);
      },
      [&](std::uint64_t i) {
        // Objects of the shared store change while it is compacted.
        std::uint64_t nId = 0;
        const std::u16string Path = u"C:\\data\\" + std::u16string(1, static_cast<char16_t>(u'a' + i % 26));
        ResultCode nCode = Call(&Ops::FindObject, 0, typeFile, Path.c_str(), kZeroTerminated, 1, 0, 0, &nId);
        if (nCode == errOK) nCode = Call(&Ops::SetObjectData, nId, &i, 1 + i % 8, 1);
        Expect(nCode == errOK || nCode == errREAD_ONLY);
        std::uint64_t nRead = 0;
        Call(&Ops::GetObjectData, nId, &nRead, sizeof(nRead), nullptr, 1);
        if (nCode == errOK) Expect(nRead % 256 == i % 256);
        if (i % 30 == 0) Call(&Ops::RemoveAllObjectData, nId);
      },
      [&](std::uint64_t i) {
        if (i % 10 != 0) return;
        const ResultCode nCode = Call(&Ops::Compact, 0);
        Expect(nCode == errOK || nCode == errREAD_ONLY);
      },
      [&](std::uint64_t i) {
        if (i % 10 == 0) m_Host->SendFlush();
        std::uint32_t nRecords = 0;
        Expect(Call(&Ops::GetDBInfo, i % 2 == 0 ? kAllDatabases : 1, &nRecords, nullptr, nullptr) == errOK);
      },
      [&](std::uint64_t i) {
        m_Store.SetNumber(propWRITES_SUSPENDED, i % 2);
        if (i + 1 == kRounds) m_Store.SetNumber(propWRITES_SUSPENDED, 0);
      },
      [&](std::uint64_t i) {
        Call(&Ops::InitDB, static_cast<std::uint32_t>(2 + i % 40), 16);
        std::uint32_t nDb = 0;
        const std::u16string NewName(1, static_cast<char16_t>(u'a' + i % 20));
        Call(&Ops::InitDBByName, NewName.c_str(), 16, &nDb);
        Call(&Ops::ClearDB, static_cast<std::uint32_t>(2 + i % 40));
        Call(&Ops::SetDBParams, 1, limitSegmentSize, 1000000 + i);
      },
      [&](std::uint64_t i) {
        if (i % 10 != 0) return;
        host::Store Other = m_Host->Create();  // comes and goes, and shares the object store with the first
        const std::u16string Own = WideFolder() + u"/other" + static_cast<char16_t>(u'a' + i / 10);
        Expect(Other.SetReportFolder(Own) == errOK && Other.Init() == errOK);
        std::uint64_t nId = 0;
        const char16_t* const pName = u"C:\\shared\\a";
        Expect(Other.Call(&Ops::FindObject, 0, typeFile, pName, kZeroTerminated, 1, 0, 0, &nId) == errOK);
      },
  };
  std::vector<std::thread> Threads;
  for (const auto& Work : kWork) {
    Threads.emplace_back([&Work] {
      for (std::uint64_t i = 0; i < kRounds; ++i) Work(i);
    });
  }
  for (std::thread& One : Threads) One.join();
  EXPECT_FALSE(bStrange);
  std::uint32_t nRecords = 0;
  EXPECT_CODE(errOK, Call(&Ops::GetDBInfo, 1, &nRecords, nullptr, nullptr));
  EXPECT_EQ(kRounds, nRecords);
  EXPECT_CODE(errOK, Call(&Ops::GetDBInfo, nNamed, &nRecords, nullptr, nullptr));
  EXPECT_EQ(kRounds, nRecords);
}

}  // namespace
}  // namespace lumbra::test
