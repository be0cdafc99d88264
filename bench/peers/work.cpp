// The same work in each store. Every piece of work runs in a process and a folder of its own, one store after the other
// in turn, so that no store meets what another one left and what else the machine does meets all alike.
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <latch>
#include <numeric>
#include <random>
#include <set>
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
  int nRounds = 5;
  bool bCold = false;
  bool bKillOpen = false;
  bool bQuick = false;
  std::set<std::string> Works;  // none named: the usual ones
  std::string PlotData;
};

constexpr std::uint64_t kBatch = 1000;
constexpr std::uint64_t kSample = 100000;    // at most so many paths are looked up
constexpr std::uint64_t kColdSample = 1000;  // and so many without their pages, which later ones would find
constexpr std::uint32_t kThreads = 4;
constexpr int kOpenings = 5;
constexpr const char* kCpu = "CPU, µs an operation";
constexpr const char* kWall = "Wall time, µs an operation";
constexpr const char* kLatency = "Latency, µs of wall time";
constexpr const char* kBeside = "One writer with three readers, µs of wall time an operation of each";

// Runs it in a process of its own, and answers how that ended; 0 is well.
template <class Work>
int RunApart(Work Do) {
  std::fflush(nullptr);  // or both would write what waits
  const pid_t nChild = fork();
  if (nChild == 0) {
    try {
      Do();
      _exit(0);
    } catch (const std::exception& Failure) {
      std::fprintf(stderr, "%s\n", Failure.what());
      _exit(1);
    }
  }
  int nStatus = -1;
  waitpid(nChild, &nStatus, 0);
  return nStatus;
}

// One store at its work; what it measures goes to the parent, a line each.
class Worker {
 public:
  Worker(const Kind& Of, const Settings& How, std::filesystem::path Folder, std::FILE* pParent)
      : m_Kind(Of), m_How(How), m_pParent(pParent) {
    if (How.nSegments > 1) {
      m_Place.nSegmentEvents = static_cast<std::uint32_t>(std::max<std::uint64_t>(1, How.nEvents / How.nSegments));
    }
    m_Place.Folder = std::move(Folder);
  }

  void Events();
  void Opening();
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
  void MeasureOpen(const std::string& Work);
  void FillWithEvents();
  std::string Size() const { return std::to_string(m_How.nEvents * sizeof(Event) / 1000000) + " MB"; }

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
}

void Worker::FillWithEvents() {
  Open();
  for (std::uint64_t i = 0; i < m_How.nEvents; ++i) Append(*m_Session, i);
}

// In a process that has opened nothing before, as a program does that starts.
void Worker::MeasureOpen(const std::string& Work) {
  if (m_How.bCold) DropPages(m_Place.Folder);
  Require(RunApart([&] {
            Meter Measured;
            Open();
            const Event Last = m_Session->ReadLast();
            Measured.Stop();
            Require(Last.nNumber == m_How.nEvents - 1, "another last event");
            Tell(Work, Measured, 1);
            std::fflush(m_pParent);
            Close();
          }) == 0,
          "opening failed");
}

// What is left of writing, such as the reading of a log, is no matter of this opening.
void Worker::Opening() {
  RunApart([&] { FillWithEvents(), Close(); });
  for (int i = 0; i < 2; ++i) RunApart([&] { Open(), Close(); });
  for (int i = 0; i < kOpenings; ++i) {
    MeasureOpen("open " + Size() + ", last event");
  }
  m_Place.bHeal = true;
  for (int i = 0; i < kOpenings && m_Kind.pOpen == OpenLumbra; ++i) {
    MeasureOpen("the same, looking for damage first");
  }
}

// A process fills the store and is killed; the next one must find all of it.
void Worker::KillOpen() {
  const int nStatus = RunApart([&] { FillWithEvents(), std::raise(SIGKILL); });
  Require(WIFSIGNALED(nStatus) && WTERMSIG(nStatus) == SIGKILL, "the killed process ended before");
  m_Place.bHeal = true;
  MeasureOpen("open after a kill at " + Size() + ", last event");
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
  std::atomic<std::uint64_t> nReads{0};
  std::latch Ready(kThreads);
  std::vector<std::jthread> Readers;
  for (unsigned nSeed = 1; nSeed < kThreads; ++nSeed) {
    Readers.emplace_back([&, nSeed](const std::stop_token& Stop) {
      const std::unique_ptr<Session> Own = m_Peer->Use(1);
      std::minstd_rand Random(nSeed);
      Ready.arrive_and_wait();
      for (; !Stop.stop_requested(); nReads.fetch_add(1, std::memory_order_relaxed)) {
        DoRead(*Own, Random());
      }
    });
  }
  Ready.arrive_and_wait();
  Meter Measured;
  for (std::uint64_t i = 0; i < nWrites; ++i) DoWrite(i);
  Measured.Stop();
  for (std::jthread& One : Readers) One.request_stop();
  Readers.clear();  // joins
  Tell(kBeside, pWrite, Measured.Wall() / static_cast<double>(nWrites));
  Tell(kBeside, pRead, Measured.Wall() * (kThreads - 1) / static_cast<double>(nReads));
}

void Worker::BesideReaders() {
  m_Place.bManySessions = true;
  const std::uint64_t nEvents = m_How.nEvents;
  FillWithEvents();
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

// Does one piece of work in a folder of its own, and adds to the report what it told.
void RunWork(const Kind& Of, const Settings& How, void (Worker::*pWork)(), Report* pReport) {
  std::string Folder = (std::filesystem::temp_directory_path() / "lumbra-peers-XXXXXX").string();
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> Told(std::tmpfile(), std::fclose);
  Require(mkdtemp(Folder.data()) != nullptr && Told != nullptr, "no folder for a benchmark");
  const int nStatus = RunApart([&] {
    (Worker(Of, How, Folder, Told.get()).*pWork)();
    std::fflush(Told.get());
  });
  std::filesystem::remove_all(Folder);
  Require(nStatus == 0, Of.pName);
  std::rewind(Told.get());
  char Table[100];
  char Work[100];
  double nValue = 0;
  while (std::fscanf(Told.get(), " %99[^\t]\t%99[^\t]\t%lf", Table, Work, &nValue) == 3) {
    pReport->Add(Table, Work, Of.pName, nValue);
  }
}

constexpr std::pair<const char*, void (Worker::*)()> kWorks[] = {
    {"events", &Worker::Events},     {"opening", &Worker::Opening}, {"threads", &Worker::FourThreads},
    {"paths", &Worker::Paths},       {"latency", &Worker::Latency}, {"readers", &Worker::BesideReaders},
    {"kill-open", &Worker::KillOpen}};

void RunAll(const Settings& How) {
  std::vector<std::string> Names;
  for (const Kind& One : kKinds) Names.emplace_back(One.pName);
  Report Measured(Names);
  for (int nRound = 0; nRound < How.nRounds; ++nRound) {
    for (const auto& [pName, pWork] : kWorks) {
      const bool bUsual = pWork != &Worker::KillOpen;
      if (How.Works.empty() ? !bUsual : How.Works.count(pName) == 0) continue;
      for (std::size_t i = 0; i < std::size(kKinds); ++i) {
        const Kind& One = kKinds[(i + static_cast<std::size_t>(nRound)) % std::size(kKinds)];
        if (One.bPaths || pWork != &Worker::Paths) RunWork(One, How, pWork, &Measured);
      }
    }
  }
  double nLoad = 0;
  (void)getloadavg(&nLoad, 1);
  std::printf("Medians of %d runs in turn, ± half of their range; %llu events of 64 bytes", How.nRounds,
              static_cast<unsigned long long>(How.nEvents));
  if (How.nSegments > 1) std::printf(", in Lumbra in %llu segments", static_cast<unsigned long long>(How.nSegments));
  std::printf("; %llu paths%s; %u processors, load at the end %.1f.\n", static_cast<unsigned long long>(How.nObjects),
              How.bCold ? "; pages dropped before each reading work" : "", std::thread::hardware_concurrency(), nLoad);
  Measured.Print(stdout);
  if (!How.PlotData.empty()) Measured.WriteData(How.PlotData);
}

}  // namespace
}  // namespace lumbra::peers

int main(int nCount, char** ppArguments) {
  using namespace lumbra::peers;
  Settings How;
  CLI::App Options("The same work in Lumbra, other stores and bare system calls, as Markdown tables");
  Options.add_option("--rounds", How.nRounds, "Runs of each work, 5")->check(CLI::PositiveNumber);
  Options.add_option("--events", How.nEvents, "Events, 200,000; a multiple of 1,000")->check(CLI::PositiveNumber);
  Options.add_option("--objects", How.nObjects, "Paths, 100,000")->check(CLI::Range(1000u, 100000000u));
  Options.add_option("--segments", How.nSegments, "Lumbra's segments, 1")->check(CLI::PositiveNumber);
  Options.add_flag("--cold", How.bCold, "Drop the pages of files before each reading work");
  Options.add_flag("--kill-open", How.bKillOpen, "Only open again after a kill, at 1 GB");
  Options.add_flag("--quick", How.bQuick, "Little work, to see that all of it runs");
  Options.add_option("--work", How.Works, "Only this work, and others so named");
  Options.add_option("--plot", How.PlotData, "A file for the medians of the first table");
  CLI11_PARSE(Options, nCount, ppArguments);
  if (How.bKillOpen) How.Works = {"kill-open"}, How.nEvents = (1u << 30) / sizeof(Event) / kBatch * kBatch;
  if (How.bQuick) How.nRounds = 1, How.nEvents = 4000, How.nObjects = 2000;
  try {
    RunAll(How);
  } catch (const std::exception& Failure) {
    std::fprintf(stderr, "%s\n", Failure.what());
    return 1;
  }
  return 0;
}
