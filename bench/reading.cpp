// What reading a store costs those who take no locks, each beside its baseline in the same run: a table in Markdown.
//   lumbra_reading TOOL MODULE [--quick]     in an empty folder, which is left with the stores that it makes
// 4,000,000 events over 1,000,000 paths in random order, and with --quick a hundredth of that.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "host/text.h"
#include "inspect/event_reader.h"
#include "inspect/verify.h"

namespace {

using namespace lumbra;

// The least of some runs.
double Seconds(const std::function<void()>& Work, int nRuns = 5) {
  double nLeast = 1e9;
  for (int i = 0; i < nRuns; ++i) {
    const auto Start = std::chrono::steady_clock::now();
    Work();
    nLeast = std::min(nLeast, std::chrono::duration<double>(std::chrono::steady_clock::now() - Start).count());
  }
  return nLeast;
}

void Run(const std::string& Command) {
  if (std::system(Command.c_str()) != 0) std::fprintf(stderr, "failed: %s\n", Command.c_str());
}

double SecondsOf(const std::string& Command, int nRuns = 5) {
  return Seconds([&Command] { Run(Command); }, nRuns);
}

// A row of the table: how much faster it is than the baseline, and what is wanted of that.
void Row(const char* pWhat, double nOurs, const char* pBaseline, double nTheirs, const char* pWanted) {
  std::printf("| %s | %.3f | %s | %.3f | %.2f | %s |\n", pWhat, nOurs, pBaseline, nTheirs, nTheirs / nOurs, pWanted);
}

// Lines for lumbra record: events about paths below many folders, each path four times, in random order.
void WriteLines(const char* pFile, unsigned nEvents) {
  std::vector<unsigned> Order(nEvents);
  for (unsigned i = 0; i < nEvents; ++i) Order[i] = i / 4;
  std::shuffle(Order.begin(), Order.end(), std::mt19937(1));
  std::FILE* const pLines = std::fopen(pFile, "w");
  for (unsigned i = 0; i < nEvents; ++i) {
    std::fprintf(pLines, "{\"name\":\"/srv/data/dir%03u/sub%02u/file-%06u.txt\",\"kind\":%u,\"value\":%u}\n",
                 Order[i] % 997, Order[i] % 37, Order[i], 1 + i % 4, i);
  }
  std::fclose(pLines);
}

class Reading {
 public:
  explicit Reading(const char* pStore) { (void)inspect::Store::Open(host::ToUtf16(pStore), &m_pStore); }

  std::uint64_t Iterate() const {
    inspect::EventReader Reader(*m_pStore, *m_pStore->Find(u"01"), Silent);
    (void)Reader.Refresh();
    std::uint64_t nEvents = 0;
    inspect::Batch Read;
    while (Reader.Next(UINT32_MAX, &Read)) nEvents += Read.nCount;
    return nEvents;
  }

  void Open() const {
    inspect::EventReader Reader(*m_pStore, *m_pStore->Find(u"01"), Silent);
    (void)Reader.Refresh();
  }

  inspect::Verified Verify() const {
    inspect::Verified Totals;
    (void)inspect::Verify(*m_pStore, {}, Silent, nullptr, &Totals);
    return Totals;
  }

 private:
  static void Silent(const inspect::Finding& What) { std::fprintf(stderr, "found: %s\n", What.What.c_str()); }

  std::unique_ptr<inspect::Store> m_pStore;
};

}  // namespace

int main(int nCount, char** ppArguments) {
  if (nCount < 3) return 2;
  const std::string Tool = std::string(ppArguments[1]) + " --store ";
  const bool bQuick = nCount > 3 && std::string_view(ppArguments[3]) == "--quick";
  const unsigned nEvents = bQuick ? 40000 : 4000000;
  WriteLines("lines", nEvents);
  Run(Tool + "store record --db 1 lines > out");
  Run("head -n 40000 lines | " + Tool + "segments record --db 1 --segment-events 40 > out");
  Run(Tool + "store --module " + ppArguments[2] + " events --db 1 --last 1 > out");  // so that all is warm

  std::printf("| what | s | baseline | s | baseline / what | wanted |\n|---|---|---|---|---|---|\n");
  const Reading Store("store");
  const double nCat = SecondsOf("cat store/01/00000001_events.dat > /dev/null");
  const std::string Events = Tool + "store events --db 1 ";
  const std::string Before = Tool + "store --module " + ppArguments[2] + " events --db 1 ";
  Row("every event, in the library", Seconds([&] { (void)Store.Iterate(); }), "`cat`", nCat, "at least 0.8");
  Row("`events --count-only --kind 1`", SecondsOf(Events + "--count-only --kind 1 > out"), "`cat`", nCat,
      "at least 0.5");
  Row("`events` to a file", SecondsOf(Events + "> out"), "through the component", SecondsOf(Before + "> out", 1),
      "at least 20");
  Row("`events --json` to a file", SecondsOf(Events + "--json > out"), "through the component",
      SecondsOf(Before + "--json > out", 1), "at least 20");
  inspect::Verified Totals;
  const double nVerify = Seconds([&] { Totals = Store.Verify(); });
  const double nCatAll = SecondsOf("cat store/*.dat store/*/* > /dev/null");
  Row("verification of all", nVerify, "`cat` of all", nCatAll, "");
  std::printf("\n%.0f objects a second were verified, of %llu; wanted are 500,000.\n",
              static_cast<double>(Totals.nObjects) / nVerify, static_cast<unsigned long long>(Totals.nObjects));
  const Reading Segments("segments");
  std::printf("1,000 segments were opened in %.1f ms; wanted are 30.\n", 1000 * Seconds([&] { Segments.Open(); }));
}
