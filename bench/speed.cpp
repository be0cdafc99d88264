// The speed of the busy operations, each as a ratio to its raw limit: the same work done with bare system
// calls, or with hashing alone, in the same run and in turn with it.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <optional>
#include <random>
#include <vector>

#include "bench_store.h"
#include "events/object_hash.h"

namespace lumbra::bench {
namespace {

constexpr std::uint32_t kStored = 200000;
constexpr std::uint32_t kBatch = 1000;
constexpr std::uint32_t kHeader = 12;
constexpr const char* kEventFile = "01/00000001_events.dat";

// One store serves all benchmarks of one kind.
std::optional<BenchStore> g_Store;
int g_nRaw = -1;

int OpenRaw(const char* pName, int nFlags) {
  return open(g_Store->File(pName).c_str(), nFlags | O_CLOEXEC, 0666);
}

// ---- Adding -----------------------------------------------------------------------------------------------

void AddEvent(benchmark::State& State) {
  for (auto _ : State) g_Store->Add(1);
}

void AddRaw(benchmark::State& State) {
  const Event Added{};
  for (auto _ : State) {
    struct stat Status {};
    fstat(g_nRaw, &Status);
    benchmark::DoNotOptimize(pwrite(g_nRaw, &Added, sizeof(Added), Status.st_size));
  }
}

// ---- Reading ----------------------------------------------------------------------------------------------

void GetBatch(benchmark::State& State) {
  std::vector<Event> Buffer(kBatch);
  std::uint32_t nStart = 0;
  for (auto _ : State) {
    BenchStore::Require(g_Store->Call(&LumbraOperations::GetEvents, BenchStore::kDatabase, nStart, Buffer.data(),
                                      kBatch * sizeof(Event), kBatch, nullptr, nullptr));
    nStart = (nStart + kBatch) % kStored;
  }
}

void ReadBatchRaw(benchmark::State& State) {
  std::vector<Event> Buffer(kBatch);
  std::uint32_t nStart = 0;
  for (auto _ : State) {
    const auto nOffset = static_cast<off_t>(kHeader + std::uint64_t{nStart} * sizeof(Event));
    benchmark::DoNotOptimize(pread(g_nRaw, Buffer.data(), kBatch * sizeof(Event), nOffset));
    nStart = (nStart + kBatch) % kStored;
  }
}

void GetRandom(benchmark::State& State) {
  std::minstd_rand Random;
  Event Read;
  for (auto _ : State) {
    const std::uint64_t nStart = Random() % kStored;
    BenchStore::Require(g_Store->Call(&LumbraOperations::GetEvents, BenchStore::kDatabase, nStart, &Read, sizeof(Read),
                                      1, nullptr, nullptr));
  }
}

void ReadRandomRaw(benchmark::State& State) {
  std::minstd_rand Random;
  Event Read;
  for (auto _ : State) {
    const auto nOffset = static_cast<off_t>(kHeader + Random() % kStored * sizeof(Event));
    benchmark::DoNotOptimize(pread(g_nRaw, &Read, sizeof(Read), nOffset));
  }
}

// ---- Objects ----------------------------------------------------------------------------------------------

const std::u16string kPath = u"C:\\Program Files\\Component\\Reports\\today.txt";

void FindCached(benchmark::State& State) {
  for (auto _ : State) benchmark::DoNotOptimize(g_Store->Find(kPath));
}

// The five hashes that such a lookup cannot do without.
void HashComponents(benchmark::State& State) {
  const std::u16string_view kParts[] = {u"C:", u"Program Files", u"Component", u"Reports", u"today.txt"};
  const std::uint8_t kTypes[] = {typeDriveRoot, typeFolder, typeFolder, typeFolder, typeFile};
  for (auto _ : State) {
    std::uint64_t nHash = 0;
    for (int i = 0; i < 5; ++i) {
      const auto nSize = static_cast<std::uint32_t>(kParts[i].size() * sizeof(char16_t));
      nHash = ObjectHash(kTypes[i], kParts[i].data(), nSize, nHash, fObjNoCase);
    }
    benchmark::DoNotOptimize(nHash);
  }
}

void FindNew(benchmark::State& State) {
  std::uint64_t nNext = 0;
  for (auto _ : State) {
    std::u16string Path = u"C:\\Program Files\\Component\\Reports\\";
    for (std::uint64_t n = ++nNext; n != 0; n /= 26) Path += static_cast<char16_t>(u'a' + n % 26);
    benchmark::DoNotOptimize(g_Store->Find(Path));
  }
}

// ---- Compaction ---

constexpr std::uint32_t kSharedObjects = 200000;

void CompactShared(benchmark::State& State) {
  for (auto _ : State) BenchStore::Require(g_Store->Call(&LumbraOperations::Compact, kSystemDatabase));
}

// One file copied into another, piece by piece.
class Copier {
 public:
  Copier(const char* pFrom, const char* pTo)
      : m_nFrom(OpenRaw(pFrom, O_RDONLY)), m_nTo(OpenRaw(pTo, O_RDWR | O_CREAT)) {}
  ~Copier() {
    close(m_nFrom);
    close(m_nTo);
  }

  void Copy(std::size_t nSize) {
    char Buffer[128];
    benchmark::DoNotOptimize(pread(m_nFrom, Buffer, nSize, m_nOffset));
    benchmark::DoNotOptimize(pwrite(m_nTo, Buffer, nSize, m_nOffset));
    m_nOffset += static_cast<off_t>(nSize);
  }

 private:
  int m_nFrom;
  int m_nTo;
  off_t m_nOffset = 0;
};

// The same pieces read and written: names, and for every other object a block and its entry; records.
void CopyBothFilesRaw(benchmark::State& State) {
  constexpr std::size_t kRecord = 29;
  constexpr std::size_t kEntry = 12;
  for (auto _ : State) {
    Copier Ids("g_objid.dat", "raw id");
    Copier Data("g_objdt.dat", "raw dt");
    for (std::uint32_t i = 0; i < kSharedObjects; ++i) {
      Data.Copy(BenchStore::kNameLength);
      if (i % 2 != 0) {
        Data.Copy(BenchStore::kBlockSize);
        Data.Copy(kEntry);
      }
      Ids.Copy(kRecord);
    }
  }
}

// ---- Start-up ---------------------------------------------------------------------------------------------

constexpr std::uint32_t kSegments = 1000;

void OpenThousandSegments(benchmark::State& State) {
  for (auto _ : State) g_Store->Open();
}

// The least that tells what a segment holds: a look at each of its four files.
void LookAtFilesRaw(benchmark::State& State) {
  constexpr const char* kNames[] = {"events", "objbt", "objid", "objdt"};
  for (auto _ : State) {
    for (std::uint32_t nSegment = 1; nSegment <= kSegments; ++nSegment) {
      for (const char* const pName : kNames) {
        char Name[40];
        std::snprintf(Name, sizeof(Name), "01/%08X_%s.dat", nSegment, pName);
        struct statx Status {};
        statx(AT_FDCWD, g_Store->File(Name).c_str(), 0, STATX_BASIC_STATS | STATX_BTIME, &Status);
      }
    }
  }
}

// ---- Rotation ---------------------------------------------------------------------------------------------

// An event that starts a segment, and has another one dropped.
void RotateAndDrop(benchmark::State& State) {
  for (auto _ : State) g_Store->Add(1);
}

// The same files made and removed, and the one sync that puts the header before the removal.
void RotateRaw(benchmark::State& State) {
  constexpr const char* kNames[] = {"raw events", "raw objbt", "raw objid", "raw objdt"};
  constexpr std::size_t kSizes[] = {12 + sizeof(Event), 1040, 12, 4};
  const char Content[1040] = {};
  const int nHeader = OpenRaw("raw segments", O_RDWR | O_CREAT);
  for (auto _ : State) {
    for (int i = 0; i < 4; ++i) {
      const int nFile = OpenRaw(kNames[i], O_RDWR | O_CREAT);
      benchmark::DoNotOptimize(pwrite(nFile, Content, kSizes[i], 0));
      close(nFile);
    }
    benchmark::DoNotOptimize(pwrite(nHeader, Content, 12, 0));
    fsync(nHeader);
    for (const char* const pName : kNames) unlink(g_Store->File(pName).c_str());
  }
  close(nHeader);
}

// ---- The run ----------------------------------------------------------------------------------------------

// Prints what was measured as usual and keeps the median of each benchmark.
class Medians : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& Runs) override {
    ConsoleReporter::ReportRuns(Runs);
    for (const Run& One : Runs) {
      if (One.aggregate_name == "median") m_Times[One.run_name.function_name] = One.GetAdjustedRealTime();
    }
  }
  double Of(const std::string& Name) const { return m_Times.at(Name); }

 private:
  std::map<std::string, double> m_Times;
};

// Runs a pair in turn, and tells their ratio as the floor or ceiling is stated.
void RunPair(const char* pOurs, void (*pFunction)(benchmark::State&), const char* pRaw,
             void (*pRawFunction)(benchmark::State&), const char* pWanted, std::string* pSummary) {
  benchmark::ClearRegisteredBenchmarks();
  for (const auto& [pName, pRun] : {std::pair{pOurs, pFunction}, {pRaw, pRawFunction}}) {
    benchmark::RegisterBenchmark(pName, pRun)->Repetitions(15)->ReportAggregatesOnly()->UseRealTime();
  }
  Medians Measured;
  benchmark::RunSpecifiedBenchmarks(&Measured);
  char Line[200];
  std::snprintf(Line, sizeof(Line), "%-22s %10.0f ns  %-22s %10.0f ns   throughput %.2f of it%s\n", pOurs,
                Measured.Of(pOurs), pRaw, Measured.Of(pRaw), Measured.Of(pRaw) / Measured.Of(pOurs), pWanted);
  *pSummary += Line;
}

void RunAll() {
  std::string Summary;
  g_Store.emplace();
  g_nRaw = OpenRaw("raw", O_RDWR | O_CREAT);
  RunPair("AddEvent", AddEvent, "fstat+pwrite", AddRaw, " (at least 0.8)", &Summary);
  close(g_nRaw);

  g_Store.reset();
  g_Store.emplace();
  g_Store->Add(kStored);
  g_nRaw = OpenRaw(kEventFile, O_RDONLY);
  RunPair("GetEvents(1000)", GetBatch, "pread of 1000", ReadBatchRaw, " (at least 0.9)", &Summary);
  RunPair("GetEvents(1), random", GetRandom, "pread of 1, random", ReadRandomRaw, " (at least 0.7)", &Summary);
  close(g_nRaw);
  RunPair("FindObject, cached", FindCached, "hashing 5 components", HashComponents,
          " (at least 0.67, 1.5 times the cost)", &Summary);
  RunPair("FindObject, new", FindNew, "hashing 5 components", HashComponents, "", &Summary);

  g_Store.reset();
  g_Store.emplace();
  g_Store->AddSharedObjects(kSharedObjects);
  RunPair("Compact", CompactShared, "pread+pwrite, copying", CopyBothFilesRaw, " (at least 0.3)", &Summary);

  g_Store.reset();
  g_Store.emplace();
  BenchStore::Require(g_Store->Call(&LumbraOperations::SetDBParams, BenchStore::kDatabase, limitSegmentEvents, 1));
  g_Store->Add(kSegments);
  RunPair("open 1000 segments", OpenThousandSegments, "statx of 4000 files", LookAtFilesRaw, "", &Summary);
  BenchStore::Require(g_Store->Call(&LumbraOperations::SetDBParams, BenchStore::kDatabase, limitSegmentEvents, 1));
  BenchStore::Require(g_Store->Call(&LumbraOperations::SetDBParams, BenchStore::kDatabase, limitDatabaseEvents, 1));
  RunPair("rotate and drop", RotateAndDrop, "4 files, sync, unlink", RotateRaw, "", &Summary);
  g_Store.reset();
  std::printf("\n%s", Summary.c_str());
}

}  // namespace
}  // namespace lumbra::bench

int main(int nCount, char** ppArguments) {
  // The two of a pair run in turn, so that what else the machine does meets both alike.
  std::vector<char*> Arguments(ppArguments, ppArguments + nCount);
  char Interleave[] = "--benchmark_enable_random_interleaving=true";
  char Time[] = "--benchmark_min_time=0.1";
  Arguments.insert(Arguments.begin() + 1, {Interleave, Time});
  int nArguments = static_cast<int>(Arguments.size());
  benchmark::Initialize(&nArguments, Arguments.data());
  lumbra::bench::RunAll();
}
