// Stores that suffer from outside: bits that change, threads that do everything at once, processes that are killed.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <thread>

#include "faults/programme.h"

namespace lumbra::test {

namespace fs = std::filesystem;

std::string RunBits(const Choice& Which) {
  std::size_t nCases = 0;
  std::uint64_t nBits = 0;
  for (const bool bChecked : {false, true}) {
    const fs::path Folder = Which.Fresh("bits");
    Which.Start("bits", kNoCase);
    const Record Known = MakeStore(Which, Folder, bChecked, 40);
    const Files Sound = ReadFiles(Folder);
    std::uint64_t nBytes = 0;
    for (const auto& One : Sound) nBytes += One.second.size();
    const std::vector<std::uint64_t> Cases = Which.Cases(8 * nBytes, 750);
    for (const std::uint64_t nCase : Cases) {
      Files Damaged = Sound;
      std::uint64_t nByte = nCase / 8;
      auto File = Damaged.begin();
      for (; nByte >= File->second.size(); ++File) nByte -= File->second.size();
      Which.Start((bChecked ? "bits (checked), " : "bits, ") + File->first + " at " + std::to_string(nByte), nCase);
      File->second[nByte] = static_cast<char>(File->second[nByte] ^ (1 << nCase % 8));
      WriteFiles(Folder, Damaged);
      Driver(Which.With(Folder, bChecked, kOtherSerials), Known)
          .UseDamaged(bChecked ? Driver::End::Damage : Driver::End::Foreign);
    }
    nCases += Cases.size();
    nBits += 8 * nBytes;
  }
  return std::to_string(nCases) + " of " + std::to_string(nBits);
}

std::string RunThreads(const Choice& Which) {
  constexpr std::uint32_t kThreads = 8;
  const int nSteps = Which.bLong ? 5000 : 500;
  const fs::path Folder = Which.Fresh("threads");
  ResetSystem();
  Which.Start("threads", kNoCase);
  std::vector<Record> Known(kThreads);
  for (const bool bAgain : {false, true}) {
    const auto pInstance = std::make_shared<Instance>();
    std::vector<std::unique_ptr<Driver>> Drivers;
    for (std::uint32_t i = 0; i < kThreads; ++i) {
      Driver::Setup With = Which.With(Folder, true, i + (bAgain ? kOtherSerials : 0));
      With.nFirst = 1 + 2 * i;
      With.pInstance = pInstance;
      Drivers.push_back(std::make_unique<Driver>(std::move(With), Known[i]));
      if (!Drivers[i]->Open()) Found("it does not open");
    }
    std::vector<std::thread> Threads;
    for (std::uint32_t i = 0; i < kThreads; ++i) {
      Threads.emplace_back([&, i] {
        for (int nStep = 0; nStep < nSteps && !bAgain; ++nStep) Drivers[i]->Step();
        Drivers[i]->Verify(Driver::End::Whole, Driver::Lookups::MustSucceed);
        Drivers[i]->AddToEach("at the end");
        Known[i] = Drivers[i]->Known();
      });
    }
    for (std::thread& One : Threads) One.join();
  }
  return std::to_string(kThreads) + " with " + std::to_string(nSteps) + " steps each";
}

// What the child tells is in a file as soon as it is told.
[[noreturn]] static void WorkUntilKilled(Driver::Setup With, const Record& Known, const fs::path& Facts) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  std::ofstream Told(Facts);
  With.Tell = [&Told](const Fact& Of) {
    Told << Of;
  };
  Driver Work(std::move(With), Known);
  if (!Work.Open()) Found("it does not open");
  for (;;) Work.Step();
}

std::string RunKills(const Choice& Which) {
  const std::uint64_t nRounds = Which.bLong ? 1000 : 40;
  const Source Chance = SourceOf(Which.nSeed);
  const fs::path Facts = Which.Folder / "facts";
  std::uint64_t nFacts = 0;
  for (const bool bChecked : {false, true}) {
    const fs::path Folder = Which.Fresh("kills");
    Record Known;
    for (std::uint64_t nRound = 0; nRound < nRounds / 2; ++nRound) {
      Which.Start(bChecked ? "kills (checked)" : "kills", nRound);
      ResetSystem();
      fs::remove(Facts);
      const pid_t nChild = fork();
      if (nChild == 0) WorkUntilKilled(Which.With(Folder, bChecked, 2 * nRound * kOtherSerials), Known, Facts);
      usleep(static_cast<useconds_t>(2000 + Chance(60000)));
      kill(nChild, SIGKILL);
      waitpid(nChild, nullptr, 0);
      std::ifstream Told(Facts);
      for (Fact One{}; Told >> One; ++nFacts) Known.Apply(One);
      Driver Next(Which.With(Folder, bChecked, (2 * nRound + 1) * kOtherSerials), Known);
      if (!Next.Open(Driver::Limits::No)) Found("it does not open");
      Next.Verify(Driver::End::Whole, bChecked ? Driver::Lookups::MayFail : Driver::Lookups::MustSucceed);
      Next.AddToEach("after a new start");
      Known = Next.Known();
    }
  }
  return std::to_string(nRounds) + ", of a recorder that told " + std::to_string(nFacts) + " facts";
}

}  // namespace lumbra::test
