// What reading a store costs those who take no locks, each beside its baseline in the same run. Without arguments it
// makes a store of its own; with a folder and the number of a database it reads that.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host/text.h"
#include "inspect/event_reader.h"
#include "inspect/paths.h"

namespace {

using namespace lumbra;

double Seconds(const std::function<void()>& Work) {
  double nBest = 1e9;
  for (int i = 0; i < 3; ++i) {
    const auto Start = std::chrono::steady_clock::now();
    Work();
    nBest = std::min(nBest, std::chrono::duration<double>(std::chrono::steady_clock::now() - Start).count());
  }
  return nBest;
}

}  // namespace

int main(int nCount, char** ppArguments) {
  if (nCount < 3) return 2;
  std::unique_ptr<inspect::Store> pStore;
  if (inspect::Store::Open(host::ToUtf16(ppArguments[1]), &pStore) != os::kSuccess) return 1;
  const auto Found = pStore->Find(host::ToUtf16(ppArguments[2]));
  if (!Found) return 1;
  const auto Silent = [](const inspect::Finding& What) {
    std::fprintf(stderr, "%s\n", What.What.c_str());
  };
  std::uint64_t nEvents = 0;
  const double nIterate = Seconds([&] {
    inspect::EventReader Reader(*pStore, *Found, Silent);
    (void)Reader.Refresh();
    Reader.MoveToOldest();
    nEvents = 0;
    inspect::Batch Read;
    while (Reader.Next(262144, &Read)) nEvents += Read.nCount;
  });
  std::printf("iterate: %llu events, %.3f s\n", static_cast<unsigned long long>(nEvents), nIterate);
  std::uint64_t nNamed = 0;
  const double nNames = Seconds([&] {
    inspect::EventReader Reader(*pStore, *Found, Silent);
    inspect::Paths Names(*pStore, 64 << 20);
    (void)Reader.Refresh();
    Reader.MoveToOldest();
    nNamed = 0;
    inspect::Batch Read;
    std::vector<std::uint64_t> Ids;
    while (Reader.Next(262144, &Read)) {
      Ids.resize(Read.nCount);
      for (std::uint32_t i = 0; i < Read.nCount; ++i)
        std::memcpy(&Ids[i], Read.Events.data() + std::size_t{i} * Reader.EventSize() + 8, 8);
      for (const inspect::ObjectView& One : Names.Resolve(Ids, Read.Objects))
        nNamed += One.Of == inspect::ObjectView::State::Named ? 1 : 0;
    }
  });
  std::printf("with names: %llu named, %.3f s\n", static_cast<unsigned long long>(nNamed), nNames);
}
