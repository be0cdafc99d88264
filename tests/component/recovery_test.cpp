// What was acknowledged is there after every kind of end: a killed process, a full disk, no memory, failing
// calls. Each test keeps its own record of what it was promised, and compares with what a new start finds.
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <numeric>
#include <random>

#include "component/component_fixture.h"

namespace lumbra::test {
namespace {

class RecoveryTest : public ComponentTest {
 protected:
  // Opens everything that the workload uses; segments are small, so that it also starts new ones.
  ResultCode OpenAll(std::uint32_t nCheckMode) {
    ResultCode nCode = Open(nCheckMode);
    if (Succeeded(nCode)) nCode = InitDb(1);
    if (Succeeded(nCode)) nCode = SetLimit(1, limitSegmentEvents, 20);
    return nCode;
  }

  static std::u16string PathOf(std::uint64_t nNumber) {
    const std::string Path = "C:\\Dir" + std::to_string(nNumber % 20) + "\\" + std::to_string(nNumber * 7919);
    return {Path.begin(), Path.end()};
  }

  // Adds event nNumber with its name; true when all of it was acknowledged.
  bool AddNamed(std::uint64_t nNumber) {
    const std::uint64_t nObject = Find(1, PathOf(nNumber), 2);
    return Succeeded(m_nLast) && Succeeded(Add(1, nNumber, nObject));
  }

  // Those of the promised numbers whose events are lost; the names of all events must be there, too.
  Ids Lost(Ids Promised) {
    const std::uint32_t nRecords = Records(1);
    EXPECT_CODE(errOK, m_nLast);
    const std::vector<Event> Found = Events(1, 0, nRecords);
    EXPECT_EQ(nRecords, Found.size());
    EXPECT_TRUE(std::ranges::is_sorted(Found, {}, &Event::nTime));
    for (const Event& One : Found) {
      EXPECT_EQ(PathOf(One.nTime), NameOf(One.nObject)) << Name(m_nLast);
      std::erase(Promised, One.nTime);
    }
    return Promised;
  }
};

TEST_F(RecoveryTest, AKilledProcessLosesNothingItPromised) {
  auto* const pPromised = static_cast<std::atomic<std::uint64_t>*>(
      mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(MAP_FAILED, static_cast<void*>(pPromised));
  std::mt19937 Random(1);
  for (int nRound = 0; nRound < 24; ++nRound) {
    const std::uint32_t nCheckMode = nRound % 2;
    Unload();
    if (nRound % 8 == 0) {
      StartAnew();
      *pPromised = 0;
    }
    const std::uint64_t nBefore = *pPromised;
    const pid_t nChild = fork();
    if (nChild == 0) {
      Load();
      if (Failed(OpenAll(nCheckMode))) _exit(1);
      while (AddNamed(*pPromised + 1)) ++*pPromised;
      _exit(2);
    }
    while (*pPromised < nBefore + 1 + Random() % 60) usleep(static_cast<useconds_t>(Random() % 300));
    kill(nChild, SIGKILL);
    int nStatus = 0;
    waitpid(nChild, &nStatus, 0);
    ASSERT_TRUE(WIFSIGNALED(nStatus)) << WEXITSTATUS(nStatus);

    Load();
    ASSERT_CODE(errOK, OpenAll(nCheckMode));
    Ids Promised(*pPromised);
    std::iota(Promised.begin(), Promised.end(), 1);
    ASSERT_EQ(Ids{}, Lost(Promised));
    // What may have been under way is not added again.
    ASSERT_TRUE(AddNamed(++*pPromised)) << Name(m_nLast);
  }
  munmap(pPromised, 4096);
}

TEST_F(RecoveryTest, FailingCallsLoseNothingThatWasPromised) {
  using enum SystemCall;
  const std::pair<SystemCall, int> kFaults[] = {{WriteAt, ENOSPC},          {Size, EIO},    {ReadAt, EIO},
                                                {SystemCall::Open, EMFILE}, {SetSize, EIO}, {Lock, EIO}};
  for (const auto& [Failing, nErrno] : kFaults) {
    for (std::uint64_t nSkip = 0; nSkip < 400; nSkip = nSkip * 3 / 2 + 1) {
      StartAnew();
      ASSERT_CODE(errOK, OpenAll(nSkip % 2));
      Ids Promised;
      FailCalls(Failing, nErrno, nSkip, 1 + nSkip % 5);
      for (std::uint64_t n = 1; n <= 50; ++n)
        if (AddNamed(n)) Promised.push_back(n);
      ResetSystem();
      EXPECT_LE(40u, Promised.size());
      ASSERT_CODE(errOK, OpenAll(nSkip % 2));
      Expect({nSkip, Ids{}, true}, {nSkip, Lost(Promised), AddNamed(51)});
    }
  }
}

// Every allocation in turn fails in every operation: a code is the answer, nothing is thrown, and nothing
// breaks.
TEST_F(RecoveryTest, FailingAllocationsBecomeCodes) {
  StartAnew();
  std::uint64_t nId = 0;
  char16_t Text[300];
  const std::u16string kLong(3000, u'x');
  host::ByteBlob Saved(Bytes{1, 2, 3});
  const std::function<ResultCode()> kOperations[] = {
      [&] { return InitDb(2); },
      [&] { return CodeOf(OpenNamed(u"named")); },
      [&] { return SetLimit(1, limitSegmentEvents, 1); },
      [&] { return Add(1, 1, 0, &nId); },
      [&] { return Call(&Ops::FindObject, 1, typeName, kLong.c_str(), kZeroTerminated, 1, 0, 0, &nId); },
      [&] { return Call(&Ops::GetObjectName, nId, Text, sizeof(Text), nullptr, 0, nullptr); },
      [&] { return Call(&Ops::GetEvents, 1, 0, Text, 16, 1, nullptr, nullptr); },
      [&] { return Call(&Ops::GetObjectDataInto, nId, host::IdContainer().Handle(), 0); },
      [&] { return Call(&Ops::SetObjectData, nId, kLong.data(), 6000, 1); },
      [&] { return Call(&Ops::GetObjectDataInto, nId, host::ByteBlob().Handle(), 1); },
      [&] { return Call(&Ops::SetObjectDataFrom, nId, Saved.Handle(), 2); },
      [&] { return Call(&Ops::Compact, 0); },
      [&] { return CodeOf(Records(kAllDatabases)); },
      [&] { return ClearDb(1); },
  };
  const auto FailEach = [](const auto& Prepare, const auto& Operation) {
    for (std::uint64_t nSkip = 0; nSkip < 1000; ++nSkip) {
      Prepare();
      FailAllocation(nSkip);
      const ResultCode nCode = Operation();
      if (!AllocationFailed()) break;
      EXPECT_TRUE(Failed(nCode) || nCode == errOK) << Name(nCode);
    }
  };
  for (const std::uint32_t nCheckMode : {0u, 1u}) {
    const auto Create = [&] {
      m_Store = m_Host->Create();
      m_Store.SetNumber(propCHECK_MODE, nCheckMode);
    };
    FailEach(Create, [&] { return m_Store.Init(); });
    ASSERT_CODE(errOK, OpenAll(nCheckMode));
    for (const auto& Operation : kOperations) FailEach([] {}, Operation);
    ASSERT_CODE(errOK, OpenAll(nCheckMode));
    Expect({true, Ids{}}, {AddNamed(5), Lost({5})});
  }
}

}  // namespace
}  // namespace lumbra::test
