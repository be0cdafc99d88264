// lumbra events: what a database holds, oldest to newest, with the names of the objects.
#include <algorithm>
#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "event_time.h"
#include "failure.h"

namespace lumbra::tool {
namespace {

constexpr std::uint32_t kBatch = 1000;

std::string FormatId(std::uint64_t nId) {
  char Text[24];
  std::snprintf(Text, sizeof(Text), "0x%016llx", static_cast<unsigned long long>(nId));
  return Text;
}

std::string FormatKind(std::uint32_t nKind) {
  constexpr const char* kNames[] = {"-", "file", "folder", "link", "other"};
  return nKind < std::size(kNames) ? kNames[nKind] : std::to_string(nKind);
}

// A run of events within one segment.
struct Run {
  std::uint32_t nSegment;
  std::uint64_t nFirst;
  std::uint64_t nCount;
};

// The runs that the options ask for, oldest first.
std::vector<Run> ChooseRuns(const std::vector<SegmentFile>& Segments, const EventsOptions& Options) {
  std::vector<Run> Runs;
  std::uint64_t nTotal = 0;
  for (const SegmentFile& Segment : Segments) nTotal += Segment.nEvents;
  std::uint64_t nSkip = Options.Last && *Options.Last < nTotal ? nTotal - *Options.Last : 0;
  std::uint64_t nLeft = Options.Count.value_or(UINT64_MAX);
  for (const SegmentFile& Segment : Segments) {
    std::uint64_t nFirst = std::min(nSkip, Segment.nEvents);
    nSkip -= nFirst;
    if (Options.From) {  // the first event whose id is not below the one given
      const std::uint32_t nFrom = SegmentOfId(*Options.From);
      if (Segment.nNumber < nFrom) continue;
      if (Segment.nNumber == nFrom)
        nFirst = std::min<std::uint64_t>(static_cast<std::uint32_t>(*Options.From), Segment.nEvents);
    }
    const std::uint64_t nCount = std::min(Segment.nEvents - nFirst, nLeft);
    nLeft -= nCount;
    if (nCount != 0) Runs.push_back({Segment.nNumber, nFirst, nCount});
  }
  return Runs;
}

class Printer {
 public:
  Printer(Session* pSession, bool bJson) : m_pSession(pSession), m_bJson(bJson) {}

  void Print(std::uint64_t nId, const Event& Shown) {
    const std::optional<ObjectName> Object = m_pSession->NameOf(Shown.nObject);
    if (m_bJson) {
      nlohmann::ordered_json Line = {
          {"id", FormatId(nId)},   {"time", FormatTime(Shown.nTime)},   {"kind", Shown.nKind},
          {"value", Shown.nValue}, {"object", FormatId(Shown.nObject)}, {"type", nullptr},
          {"name", nullptr}};
      if (Object) {
        Line["type"] = Object->nType;
        Line["name"] = Object->Name;
      }
      std::puts(Line.dump().c_str());
    } else {
      std::printf("%s  %s  %-6s  %12llu  %s\n", FormatId(nId).c_str(), FormatTime(Shown.nTime).c_str(),
                  FormatKind(Shown.nKind).c_str(), static_cast<unsigned long long>(Shown.nValue),
                  Object ? Object->Name.c_str() : "(its name is gone)");
    }
  }

 private:
  Session* m_pSession;
  bool m_bJson;
};

}  // namespace

int Events(const CommonOptions& Common, const EventsOptions& Options) {
  Session Store(Common, Missing::Refuse);
  const std::uint32_t nDatabase = Store.OpenEventDatabase(Options.Database, Missing::Refuse);
  if (Options.From && DatabaseOfId(*Options.From) != nDatabase) {
    throw Failure("read from " + FormatId(*Options.From), errPARAMETER_INVALID,
                  "this is no event of " + Options.Database.Describe());
  }
  const std::optional<DatabaseFiles> Files = Store.Files().Read(Options.Database);
  Printer Output(&Store, Options.bJson);
  std::vector<Event> Batch(kBatch);
  for (const Run& Wanted : ChooseRuns(Files->Segments, Options)) {
    for (std::uint64_t nDone = 0; nDone < Wanted.nCount;) {
      const std::uint64_t nId =
          WithDatabase((std::uint64_t{Wanted.nSegment} << 32) | (Wanted.nFirst + nDone), nDatabase);
      const auto nCount = static_cast<std::uint32_t>(std::min<std::uint64_t>(Wanted.nCount - nDone, kBatch));
      std::uint32_t nRead = 0;
      Check(Store.Call(&LumbraOperations::GetEvents, nDatabase, nId, Batch.data(), kBatch * sizeof(Event), nCount,
                       &nRead, nullptr),
            "read events");
      if (nRead == 0) break;
      for (std::uint32_t i = 0; i < nRead; ++i) Output.Print(nId + i, Batch[i]);
      nDone += nRead;
    }
  }
  return kExitOk;
}

}  // namespace lumbra::tool
