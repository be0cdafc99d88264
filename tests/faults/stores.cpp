// Stores that suffer from outside: bits that change, threads that do everything at once, processes that are killed.
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <thread>

#include "faults/driver.h"
#include "faults/findings.h"
#include "faults/kinds.h"
#include "support/system_calls.h"

namespace lumbra::test {
namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t kOtherSerials = 1000000;  // added to the seed of what is added later

std::string BytesOf(const fs::path& Path) {
  std::ifstream File(Path, std::ios::binary);
  return {std::istreambuf_iterator<char>(File), std::istreambuf_iterator<char>()};
}

}  // namespace

// ---- Bits -------------------------------------------------------------------------------------------------

void RunBits(const Choice& Which) {
  const fs::path Folder = Which.Fresh("bits");
  ResetSystem();
  Which.Start("bits", UINT64_MAX);
  Record Known;
  {
    Driver Work({Folder, true, Which.nSeed});
    Work.Open();
    for (std::uint64_t nStep = 0; nStep < 40; ++nStep) Work.Step(nStep);
    Known = Work.Known();
  }
  std::map<fs::path, std::string> Files;
  std::uint64_t nBits = 0;
  for (const auto& Entry : fs::recursive_directory_iterator(Folder)) {
    if (!Entry.is_regular_file()) continue;
    nBits += 8 * (Files[Entry.path().lexically_relative(Folder)] = BytesOf(Entry.path())).size();
  }
  const std::vector<std::uint64_t> Cases = Which.Cases(nBits, 1500);
  for (const std::uint64_t nCase : Cases) {
    Which.Fresh("bits");
    std::uint64_t nFirst = 0;
    for (const auto& [Path, Content] : Files) {
      std::string Bytes = Content;
      const std::uint64_t nByte = nCase / 8 - nFirst;
      if (nCase / 8 >= nFirst && nByte < Bytes.size()) {
        Which.Start("bits, " + Path.string() + " at " + std::to_string(nByte), nCase);
        Bytes[nByte] = static_cast<char>(Bytes[nByte] ^ (1 << nCase % 8));
      }
      nFirst += Bytes.size();
      fs::create_directories((Folder / Path).parent_path());
      std::ofstream(Folder / Path, std::ios::binary) << Bytes;
    }
    Driver Next({Folder, true, Which.nSeed + kOtherSerials}, Known);
    if (!Next.Open(Driver::Limits::No)) continue;
    Next.Verify(Driver::End::Damage, Driver::Lookups::MayFail);
    Next.AddToEach("after damage");
  }
  std::printf("bits: %zu of %llu\n", Cases.size(), static_cast<unsigned long long>(nBits));
}

// ---- Threads ----------------------------------------------------------------------------------------------

void RunThreads(const Choice& Which) {
  constexpr std::uint32_t kThreads = 8;
  const std::uint64_t nSteps = Which.bLong ? 5000 : 500;
  const fs::path Folder = Which.Fresh("threads");
  ResetSystem();
  Which.Start("threads", UINT64_MAX);
  std::vector<Record> Known(kThreads);
  for (const bool bAgain : {false, true}) {
    const auto pInstance = std::make_shared<Instance>();
    std::vector<std::unique_ptr<Driver>> Drivers;
    for (std::uint32_t i = 0; i < kThreads; ++i) {
      Driver::Setup With{Folder, true, Which.nSeed + i + (bAgain ? kOtherSerials : 0), {}, 1 + 2 * i, pInstance};
      Drivers.push_back(std::make_unique<Driver>(std::move(With), Known[i]));
      if (!Drivers[i]->Open()) Found("it does not open");
    }
    std::vector<std::thread> Threads;
    for (std::uint32_t i = 0; i < kThreads; ++i) {
      Threads.emplace_back([&, i] {
        for (std::uint64_t nStep = 0; nStep < nSteps && !bAgain; ++nStep) Drivers[i]->Step(nStep);
        Drivers[i]->Verify(Driver::End::Whole, Driver::Lookups::MustSucceed);
        Drivers[i]->AddToEach("at the end");
        Known[i] = Drivers[i]->Known();
      });
    }
    for (std::thread& One : Threads) One.join();
  }
  std::printf("threads: %u with %llu steps each\n", kThreads, static_cast<unsigned long long>(nSteps));
}

// ---- Kills ------------------------------------------------------------------------------------------------

namespace {

// Facts in a file, one behind the other: each is there as soon as it is told.
void WriteFact(int nFile, const Fact& Of) {
  const std::uint64_t Head[] = {static_cast<std::uint64_t>(Of.Kind),
                                static_cast<std::uint64_t>(Of.Of.Kind),
                                Of.Of.nId,
                                Of.Of.nTag,
                                Of.nEnd,
                                Of.Value.size()};
  std::string Bytes(reinterpret_cast<const char*>(Head), sizeof(Head));
  Bytes += Of.Value;
  if (write(nFile, Bytes.data(), Bytes.size()) != static_cast<ssize_t>(Bytes.size())) _exit(1);
}

std::uint64_t ApplyFacts(const std::string& Bytes, Record* pKnown) {
  std::uint64_t nFacts = 0;
  std::uint64_t Head[6];
  for (std::size_t nAt = 0; nAt + sizeof(Head) <= Bytes.size(); ++nFacts) {
    std::memcpy(Head, Bytes.data() + nAt, sizeof(Head));
    nAt += sizeof(Head);
    const Key Of{static_cast<Key::Kinds>(Head[1]), Head[2], static_cast<std::uint32_t>(Head[3])};
    pKnown->Apply({static_cast<Fact::Kinds>(Head[0]), Of, Bytes.substr(nAt, Head[5]), Head[4]});
    nAt += Head[5];
  }
  return nFacts;
}

[[noreturn]] void WorkUntilKilled(Driver::Setup With, const Record& Known, const fs::path& Facts) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const int nFile = open(Facts.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0666);
  With.Tell = [nFile](const Fact& Of) {
    WriteFact(nFile, Of);
  };
  Driver Work(std::move(With), Known);
  if (!Work.Open()) Found("it does not open");
  for (std::uint64_t nStep = 0;; ++nStep) Work.Step(nStep);
}

}  // namespace

void RunKills(const Choice& Which) {
  const std::uint64_t nRounds = Which.bLong ? 1000 : 40;
  Random Chance(Which.nSeed);
  std::uint64_t nFacts = 0;
  for (const bool bChecked : {false, true}) {
    const fs::path Folder = Which.Fresh("kills");
    const fs::path Facts = Which.Folder / "facts";
    Record Known;
    for (std::uint64_t nRound = 0; nRound < nRounds / 2; ++nRound) {
      Which.Start(bChecked ? "kills (checked)" : "kills", nRound);
      ResetSystem();
      const Driver::Setup With{Folder, bChecked, Which.nSeed + nRound * kOtherSerials};
      fs::remove(Facts);
      const pid_t nChild = fork();
      if (nChild == 0) WorkUntilKilled(With, Known, Facts);
      usleep(static_cast<useconds_t>(2000 + Chance() % 60000));
      kill(nChild, SIGKILL);
      waitpid(nChild, nullptr, 0);
      nFacts += ApplyFacts(BytesOf(Facts), &Known);
      Driver Next({Folder, bChecked, Which.nSeed + nRound * kOtherSerials + kOtherSerials / 2}, Known);
      if (!Next.Open(Driver::Limits::No)) Found("it does not open");
      Next.Verify(Driver::End::Whole, bChecked ? Driver::Lookups::MayFail : Driver::Lookups::MustSucceed);
      Next.AddToEach("after a new start");
      Known = Next.Known();
    }
  }
  std::printf("kills: %llu, of a recorder that told %llu facts\n", static_cast<unsigned long long>(nRounds),
              static_cast<unsigned long long>(nFacts));
}

}  // namespace lumbra::test
