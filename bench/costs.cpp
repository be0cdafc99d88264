// What the busy operations ask of the system: calls and allocations, counted.
#include <cstdio>

#include "bench_store.h"
#include "support/system_calls.h"

namespace lumbra::bench {
namespace {

using test::SystemCall;

struct Counted {
  std::uint64_t nRounds;
  std::uint64_t nCalls;
  std::uint64_t nAllocations;
};

template <class Operation>
Counted Count(std::uint64_t nRounds, Operation Do) {
  test::ResetSystem();
  for (std::uint64_t i = 0; i < nRounds; ++i) Do(i);
  return {nRounds, test::AllCalls(), test::Allocations()};
}

void Print(const char* pWhat, const Counted& Found) {
  const auto nRounds = static_cast<double>(Found.nRounds);
  std::printf("%-44s %8.2f system calls  %8.2f allocations\n", pWhat, static_cast<double>(Found.nCalls) / nRounds,
              static_cast<double>(Found.nAllocations) / nRounds);
}

void Run() {
  BenchStore Store;
  Store.Add(1);
  Event First{};
  Print("opening with one database, to its first event", Count(1, [&](std::uint64_t) {
          Store.Open();
          BenchStore::Require(Store.Call(&LumbraOperations::GetEvents, BenchStore::kDatabase, 0, &First, sizeof(First),
                                         1, nullptr, nullptr));
        }));
  const std::u16string kFolder = u"C:\\Program Files\\Component\\Reports\\";
  std::u16string Path = kFolder + u"today.txt";
  Store.Add(1);
  Store.Find(Path);
  Store.Find(Path);
  Print("AddEvent", Count(1000, [&](std::uint64_t) { Store.Add(1); }));
  Event Buffer[100];
  Print("GetEvents of 100", Count(10, [&](std::uint64_t) {
          BenchStore::Require(Store.Call(&LumbraOperations::GetEvents, BenchStore::kDatabase, 0, Buffer, sizeof(Buffer),
                                         100, nullptr, nullptr));
        }));
  Print("FindObject of 5 components, cached", Count(1000, [&](std::uint64_t) { Store.Find(Path); }));
  Path = kFolder + u"aaa";
  Print("FindObject, a new file in a known folder", Count(5000, [&](std::uint64_t i) {
          Path[kFolder.size()] = static_cast<char16_t>(u'a' + i % 26);
          Path[kFolder.size() + 1] = static_cast<char16_t>(u'a' + i / 26 % 26);
          Path[kFolder.size() + 2] = static_cast<char16_t>(u'a' + i / 676);
          Store.Find(Path);
        }));
  const std::uint64_t nObject = Store.AddSharedObjects(2);
  char Block[BenchStore::kBlockSize] = {};
  Print("GetObjectData of 100 bytes", Count(1000, [&](std::uint64_t) {
          BenchStore::Require(Store.Call(&LumbraOperations::GetObjectData, nObject, Block, sizeof(Block), nullptr, 1));
        }));
  std::printf("%-44s %8llu reads in 1,000, and a look at the thread's priority each\n", "",
              static_cast<unsigned long long>(test::CallsOf(SystemCall::ReadAt)));
  Print("SetObjectData of 100 bytes, in place", Count(1000, [&](std::uint64_t) {
          BenchStore::Require(Store.Call(&LumbraOperations::SetObjectData, nObject, Block, sizeof(Block), 1));
        }));
  std::printf("%-44s %8llu reads and %llu writes in 1,000, and a look at the priority each\n", "",
              static_cast<unsigned long long>(test::CallsOf(SystemCall::ReadAt)),
              static_cast<unsigned long long>(test::CallsOf(SystemCall::WriteAt)));
  for (const std::uint32_t nObjects : {1000u, 20000u}) {
    Store.AddSharedObjects(nObjects);
    const Counted Pass =
        Count(1, [&](std::uint64_t) { BenchStore::Require(Store.Call(&LumbraOperations::Compact, kSystemDatabase)); });
    std::printf("Compact of %6u objects %20s %8llu system calls  %8llu allocations\n", nObjects, "",
                static_cast<unsigned long long>(Pass.nCalls), static_cast<unsigned long long>(Pass.nAllocations));
  }
  BenchStore::Require(Store.Call(&LumbraOperations::SetDBParams, BenchStore::kDatabase, limitSegmentEvents, 1));
  Store.Add(1000);
  Store.Open();
  const Counted Opened = Count(1, [&](std::uint64_t) { Store.Open(); });
  Print("opening the store and 1,000 segments", Opened);
  std::printf("%-44s %8llu files opened (8 of the store's own and of its system database)\n", "",
              static_cast<unsigned long long>(test::CallsOf(SystemCall::Open)));
  Print("the same, with a look for damage before", Count(1, [&](std::uint64_t) { Store.Open(host::Heal::On); }));
  std::printf("%-44s %8llu writes\n", "", static_cast<unsigned long long>(test::CallsOf(SystemCall::WriteAt)));
  const Counted Next = Count(1, [&](std::uint64_t) { Store.Add(1); });
  Print("the first event after that", Next);
  BenchStore::Require(Store.Call(&LumbraOperations::SetDBParams, BenchStore::kDatabase, limitSegmentEvents, 1));
  BenchStore::Require(Store.Call(&LumbraOperations::SetDBParams, BenchStore::kDatabase, limitDatabaseEvents, 10));
  Print("an event that drops a segment, and starts one", Count(100, [&](std::uint64_t) { Store.Add(1); }));
  std::printf("%-44s %8llu syncs in 100\n", "", static_cast<unsigned long long>(test::CallsOf(SystemCall::Sync)));
}

}  // namespace
}  // namespace lumbra::bench

int main() {
  lumbra::bench::Run();
}
