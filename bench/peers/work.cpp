// The same work in each store. Every piece of work runs in a process and a folder of its own, one store after the other
// in turn, so that no store meets what another one left and what else the machine does meets all alike.
#include <getopt.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <random>
#include <thread>

#include "measure.h"
#include "report.h"

namespace lumbra::peers {
namespace {

struct Kind {
  const char* pName;
  std::unique_ptr<Peer> (*pOpen)(const Place& Where);
  bool bPaths;
  bool bUtf16;
};
constexpr Kind kKinds[] = {{"Lumbra", OpenLumbra, true, true},    {"SQLite", OpenSqlite, true, false},
                           {"LMDB", OpenLmdb, true, false},       {"LevelDB", OpenLeveldb, true, false},
                           {"RocksDB", OpenRocksdb, true, false}, {"raw", OpenRaw, false, false}};

struct Settings {
  std::uint64_t nEvents = 200000;
  std::uint64_t nObjects = 100000;
  std::uint64_t nSegments = 1;
  std::uint64_t nKillBytes = 1u << 30;
  int nRounds = 5;
  bool bCold = false;
  bool bKillOpen = false;
  std::string PlotData;
};

constexpr std::uint64_t kBatch = 1000;
constexpr std::uint64_t kSample = 100000;    // at most so many paths are looked up
constexpr std::uint64_t kColdSample = 1000;  // and so many without their pages, which later ones would find
constexpr std::uint32_t kThreads = 4;
constexpr const char* kCpu = "CPU, µs an operation";
constexpr const char* kWall = "Wall time, µs an operation";
constexpr const char* kLatency = "Latency, µs of wall time";
constexpr const char* kBeside = "One writer with three readers, µs of wall time an operation of each";

Event Numbered(std::uint64_t nNumber) {
  return {nNumber, 0, {}};
}

// One store at its work; what it measures goes to the parent, a line each.
class Worker {
 public:
  Worker(const Kind& Of, const Settings& How, std::filesystem::path Folder, std::FILE* pParent)
      : m_Kind(Of), m_How(How), m_Folder(std::move(Folder)), m_pParent(pParent) {
    if (How.nSegments > 1) m_Place.nSegmentEvents = static_cast<std::uint32_t>(How.nEvents / How.nSegments);
    m_Place.Folder = m_Folder;
  }

  void Events();
  void FourThreads();
  void Paths();
  void Latency();
  void BesideReaders();
  void KillOpen();

 private:
  void Tell(const char* pTable, const std::string& Work, double nValue) const {
    std::fprintf(m_pParent, "%s\t%s\t%.6f\n", pTable, Work.c_str(), nValue);
  }
  void Tell(const std::string& Work, const Meter& Measured, std::uint64_t nCount) const {
    Tell(kCpu, Work, Measured.Cpu() / static_cast<double>(nCount));
    Tell(kWall, Work, Measured.Wall() / static_cast<double>(nCount));
  }

  void Open() {
    m_Peer = m_Kind.pOpen(m_Place);
    m_Session = m_Peer->Use(1);
  }
  void Close() {
    m_Session.reset();
    m_Peer.reset();
  }
  void ReopenCold() {
    if (!m_How.bCold) return;
    Close();
    DropPages(m_Folder);
    Open();
  }
  void MeasureOpen(const std::string& Work, std::uint64_t nEvents);

  void Append(std::uint64_t nFirst, std::uint64_t nCount) {
    for (std::uint64_t i = nFirst; i < nFirst + nCount; ++i) m_Session->Append(Numbered(i));
  }
  static void ReadOne(Session& Of, std::uint64_t nNumber) {
    Event Read;
    Of.Read(nNumber, {&Read, 1});
    Require(Read.nNumber == nNumber, "another event");
  }
  void Scan() {
    std::vector<Event> Into(kBatch);
    for (std::uint64_t i = 0; i < m_How.nEvents; i += kBatch) {
      m_Session->Read(i, Into);
      Require(Into.front().nNumber == i && Into.back().nNumber == i + kBatch - 1, "other events");
    }
  }

  // Interns all paths and keeps their ids; the clock stands while paths are made.
  void Fill();
  std::vector<std::uint64_t> Sample(Path (*pMake)(std::uint64_t), std::vector<Path>* pPaths) const;
  void CheckPathOf(std::uint64_t nId, const Path& Expected);

  template <class Operation>
  void TellPercentiles(const char* pWork, std::uint64_t nCount, Operation Do) const;
  template <class Write, class Read>
  void MeasureBeside(const char* pWrite, const char* pRead, std::uint64_t nWrites, Write DoWrite, Read DoRead);

  const Kind& m_Kind;
  const Settings& m_How;
  std::filesystem::path m_Folder;
  std::FILE* m_pParent;
  Place m_Place;
  std::unique_ptr<Peer> m_Peer;
  std::unique_ptr<Session> m_Session;
  std::vector<std::uint64_t> m_Ids;
};

void Worker::MeasureOpen(const std::string& Work, std::uint64_t nEvents) {
  Close();
  if (m_How.bCold) DropPages(m_Folder);
  Meter Measured;
  Open();
  const Event Last = m_Session->ReadLast();
  Measured.Stop();
  Require(Last.nNumber == nEvents - 1, "another last event");
  Tell(Work, Measured, 1);
}

void Worker::Events() {
  Open();
  Meter Measured;
  Append(0, m_How.nEvents);
  Measured.StopWhenIdle();
  Tell("append", Measured, m_How.nEvents);

  ReopenCold();
  const std::uint64_t nScans = m_How.bCold ? 1 : 5;
  Measured.Start();
  for (std::uint64_t i = 0; i < nScans; ++i) Scan();
  Measured.Stop();
  Tell("scan, an event", Measured, m_How.nEvents * nScans);

  ReopenCold();
  const std::uint64_t nReads = m_How.bCold ? std::min(kColdSample, m_How.nEvents) : m_How.nEvents;
  std::minstd_rand Random;
  Measured.Start();
  for (std::uint64_t i = 0; i < nReads; ++i) ReadOne(*m_Session, Random() % m_How.nEvents);
  Measured.Stop();
  Tell("random event", Measured, nReads);

  const std::string Work = "open " + std::to_string(m_How.nEvents * sizeof(Event) / 1000000) + " MB, last event";
  MeasureOpen(Work, m_How.nEvents);
  if (m_Kind.pOpen != OpenLumbra) return;
  m_Place.bHeal = true;
  MeasureOpen("the same, looking for damage first", m_How.nEvents);
}

void Worker::FourThreads() {
  m_Place.nDatabases = kThreads;
  Open();
  std::vector<std::unique_ptr<Session>> Sessions;
  for (std::uint32_t i = 1; i <= kThreads; ++i) Sessions.push_back(m_Peer->Use(i));
  const std::uint64_t nEach = m_How.nEvents / kThreads;
  Meter Measured;
  std::vector<std::jthread> Threads;
  for (const auto& One : Sessions) {
    Threads.emplace_back([&One, nEach] {
      for (std::uint64_t i = 0; i < nEach; ++i) One->Append(Numbered(i));
    });
  }
  Threads.clear();  // joins
  Measured.StopWhenIdle();
  Tell("append, 4 threads into 4", Measured, nEach * kThreads);
}

// ---- Paths ------------------------------------------------------------------------------------------------

void Worker::Fill() {
  double nCpu = 0;
  double nWall = 0;
  m_Ids.reserve(m_How.nObjects);
  while (m_Ids.size() < m_How.nObjects) {
    std::vector<Path> Paths;
    for (std::uint64_t i = 0; i < 10 * kBatch && m_Ids.size() + i < m_How.nObjects; ++i) {
      Paths.push_back(FilePath(m_Ids.size() + i));
    }
    Meter Measured;
    for (const Path& One : Paths) m_Ids.push_back(m_Session->Intern(One));
    m_Ids.size() == m_How.nObjects ? Measured.StopWhenIdle() : Measured.Stop();
    nCpu += Measured.Cpu();
    nWall += Measured.Wall();
  }
  Tell(kCpu, "corpus, a path", nCpu / static_cast<double>(m_How.nObjects));
  Tell(kWall, "corpus, a path", nWall / static_cast<double>(m_How.nObjects));
}

// Files in random order, and the paths that a function makes of them.
std::vector<std::uint64_t> Worker::Sample(Path (*pMake)(std::uint64_t), std::vector<Path>* pPaths) const {
  std::minstd_rand Random(7);
  std::vector<std::uint64_t> Files;
  const std::uint64_t nCount = std::min(m_How.nObjects, m_How.bCold ? kColdSample : kSample);
  for (std::uint64_t i = 0; i < nCount; ++i) Files.push_back(Random() % m_How.nObjects);
  pPaths->clear();
  for (const std::uint64_t nFile : Files) pPaths->push_back(pMake(nFile));
  return Files;
}

void Worker::CheckPathOf(std::uint64_t nId, const Path& Expected) {
  alignas(char16_t) char Buffer[512];
  const std::string_view Found = m_Session->PathOf(nId, Buffer);
  const std::string_view Utf16(reinterpret_cast<const char*>(Expected.Utf16.data()), Expected.Utf16.size() * 2);
  Require(Found == (m_Kind.bUtf16 ? Utf16 : Expected.Utf8), "another path");
}

void Worker::Paths() {
  Open();
  Fill();

  std::vector<Path> Known;
  const std::vector<std::uint64_t> Files = Sample(FilePath, &Known);
  ReopenCold();
  Meter Measured;
  for (std::size_t i = 0; i < Files.size(); ++i) {
    Require(m_Session->Intern(Known[i]) == m_Ids[Files[i]], "another id");
  }
  Measured.Stop();
  Tell("known path → id", Measured, Files.size());

  ReopenCold();
  Measured.Start();
  for (std::size_t i = 0; i < Files.size(); ++i) CheckPathOf(m_Ids[Files[i]], Known[i]);
  Measured.Stop();
  Tell("id → path", Measured, Files.size());

  std::vector<Path> New;
  Sample(NewPath, &New);
  std::sort(New.begin(), New.end(), [](const Path& One, const Path& Other) { return One.Utf8 < Other.Utf8; });
  New.erase(std::unique(New.begin(), New.end(), [](auto& One, auto& Other) { return One.Utf8 == Other.Utf8; }),
            New.end());
  std::shuffle(New.begin(), New.end(), std::minstd_rand(8));
  New.resize(std::max<std::size_t>(1, New.size() / 4));
  ReopenCold();
  Measured.Start();
  for (const Path& One : New) m_Session->Intern(One);
  Measured.StopWhenIdle();
  Tell("new path → id", Measured, New.size());
}

// ---- Latency, and threads beside each other ---------------------------------------------------------------

template <class Operation>
void Worker::TellPercentiles(const char* pWork, std::uint64_t nCount, Operation Do) const {
  std::vector<double> Times;
  Times.reserve(nCount);
  for (std::uint64_t i = 0; i < nCount; ++i) {
    const auto Before = std::chrono::steady_clock::now();
    Do(i);
    Times.push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - Before).count());
  }
  std::sort(Times.begin(), Times.end());
  for (const auto& [pName, nPart] : {std::pair{" p50", 0.5}, {" p99", 0.99}, {" p99.9", 0.999}}) {
    const auto nAt = static_cast<std::size_t>(nPart * static_cast<double>(nCount));
    Tell(kLatency, std::string(pWork) + pName, Times[nAt]);
  }
}

void Worker::Latency() {
  Open();
  TellPercentiles("append", m_How.nEvents, [&](std::uint64_t i) { m_Session->Append(Numbered(i)); });
  if (!m_Kind.bPaths) return;
  for (std::uint64_t i = 0; i < m_How.nObjects; ++i) m_Ids.push_back(m_Session->Intern(FilePath(i)));
  std::vector<Path> Paths;
  const std::size_t nKnown = Sample(FilePath, &Paths).size();
  ReopenCold();
  TellPercentiles("known path", nKnown, [&](std::uint64_t i) { m_Session->Intern(Paths[i]); });
}

// One thread writes while three read as fast as they can.
template <class Write, class Read>
void Worker::MeasureBeside(const char* pWrite, const char* pRead, std::uint64_t nWrites, Write DoWrite, Read DoRead) {
  std::atomic<bool> bDone{false};
  std::atomic<std::uint64_t> nReads{0};
  const auto ReadOn = [&](unsigned nSeed) {
    const std::unique_ptr<Session> Own = m_Peer->Use(1);
    std::minstd_rand Random(nSeed);
    std::uint64_t nOwn = 0;
    for (; !bDone.load(std::memory_order_relaxed); ++nOwn) DoRead(*Own, Random());
    nReads += nOwn;
  };
  std::vector<std::jthread> Readers;
  Meter Measured;
  for (unsigned i = 1; i < kThreads; ++i) Readers.emplace_back(ReadOn, i);
  for (std::uint64_t i = 0; i < nWrites; ++i) DoWrite(i);
  Measured.Stop();
  bDone = true;
  Readers.clear();  // joins
  Tell(kBeside, pWrite, Measured.Wall() / static_cast<double>(nWrites));
  Tell(kBeside, pRead, Measured.Wall() * (kThreads - 1) / static_cast<double>(nReads));
}

void Worker::BesideReaders() {
  Open();
  const std::uint64_t nEvents = m_How.nEvents;
  Append(0, nEvents);
  MeasureBeside(
      "append", "random event", nEvents / 4, [&](std::uint64_t i) { m_Session->Append(Numbered(nEvents + i)); },
      [&](Session& Own, std::uint64_t nRandom) { ReadOne(Own, nRandom % nEvents); });
  if (!m_Kind.bPaths) return;
  for (std::uint64_t i = 0; i < m_How.nObjects; ++i) m_Session->Intern(FilePath(i));
  std::vector<Path> Known;
  Sample(FilePath, &Known);
  std::vector<Path> New;
  for (std::uint64_t i = 0; i < Known.size() / 4; ++i) New.push_back(NewPath(i));
  MeasureBeside(
      "new path", "known path", New.size(), [&](std::uint64_t i) { m_Session->Intern(New[i]); },
      [&](Session& Own, std::uint64_t nRandom) { Own.Intern(Known[nRandom % Known.size()]); });
}

// A process fills the store and is killed; the next one must find all of it.
void Worker::KillOpen() {
  const std::uint64_t nEvents = m_How.nKillBytes / sizeof(Event);
  const pid_t nChild = fork();
  if (nChild == 0) {
    Open();
    Append(0, nEvents);
    std::raise(SIGKILL);
  }
  int nStatus = 0;
  waitpid(nChild, &nStatus, 0);
  Require(WIFSIGNALED(nStatus) && WTERMSIG(nStatus) == SIGKILL, "the killed process ended before");
  m_Place.bHeal = true;
  MeasureOpen("open after a kill at " + std::to_string(m_How.nKillBytes >> 20) + " MiB, last event", nEvents);
}

// ---- The run ----------------------------------------------------------------------------------------------

// Does one piece of work in a process of its own, and adds to the report what that told.
void RunApart(const Kind& Of, const Settings& How, void (Worker::*pWork)(), Report* pReport) {
  std::string Folder = (std::filesystem::temp_directory_path() / "lumbra-peers-XXXXXX").string();
  int Pipe[2];
  Require(mkdtemp(Folder.data()) != nullptr && pipe(Pipe) == 0, "no folder for a benchmark");
  const pid_t nChild = fork();
  if (nChild == 0) {
    int nResult = 0;
    try {
      std::FILE* const pParent = fdopen(Pipe[1], "w");
      (Worker(Of, How, Folder, pParent).*pWork)();
      std::fclose(pParent);
    } catch (const std::exception& Failure) {
      std::fprintf(stderr, "%s: %s\n", Of.pName, Failure.what());
      nResult = 1;
    }
    _exit(nResult);
  }
  close(Pipe[1]);
  std::FILE* const pTold = fdopen(Pipe[0], "r");
  char Table[100];
  char Work[100];
  double nValue = 0;
  while (std::fscanf(pTold, " %99[^\t]\t%99[^\t]\t%lf", Table, Work, &nValue) == 3) {
    pReport->Add(Table, Work, Of.pName, nValue);
  }
  std::fclose(pTold);
  int nStatus = 0;
  waitpid(nChild, &nStatus, 0);
  std::filesystem::remove_all(Folder);
  Require(nStatus == 0, "a piece of work failed");
}

void RunAll(const Settings& How) {
  std::vector<std::string> Names;
  for (const Kind& One : kKinds) Names.emplace_back(One.pName);
  Report Measured(Names);
  std::vector<void (Worker::*)()> Works = {&Worker::Events, &Worker::FourThreads, &Worker::Paths, &Worker::Latency,
                                           &Worker::BesideReaders};
  if (How.bKillOpen) Works = {&Worker::KillOpen};
  for (int nRound = 0; nRound < How.nRounds; ++nRound) {
    for (const auto pWork : Works) {
      for (std::size_t i = 0; i < std::size(kKinds); ++i) {
        const Kind& One = kKinds[(i + static_cast<std::size_t>(nRound)) % std::size(kKinds)];
        if (One.bPaths || pWork != &Worker::Paths) RunApart(One, How, pWork, &Measured);
      }
    }
  }
  double nLoad = 0;
  (void)getloadavg(&nLoad, 1);
  std::printf("Medians of %d runs in turn, ± half of their range; %llu events of 64 bytes", How.nRounds,
              static_cast<unsigned long long>(How.bKillOpen ? How.nKillBytes / sizeof(Event) : How.nEvents));
  if (How.nSegments > 1) std::printf(", in Lumbra in %llu segments", static_cast<unsigned long long>(How.nSegments));
  if (!How.bKillOpen) std::printf("; %llu paths", static_cast<unsigned long long>(How.nObjects));
  std::printf("%s; %u processors, load at the end %.1f.\n",
              How.bCold ? "; before each reading work the pages dropped" : "", std::thread::hardware_concurrency(),
              nLoad);
  Measured.Print(stdout);
  if (!How.PlotData.empty()) Measured.WriteData(How.PlotData);
}

int Run(int nCount, char** ppArguments) {
  Settings How;
  const option kOptions[] = {
      {"cold", no_argument, nullptr, 'c'},           {"objects", required_argument, nullptr, 'o'},
      {"segments", required_argument, nullptr, 's'}, {"kill-open", no_argument, nullptr, 'k'},
      {"quick", no_argument, nullptr, 'q'},          {"rounds", required_argument, nullptr, 'r'},
      {"plot", required_argument, nullptr, 'p'},     {}};
  for (int nOption = 0; (nOption = getopt_long(nCount, ppArguments, "", kOptions, nullptr)) != -1;) {
    switch (nOption) {
      case 'c':
        How.bCold = true;
        break;
      case 'o':
        How.nObjects = std::strtoull(optarg, nullptr, 10);
        break;
      case 's':
        How.nSegments = std::strtoull(optarg, nullptr, 10);
        break;
      case 'k':
        How.bKillOpen = true;
        break;
      case 'q':
        How.nRounds = 1, How.nEvents = 4000, How.nObjects = 2000, How.nKillBytes = 1u << 20;
        break;
      case 'r':
        How.nRounds = std::atoi(optarg);
        break;
      case 'p':
        How.PlotData = optarg;
        break;
      default:
        std::fputs(
            "lumbra_peers [--quick] [--rounds N] [--objects N] [--segments N] [--cold] [--kill-open] [--plot FILE]\n",
            stderr);
        return 2;
    }
  }
  try {
    RunAll(How);
  } catch (const std::exception& Failure) {
    std::fprintf(stderr, "%s\n", Failure.what());
    return 1;
  }
  return 0;
}

}  // namespace
}  // namespace lumbra::peers

int main(int nCount, char** ppArguments) {
  return lumbra::peers::Run(nCount, ppArguments);
}
