// What was acknowledged is there after every kind of end: a killed process, a full disk, no memory, failing
// calls. Each test keeps its own record of what it was promised, and compares with what a new start finds.
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <random>

#include "component/component_fixture.h"

namespace lumbra::test {
namespace {

class RecoveryTest : public ComponentTest {
 protected:
  // Opens everything that the workload uses; segments are small, so that it also starts new ones.
  ResultCode OpenAll(std::uint32_t nCheckMode) {
    ResultCode nCode = Open(nCheckMode);
    if (Succeeded(nCode)) nCode = Call(&Ops::InitDB, 1, 16);
    if (Succeeded(nCode)) nCode = Call(&Ops::SetDBParams, 1, limitSegmentEvents, 20);
    return nCode;
  }

  static std::u16string PathOf(std::uint64_t nNumber) {
    const std::string Digits = std::to_string(nNumber * 7919);
    return u"C:\\Dir" + std::u16string(1, static_cast<char16_t>(u'a' + nNumber % 20)) + u"\\" +
           std::u16string(Digits.begin(), Digits.end());
  }

  // Adds event nNumber with its name; true when all of it was acknowledged.
  bool AddNamed(std::uint64_t nNumber) {
    const std::uint64_t nObject = Find(1, PathOf(nNumber).c_str(), 2);
    return Succeeded(m_nLast) && Succeeded(Add(1, nNumber, nObject));
  }

  // The numbers of the events that are there, whose names must be, too.
  std::vector<std::uint64_t> Surviving() {
    std::uint32_t nRecords = 0;
    EXPECT_CODE(errOK, Call(&Ops::GetDBInfo, 1, &nRecords, nullptr, nullptr));
    std::vector<Event> Read(nRecords + 1);
    std::uint32_t nRead = 0;
    Call(&Ops::GetEvents, 1, 0, Read.data(), nRecords * 16, nRecords, &nRead, nullptr);
    EXPECT_EQ(nRecords, nRead);
    std::vector<std::uint64_t> Numbers;
    for (std::uint32_t i = 0; i < nRead; ++i) {
      EXPECT_EQ(PathOf(Read[i].nTime), NameOf(Read[i].nObject)) << Name(m_nLast);
      Numbers.push_back(Read[i].nTime);
    }
    return Numbers;
  }

  static void ExpectAll(const std::vector<std::uint64_t>& Promised, const std::vector<std::uint64_t>& Found) {
    for (const std::uint64_t n : Promised) EXPECT_TRUE(std::binary_search(Found.begin(), Found.end(), n)) << n;
  }
};

TEST_F(RecoveryTest, AKilledProcessLosesNothingItPromised) {
  auto* const pPromised = static_cast<std::atomic<std::uint64_t>*>(
      mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(MAP_FAILED, static_cast<void*>(pPromised));
  std::mt19937 Random(1);
  for (int nRound = 0; nRound < 24; ++nRound) {
    const std::uint32_t nCheckMode = nRound % 2;
    if (nRound % 8 == 0) {
      Unload();
      std::filesystem::remove_all(Folder());
      std::filesystem::create_directory(Folder());
      *pPromised = 0;
      Load();
    }
    Unload();
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
    const std::vector<std::uint64_t> Found = Surviving();
    for (std::uint64_t n = 1; n <= *pPromised; ++n) ASSERT_TRUE(std::binary_search(Found.begin(), Found.end(), n)) << n;
    *pPromised = *pPromised + 1;  // what may have been under way is not added again
    ASSERT_TRUE(AddNamed(*pPromised)) << Name(m_nLast);
  }
  munmap(pPromised, 4096);
}

TEST_F(RecoveryTest, FailingCallsLoseNothingThatWasPromised) {
  const std::pair<SystemCall, int> kFaults[] = {{SystemCall::WriteAt, ENOSPC}, {SystemCall::Size, EIO},
                                                {SystemCall::ReadAt, EIO},     {SystemCall::Open, EMFILE},
                                                {SystemCall::SetSize, EIO},    {SystemCall::Lock, EIO}};
  for (const auto& [Failing, nErrno] : kFaults) {
    for (std::uint64_t nSkip = 0; nSkip < 400; nSkip = nSkip * 3 / 2 + 1) {
      m_Store = host::Store();
      std::filesystem::remove_all(Folder());
      std::filesystem::create_directory(Folder());
      ASSERT_CODE(errOK, OpenAll(nSkip % 2));
      std::vector<std::uint64_t> Promised;
      FailCalls(Failing, nErrno, nSkip, 1 + nSkip % 5);
      for (std::uint64_t n = 1; n <= 50; ++n) {
        if (AddNamed(n)) Promised.push_back(n);
      }
      ResetSystem();
      EXPECT_LE(40u, Promised.size());
      ASSERT_CODE(errOK, OpenAll(nSkip % 2));
      ExpectAll(Promised, Surviving());
      EXPECT_TRUE(AddNamed(51));
    }
  }
}

// Every allocation in turn fails in every operation: a code is the answer, nothing is thrown, and nothing
// breaks.
TEST_F(RecoveryTest, FailingAllocationsBecomeCodes) {
  std::uint64_t nId = 0;
  std::uint32_t nDb = 0;
  char16_t Text[300];
  const std::u16string kLong(3000, u'x');
  host::ByteBlob Saved(Bytes{1, 2, 3});
  const std::function<ResultCode()> kOperations[] = {
      [&] { return Call(&Ops::InitDB, 2, 16); },
      [&] { return Call(&Ops::InitDBByName, u"named", 16, &nDb); },
      [&] { return Call(&Ops::SetDBParams, 1, limitSegmentEvents, 1); },
      [&] { return Add(1, 1, 0, &nId); },
      [&] { return Call(&Ops::FindObject, 1, typeName, kLong.c_str(), kZeroTerminated, 1, 0, 0, &nId); },
      [&] { return Call(&Ops::GetObjectName, nId, Text, sizeof(Text), nullptr, 0, nullptr); },
      [&] { return Call(&Ops::GetEvents, 1, 0, Text, 16, 1, nullptr, nullptr); },
      [&] { return Call(&Ops::GetObjectDataInto, nId, host::IdContainer().Handle(), 0); },
      [&] { return Call(&Ops::SetObjectData, nId, kLong.data(), 6000, 1); },
      [&] { return Call(&Ops::GetObjectDataInto, nId, host::ByteBlob().Handle(), 1); },
      [&] { return Call(&Ops::SetObjectDataFrom, nId, Saved.Handle(), 2); },
      [&] { return Call(&Ops::Compact, 0); },
      [&] { return Call(&Ops::GetDBInfo, kAllDatabases, nullptr, nullptr, nullptr); },
      [&] { return Call(&Ops::ClearDB, 1); },
  };
  for (const std::uint32_t nCheckMode : {0u, 1u}) {
    for (std::uint64_t nSkip = 0;; ++nSkip) {
      m_Store = m_Host->Create();
      m_Store.SetNumber(propCHECK_MODE, nCheckMode);
      FailAllocation(nSkip);
      const ResultCode nCode = m_Store.Init();
      if (!AllocationFailed()) break;
      EXPECT_TRUE(Failed(nCode) || nCode == errOK);
    }
    ASSERT_CODE(errOK, OpenAll(nCheckMode));
    for (const auto& Operation : kOperations) {
      for (std::uint64_t nSkip = 0; nSkip < 200; ++nSkip) {
        FailAllocation(nSkip);
        const ResultCode nCode = Operation();
        if (!AllocationFailed()) break;
        EXPECT_TRUE(Failed(nCode) || nCode == errOK) << Name(nCode);
      }
    }
    ASSERT_CODE(errOK, OpenAll(nCheckMode));
    EXPECT_TRUE(AddNamed(5));
    EXPECT_FALSE(Surviving().empty());
  }
}

}  // namespace
}  // namespace lumbra::test
