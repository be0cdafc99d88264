// The same work in each store. Every piece of work runs in a process and a folder of its own, one store after the other
// in turn, so that no store meets what another one left and what else the machine does meets all alike.
#include <getopt.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <numeric>
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

// One store at its work; what it measures goes to the parent, a line each.
class Worker {
 public:
  Worker(const Kind& Of, const Settings& How, std::filesystem::path Folder, std::FILE* pParent)
      : m_Kind(Of), m_How(How), m_pParent(pParent) {
    if (How.nSegments > 1) m_Place.nSegmentEvents = static_cast<std::uint32_t>(How.nEvents / How.nSegments);
    m_Place.Folder = std::move(Folder);
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
  template <class Operation>
  void Measure(const std::string& Work, std::uint64_t nCount, Operation Do) const {
    Meter Measured;
    for (std::uint64_t i = 0; i < nCount; ++i) Do(i);
    Measured.StopWhenIdle();
    Tell(Work, Measured, nCount);
  }
  template <class Operation>
  void MeasureEach(const std::string& Work, std::uint64_t nCount, Operation Do) const;
  template <class Write, class Read>
  void MeasureBeside(const char* pWrite, const char* pRead, std::uint64_t nWrites, Write DoWrite, Read DoRead);
  void MeasureOpen(const std::string& Work, std::uint64_t nEvents);

  void Open() {
    m_Peer = m_Kind.pOpen(m_Place);
    m_Session = m_Peer->Use(1);
  }
  void Close() {
    m_Session.reset();
    m_Peer.reset();
  }
  void ReopenIfCold() {
    if (!m_How.bCold) return;
    Close();
    DropPages(m_Place.Folder);
    Open();
  }
  static void Append(Session& To, std::uint64_t nNumber) { To.Append({nNumber, 0, {}}); }
  static void ReadOne(Session& Of, std::uint64_t nNumber) {
    Event Read;
    Of.Read(nNumber, {&Read, 1});
    Require(Read.nNumber == nNumber, "another event");
  }
  // The paths of some files in random order, as many as are looked up.
  std::vector<Path> Sample(Path (*pMake)(std::uint64_t), std::vector<std::uint64_t>* pFiles = nullptr) const;
  std::vector<std::uint64_t> Fill(Meter* pMeasured) const;  // interns all paths, and answers their ids

  const Kind& m_Kind;
  const Settings& m_How;
  std::FILE* m_pParent;
  Place m_Place;
  std::unique_ptr<Peer> m_Peer;
  std::unique_ptr<Session> m_Session;
};

// ---- Events -----------------------------------------------------------------------------------------------

void Worker::Events() {
  const std::uint64_t nEvents = m_How.nEvents;
  Open();
  Measure("append", nEvents, [&](std::uint64_t i) { Append(*m_Session, i); });

  ReopenIfCold();
  std::vector<Event> Batch(kBatch);
  Measure("scan, an event", m_How.bCold ? nEvents : 5 * nEvents, [&](std::uint64_t i) {
    if (i % kBatch != 0) return;
    m_Session->Read(i % nEvents, Batch);
    Require(Batch.back().nNumber == i % nEvents + kBatch - 1, "other events");
  });

  ReopenIfCold();
  std::minstd_rand Random;
  Measure("random event", m_How.bCold ? std::min(kColdSample, nEvents) : nEvents,
          [&](std::uint64_t) { ReadOne(*m_Session, Random() % nEvents); });

  Close();  // what is left of writing, such as the reading of a log, is no matter of opening
  Open();
  MeasureOpen("open " + std::to_string(nEvents * sizeof(Event) / 1000000) + " MB, last event", nEvents);
  if (m_Kind.pOpen != OpenLumbra) return;
  m_Place.bHeal = true;
  MeasureOpen("the same, looking for damage first", nEvents);
}

void Worker::MeasureOpen(const std::string& Work, std::uint64_t nEvents) {
  Close();
  if (m_How.bCold) DropPages(m_Place.Folder);
  Meter Measured;
  Open();
  const Event Last = m_Session->ReadLast();
  Measured.Stop();
  Require(Last.nNumber == nEvents - 1, "another last event");
  Tell(Work, Measured, 1);
}

// A process fills the store and is killed; the next one must find all of it.
void Worker::KillOpen() {
  const std::uint64_t nEvents = m_How.nKillBytes / sizeof(Event);
  const pid_t nChild = fork();
  if (nChild == 0) {
    Open();
    for (std::uint64_t i = 0; i < nEvents; ++i) Append(*m_Session, i);
    std::raise(SIGKILL);
  }
  int nStatus = 0;
  waitpid(nChild, &nStatus, 0);
  Require(WIFSIGNALED(nStatus) && WTERMSIG(nStatus) == SIGKILL, "the killed process ended before");
  m_Place.bHeal = true;
  MeasureOpen("open after a kill at " + std::to_string(m_How.nKillBytes >> 20) + " MiB, last event", nEvents);
}

void Worker::FourThreads() {
  m_Place.nDatabases = kThreads;
  Open();
  m_Session.reset();
  std::vector<std::unique_ptr<Session>> Sessions;
  for (std::uint32_t i = 1; i <= kThreads; ++i) Sessions.push_back(m_Peer->Use(i));
  const std::uint64_t nEach = m_How.nEvents / kThreads;
  Meter Measured;
  std::vector<std::jthread> Threads;
  for (const auto& One : Sessions) {
    Threads.emplace_back([&One, nEach] {
      for (std::uint64_t i = 0; i < nEach; ++i) Append(*One, i);
    });
  }
  Threads.clear();  // joins
  Measured.StopWhenIdle();
  Tell("append, 4 threads into 4", Measured, nEach * kThreads);
}

// ---- Paths ------------------------------------------------------------------------------------------------

std::vector<std::uint64_t> Worker::Fill(Meter* pMeasured) const {
  std::vector<std::uint64_t> Ids;
  Ids.reserve(m_How.nObjects);
  while (Ids.size() < m_How.nObjects) {
    std::vector<Path> Paths;  // made while the clock stands
    const std::uint64_t nEnd = std::min(m_How.nObjects, Ids.size() + 10 * kBatch);
    for (std::uint64_t i = Ids.size(); i < nEnd; ++i) Paths.push_back(FilePath(i));
    pMeasured->Start();
    for (const Path& One : Paths) Ids.push_back(m_Session->Intern(One));
    nEnd == m_How.nObjects ? pMeasured->StopWhenIdle() : pMeasured->Stop();
  }
  return Ids;
}

std::vector<Path> Worker::Sample(Path (*pMake)(std::uint64_t), std::vector<std::uint64_t>* pFiles) const {
  std::vector<std::uint64_t> Files(m_How.nObjects);
  std::iota(Files.begin(), Files.end(), std::uint64_t{0});
  std::shuffle(Files.begin(), Files.end(), std::minstd_rand(7));
  Files.resize(std::min(m_How.nObjects, m_How.bCold ? kColdSample : kSample));
  std::vector<Path> Paths;
  for (const std::uint64_t nFile : Files) Paths.push_back(pMake(nFile));
  if (pFiles != nullptr) *pFiles = Files;
  return Paths;
}

void Worker::Paths() {
  Open();
  Meter Filling;
  const std::vector<std::uint64_t> Ids = Fill(&Filling);
  Tell("corpus, a path", Filling, m_How.nObjects);

  std::vector<std::uint64_t> Files;
  const std::vector<Path> Known = Sample(FilePath, &Files);
  ReopenIfCold();
  Measure("known path → id", Known.size(),
          [&](std::uint64_t i) { Require(m_Session->Intern(Known[i]) == Ids[Files[i]], "another id"); });

  ReopenIfCold();
  Measure("id → path", Known.size(), [&](std::uint64_t i) {
    alignas(char16_t) char Buffer[512];
    const std::string_view Found = m_Session->PathOf(Ids[Files[i]], Buffer);
    const std::string_view Utf16(reinterpret_cast<const char*>(Known[i].Utf16.data()), Known[i].Utf16.size() * 2);
    Require(Found == (m_Kind.bUtf16 ? Utf16 : Known[i].Utf8), "another path");
  });

  ReopenIfCold();
  const std::vector<Path> New = Sample(NewPath);
  Measure("new path → id", New.size() / 4, [&](std::uint64_t i) { m_Session->Intern(New[i]); });
}

// ---- Latency, and threads beside each other ---------------------------------------------------------------

template <class Operation>
void Worker::MeasureEach(const std::string& Work, std::uint64_t nCount, Operation Do) const {
  std::vector<double> Times(nCount);
  for (std::uint64_t i = 0; i < nCount; ++i) {
    const auto Before = std::chrono::steady_clock::now();
    Do(i);
    Times[i] = std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - Before).count();
  }
  std::sort(Times.begin(), Times.end());
  Tell(kLatency, Work + " p50", Times[nCount / 2]);
  Tell(kLatency, Work + " p99", Times[nCount - nCount / 100 - 1]);
  Tell(kLatency, Work + " p99.9", Times[nCount - nCount / 1000 - 1]);
}

void Worker::Latency() {
  Open();
  MeasureEach("append", m_How.nEvents, [&](std::uint64_t i) { Append(*m_Session, i); });
  if (!m_Kind.bPaths) return;
  Meter Filling;
  Fill(&Filling);
  const std::vector<Path> Known = Sample(FilePath);
  ReopenIfCold();
  MeasureEach("known path", Known.size(), [&](std::uint64_t i) { m_Session->Intern(Known[i]); });
}

// One thread writes while three read as fast as they can.
template <class Write, class Read>
void Worker::MeasureBeside(const char* pWrite, const char* pRead, std::uint64_t nWrites, Write DoWrite, Read DoRead) {
  std::atomic<bool> bDone{false};
  std::atomic<std::uint64_t> nReads{0};
  std::vector<std::jthread> Readers;
  Meter Measured;
  for (unsigned nSeed = 1; nSeed < kThreads; ++nSeed) {
    Readers.emplace_back([&, nSeed] {
      const std::unique_ptr<Session> Own = m_Peer->Use(1);
      std::minstd_rand Random(nSeed);
      for (; !bDone.load(std::memory_order_relaxed); nReads.fetch_add(1, std::memory_order_relaxed)) {
        DoRead(*Own, Random());
      }
    });
  }
  for (std::uint64_t i = 0; i < nWrites; ++i) DoWrite(i);
  Measured.Stop();
  bDone = true;
  Readers.clear();  // joins
  Tell(kBeside, pWrite, Measured.Wall() / static_cast<double>(nWrites));
  Tell(kBeside, pRead, Measured.Wall() * (kThreads - 1) / static_cast<double>(nReads));
}

void Worker::BesideReaders() {
  m_Place.bManySessions = true;
  Open();
  const std::uint64_t nEvents = m_How.nEvents;
  for (std::uint64_t i = 0; i < nEvents; ++i) Append(*m_Session, i);
  MeasureBeside(
      "append", "random event beside it", nEvents / 4, [&](std::uint64_t i) { Append(*m_Session, nEvents + i); },
      [&](Session& Own, std::uint64_t nRandom) { ReadOne(Own, nRandom % nEvents); });
  if (!m_Kind.bPaths) return;
  Meter Filling;
  Fill(&Filling);
  const std::vector<Path> Known = Sample(FilePath);
  const std::vector<Path> New = Sample(NewPath);
  MeasureBeside(
      "new path", "known path beside it", New.size() / 4, [&](std::uint64_t i) { m_Session->Intern(New[i]); },
      [&](Session& Own, std::uint64_t nRandom) { Own.Intern(Known[nRandom % Known.size()]); });
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
