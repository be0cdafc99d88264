// What was acknowledged is there after every kind of end: a killed process, a full disk, no memory, failing
// calls. Each test keeps its own record of what it was promised, and compares with what a new start finds.
#include <algorithm>
#include <chrono>
#include <fstream>
#include <numeric>
#include <random>
#include <thread>

#include "component/component_fixture.h"
#include "support/run_again.h"

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

  // Adds events to the store in the current folder until it is killed. The size of the file tells how many are
  // promised.
  void PromiseUntilKilled(std::uint32_t nCheckMode) {
    m_Host->SetPlaceholder(u"%Report%", fs::current_path().u16string());
    ASSERT_CODE(errOK, OpenAll(nCheckMode));
    std::ofstream Promised("promised", std::ios::binary | std::ios::app);
    for (std::uint64_t n = fs::file_size("promised") + 1; AddNamed(n); ++n) Promised.put('.').flush();
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
  if (const std::string CheckMode = HowRunAgain(); !CheckMode.empty()) {
    return PromiseUntilKilled(CheckMode == "checked" ? 1 : 0);
  }
  std::mt19937 Random(1);
  for (int nRound = 0; nRound < 24; ++nRound) {
    const std::uint32_t nCheckMode = nRound % 2;
    if (nRound % 8 == 0) {
      StartAnew();
      WriteFile("promised", {});
    }
    Unload();
    const std::uint64_t nEnough = FileSize("promised") + 1 + Random() % 60;
    {
      Program Worker = RunAgain(Folder(), nCheckMode == 1 ? "checked" : "unchecked");
      for (int i = 0; i < 30000 && FileSize("promised") < nEnough; ++i) {
        std::this_thread::sleep_for(std::chrono::microseconds(500 + Random() % 500));
      }
      Worker.Kill();
      ASSERT_EQ(Program::kKilled, Worker.Wait()) << ReadText("out");
    }
    Load();
    ASSERT_CODE(errOK, OpenAll(nCheckMode));
    Ids Promised(ReadFile("promised").size());
    std::iota(Promised.begin(), Promised.end(), 1);
    ASSERT_EQ(Ids{}, Lost(Promised));
    // What may have been under way is not added again.
    Promised.push_back(Promised.size() + 1);
    ASSERT_TRUE(AddNamed(Promised.back())) << Name(m_nLast);
    WriteFile("promised", Bytes(Promised.size(), '.'));
  }
}

TEST_F(RecoveryTest, FailingCallsLoseNothingThatWasPromised) {
  using enum SystemCall;
  const std::pair<SystemCall, os::SystemError> kFaults[] = {
      {WriteAt, os::kDiskFull}, {Size, os::kIoDevice},
      {ReadAt, os::kIoDevice},  {SystemCall::Open, os::kTooManyOpenFiles},
      {SetSize, os::kIoDevice}, {Lock, os::kIoDevice}};
  for (const auto& [Failing, nError] : kFaults) {
    for (std::uint64_t nSkip = 0; nSkip < 400; nSkip = nSkip * 3 / 2 + 1) {
      StartAnew();
      ASSERT_CODE(errOK, OpenAll(nSkip % 2));
      Ids Promised;
      FailCalls(Failing, nError, nSkip, 1 + nSkip % 5);
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
