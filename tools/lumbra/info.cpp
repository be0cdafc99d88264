// lumbra info: every database of a store.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "commands.h"
#include "event_time.h"
#include "failure.h"
#include "format/file_names.h"
#include "host/text.h"
#include "inspect/event_reader.h"
#include "inspect/heads.h"
#include "inspect/horizon.h"
#include "machine.h"
#include "reading.h"
#include "store_info.h"

namespace lumbra::tool {
namespace {

// ---- From outside -----------------------------------------------------------------------------------------

// Where an event has its time. Only the tool's own have one that is known.
std::optional<std::uint32_t> OffsetOfTime(const inspect::Horizon& Of) {
  return Of.nEventSize == sizeof(Event) ? std::optional<std::uint32_t>(offsetof(Event, nTime)) : std::nullopt;
}

class Observer {
 public:
  Observer(const CommonOptions& Common, const InfoOptions& Options)
      : m_Options(Options), m_pStore(OpenToRead(Common)), m_Teller(m_Findings.Teller()) {
    m_Told = [this](const inspect::Finding& Found) {
      if (Found.Of != inspect::Grade::Leftover) ++m_nFindings;
      m_Teller(Found);
    };
  }

  // What cannot be looked at is told, and does not hide the rest.
  StoreInfo Look(const StoreFiles& Files) {
    StoreInfo Of;
    Of.Folder = TextOf(Files.Folder());
    Of.nNow = Now();
    Of.bCorrupted = m_pStore->IsMarkedCorrupted();
    Of.nSetAside = Files.SetAsideSize();
    Of.Holders = m_pStore->Holders();
    inspect::CheckSharedHeads(*m_pStore, m_Told);
    for (const inspect::Database& One : m_pStore->Databases()) {
      try {
        Of.Databases.push_back(Describe(One));
      } catch (const Failure& Reason) {
        ReportFailure(Reason);
        m_Findings.NoteMissing();
        ++m_nFindings;
      }
    }
    Of.nFindings = m_nFindings;
    return Of;
  }

  int Status(const StoreInfo& Of) const {
    return m_Findings.StatusOfReading(Of.bCorrupted ? kExitIncomplete : kExitOk);
  }

 private:
  DatabaseInfo Describe(const inspect::Database& One) {
    DatabaseInfo Info;
    Info.Id = One.Id;
    const bool bNumbered = One.Id && *One.Id < kFirstNamedDatabase;
    Info.Name = bNumbered ? DatabaseName{One.Id, {}} : DatabaseName{{}, host::ToUtf8(One.Folder)};
    inspect::Horizon At;
    Check(inspect::TakeHorizon(*m_pStore, One, m_Told, &At), "look at " + Info.Name.Describe());
    inspect::CheckHeads(*m_pStore, One, At, m_Told);
    Info.nEventSize = At.nEventSize;
    Info.nSegments = At.Segments.size();
    if (!At.Segments.empty()) Info.nOldest = At.Segments.front().nBirth;
    os::FolderHandle pFolder;
    if (m_pStore->OpenFolder(One, &pFolder) != os::kSuccess) return Info;  // it is gone by now
    for (const inspect::SegmentExtent& Segment : At.Segments) {
      const SegmentInfo Measured = Measure(pFolder, Segment);
      Info.nRecords += Measured.nEvents;
      for (const std::uint64_t nBytes : Measured.Bytes) Info.nBytes += nBytes;
      if (m_Options.bSegments) Info.Segments.push_back(Measured);
    }
    if (m_Options.bTimes) Info.Times = FindTimes(One, Info.Name);
    return Info;
  }

  static SegmentInfo Measure(const os::FolderHandle& pFolder, const inspect::SegmentExtent& Segment) {
    SegmentInfo Info{Segment.nNumber, Segment.nEvents, {}, Segment.nBirth};
    const char16_t* const kNames[] = {kEventsFile, kIdsFile, kTreeFile, kDataFile};
    static_assert(std::size(kNames) == std::size(kSegmentFiles));
    for (std::size_t i = 0; i < std::size(kNames); ++i) {
      os::FileLook Found{};
      if (os::LookAt(pFolder, SegmentFileName(Segment.nNumber, kNames[i]), &Found) == os::kSuccess && Found.bPlain)
        Info.Bytes[i] = Found.nSize;
    }
    return Info;
  }

  // Reads every event. What is wrong with heads is told already.
  std::optional<TimeRange> FindTimes(const inspect::Database& One, const DatabaseName& Name) {
    constexpr std::uint32_t kBatch = 65536;
    inspect::EventReader Reader(*m_pStore, One, [](const inspect::Finding&) {});
    Check(Reader.Refresh(), "read " + Name.Describe());
    const std::optional<std::uint32_t> Offset = OffsetOfTime(Reader.Seen());
    if (!Offset) return {};
    TimeRange Found{UINT64_MAX, 0};
    inspect::Batch Read;
    while (Reader.Next(kBatch, &Read)) {
      if (Read.Lost) NoteLost(*Read.Lost, Name);
      for (std::size_t nAt = *Offset; nAt < Read.Events.size(); nAt += Reader.EventSize()) {
        std::uint64_t nTime = 0;
        std::memcpy(&nTime, Read.Events.data() + nAt, sizeof(nTime));
        Found.nLowest = std::min(Found.nLowest, nTime);
        Found.nHighest = std::max(Found.nHighest, nTime);
      }
    }
    return Found.nLowest <= Found.nHighest ? std::optional(Found) : std::nullopt;
  }

  // Events that a limit drops meanwhile are no damage.
  void NoteLost(const inspect::Gap& Lost, const DatabaseName& Name) {
    if (Lost.Reason == inspect::Gap::Why::Dropped || Lost.Reason == inspect::Gap::Why::Cleared) return;
    m_Findings.NoteMissing();
    std::fprintf(stderr, "lumbra: the times of %s%llu events of %s cannot be read\n", Lost.bAtLeast ? "at least " : "",
                 static_cast<unsigned long long>(Lost.nCount), Name.Describe().c_str());
  }

  const InfoOptions& m_Options;
  const std::unique_ptr<inspect::Store> m_pStore;
  Findings m_Findings;
  const inspect::Report m_Teller;
  inspect::Report m_Told;
  std::uint64_t m_nFindings = 0;
};

// ---- Through the component --------------------------------------------------------------------------------

DatabaseInfo Describe(Session& Store, const DatabaseName& Database) {
  DatabaseInfo Info;
  Info.Name = Database;
  const bool bHasId = Store.Files().HasId(Database);
  if (bHasId) Info.Id = Store.OpenDatabase(Database, Missing::Refuse);
  const std::optional<DatabaseFiles> Files = Store.Files().Read(Database);
  if (!Files) throw Failure("list " + Database.Describe(), errDATA_CORRUPTED, "its segments.dat is damaged");
  Info.nEventSize = Files->nEventSize;
  Info.nSegments = Files->Segments.size();
  if (bHasId) {
    std::uint32_t nRecords = 0;
    Check(Store.Call(&LumbraOperations::GetDBInfo, *Info.Id, &nRecords, &Info.nBytes, &Info.nOldest),
          "describe " + Database.Describe());
    Info.nRecords = nRecords;
    return Info;
  }
  // To open it would give its name one of the ids for ever; its files tell enough.
  for (const SegmentFile& Segment : Files->Segments) Info.nRecords += Segment.nEvents;
  Info.nBytes = Store.Files().SizeOf(Database);
  return Info;
}

StoreInfo AskComponent(Session& Store, int* pnStatus) {
  StoreInfo Of;
  Of.Folder = TextOf(Store.Files().Folder());
  Of.nNow = Now();
  Of.bCorrupted = Store.IsCorrupted();
  Of.nSetAside = Store.Files().SetAsideSize();
  Of.bLooksFromOutside = false;
  for (const DatabaseName& Database : Store.Files().Databases()) {
    try {
      Of.Databases.push_back(Describe(Store, Database));
    } catch (const Failure& Reason) {  // one that cannot be opened does not hide the others
      ReportFailure(Reason);
      *pnStatus = kExitIncomplete;
    }
  }
  return Of;
}

void Print(const StoreInfo& Of, InfoOptions::Form Form) {
  switch (Form) {
    case InfoOptions::Form::Table:
      return PrintInfoAsTable(Of);
    case InfoOptions::Form::Json:
      return PrintInfoAsJson(Of);
    case InfoOptions::Form::Prometheus:
      return PrintInfoForPrometheus(Of);
  }
}

}  // namespace

int Info(const CommonOptions& Common, const InfoOptions& Options) {
  if (ReadsThroughComponent(Common)) {
    if (Options.bSegments || Options.bTimes) {
      std::fputs("lumbra: --segments and --times are not for --module and --trace\n", stderr);
      return kExitUsage;
    }
    int nStatus = kExitOk;
    Session Store(Common, Missing::Refuse);
    const StoreInfo Of = AskComponent(Store, &nStatus);
    Print(Of, Options.Output);
    return Store.StatusOfReading(Of.bCorrupted ? kExitIncomplete : nStatus);
  }
  Observer Outside(Common, Options);
  StoreInfo Of = Outside.Look(StoreFiles(AbsolutePath(Common.Store)));
  Of.bSegments = Options.bSegments;
  Of.bTimes = Options.bTimes;
  Print(Of, Options.Output);
  return Outside.Status(Of);
}

}  // namespace lumbra::tool
