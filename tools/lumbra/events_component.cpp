// lumbra events through the component: with a module, or with a trace of what it does.
#include <algorithm>
#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "event_time.h"
#include "failure.h"
#include "host/text.h"
#include "ids.h"

namespace lumbra::tool {
namespace {

constexpr std::uint32_t kBatch = 1000;

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
  std::uint64_t nSkip = Options.Lines && *Options.Lines < nTotal ? nTotal - *Options.Lines : 0;
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
  Printer(Session* pSession, const EventsOptions& Options) : m_pSession(pSession), m_Options(Options) {}

  // The events of a program may be about objects of other databases, which are opened when the first one is met.
  void OpenDatabaseOf(std::uint64_t nObject) {
    const auto [Known, bNew] = m_Opened.try_emplace(DatabaseOfId(nObject), errOK);
    if (!bNew) return;
    try {
      m_pSession->OpenDatabaseOf(nObject);
    } catch (const Failure& Reason) {
      Known->second = Reason.Code();
    }
  }

  // nParent is the parent of the event's object, 0 when it has none or the store could not read it. The object's
  // database has been opened.
  void Print(std::uint64_t nId, const Event& Shown, std::uint64_t nParent) {
    ObjectName Object;
    const ResultCode nCode = ReadName(Shown.nObject, &Object);
    const bool bNamed = Succeeded(nCode);
    const bool bGone = nCode == errOBJECT_NOT_FOUND || nCode == errNOT_FOUND;
    const bool bTooLong = nCode == errSIZE_INVALID;
    if (!bNamed && !bGone && !bTooLong) m_nUnreadable = nCode;
    const bool bKnowsParent = !m_Options.bParents || nParent != 0 || !bNamed || HasNoParent(Shown.nObject, Object);
    if (!bKnowsParent) m_nUnreadable = errREAD_FAILED;
    if (m_Options.Form == OutputForm::Json) {
      nlohmann::ordered_json Line = {{"id", FormatId(nId)},
                                     {"time", nullptr},
                                     {"kind", Shown.nKind},
                                     {"value", Shown.nValue},
                                     {"object", FormatId(Shown.nObject)},
                                     {"type", nullptr},
                                     {"name", nullptr}};
      if (const std::optional<std::string> Time = FormatTime(Shown.nTime)) Line["time"] = *Time;
      if (bNamed) {
        Line["type"] = Object.nType;
        Line["name"] = host::ToUtf8(host::ToUtf16(Object.Name));  // JSON has no form for bytes that are no UTF-8 ...
        if (!host::IsUtf8(Object.Name)) Line["escaped"] = Printable(Object.Name);  // ... but --escaped reads this
      }
      if (m_Options.bParents) Line["parent"] = nParent == 0 ? nlohmann::json() : nlohmann::json(FormatId(nParent));
      std::puts(host::PrintableJson(Line.dump()).c_str());
      return;
    }
    std::printf("%s  %s  %-6s  %12llu  ", FormatId(nId).c_str(), DescribeTime(Shown.nTime).c_str(),
                FormatKind(Shown.nKind).c_str(), static_cast<unsigned long long>(Shown.nValue));
    if (m_Options.bParents)
      std::printf("%-18s  ", nParent != 0 ? FormatId(nParent).c_str() : bKnowsParent ? "-" : "cannot be read");
    std::puts(bNamed               ? Printable(Object.Name).c_str()
              : Shown.nObject == 0 ? kAboutNothing
              : bGone              ? kNameGone
              : bTooLong           ? kNameTooLong
                                   : kNameUnreadable);
  }

  // The code of the last object that could not be read; errOK when all could that are there.
  ResultCode UnreadableCode() const { return m_nUnreadable; }

 private:
  // Whether it is known that a named object has no parent. A parent of 0 alone does not tell.
  bool HasNoParent(std::uint64_t nObject, const ObjectName& Object) const {
    if (Object.Name.empty()) return true;  // one without a name never has a parent
    host::IdContainer Above;
    Above.AddParent(nObject);  // a file, here or above, takes it out again, and what is below the file is not told
    if (Failed(m_pSession->Call(&LumbraOperations::GetObjectDataInto, nObject, Above.Handle(), 0))) return false;
    if (Above.Parents().empty()) return Above.Hashes().empty();
    // What cannot be read has a hash of 0 there.
    return Above.Parents().size() == 1 && Above.Hashes().size() == 1 && Above.Hashes().front() != 0;
  }

  ResultCode ReadName(std::uint64_t nObject, ObjectName* pObject) {
    if (nObject == 0) return errOBJECT_NOT_FOUND;  // whatever the store is like
    const ResultCode nOpened = m_Opened[DatabaseOfId(nObject)];
    return Failed(nOpened) ? nOpened : m_pSession->ReadName(nObject, pObject);
  }

  ResultCode m_nUnreadable = errOK;
  std::map<std::uint32_t, ResultCode> m_Opened;  // the databases of objects
  Session* m_pSession;
  const EventsOptions& m_Options;
};

class EventReader {
 public:
  EventReader(const Session* pSession, std::uint32_t nDatabase, Printer* pPrinter)
      : m_pSession(pSession), m_nDatabase(nDatabase), m_pPrinter(pPrinter) {}

  // Prints a run of events, with the parents of their objects where these are wanted. *pnShown receives how many there
  // were, also when it fails.
  ResultCode Show(const Run& Wanted, bool bParents, std::uint64_t* pnShown) {
    for (std::uint64_t& nDone = *pnShown; nDone < Wanted.nCount;) {
      const std::uint64_t nId =
          WithDatabase((std::uint64_t{Wanted.nSegment} << 32) | (Wanted.nFirst + nDone), m_nDatabase);
      const auto nCount = static_cast<std::uint32_t>(std::min<std::uint64_t>(Wanted.nCount - nDone, kBatch));
      std::uint32_t nRead = 0;
      ResultCode nCode = Read(nId, nCount, nullptr, &nRead);
      if (Failed(nCode)) return nCode;
      for (std::uint32_t i = 0; i < nRead; ++i) m_pPrinter->OpenDatabaseOf(m_Batch[i].nObject);
      m_Parents.Clear();
      if (bParents) nCode = Read(nId, nCount, m_Parents.Handle(), &nRead);  // now the store can look at all objects
      if (Failed(nCode)) return nCode;
      for (std::uint32_t i = 0; i < nRead; ++i) {
        m_pPrinter->Print(nId + i, m_Batch[i], i < m_Parents.Parents().size() ? m_Parents.Parents()[i] : 0);
      }
      nDone += nRead;
    }
    return errOK;
  }

 private:
  // Reads at least one event. That there are no more of them is a success for the store; here they are known to be
  // there.
  ResultCode Read(std::uint64_t nId, std::uint32_t nCount, HostObject* pParents, std::uint32_t* pnRead) {
    const ResultCode nCode = m_pSession->Call(&LumbraOperations::GetEvents, m_nDatabase, nId, m_Batch.data(),
                                              kBatch * sizeof(Event), nCount, pnRead, pParents);
    return Succeeded(nCode) && *pnRead == 0 ? errREAD_FAILED : nCode;
  }

  const Session* m_pSession;
  const std::uint32_t m_nDatabase;
  Printer* m_pPrinter;
  std::vector<Event> m_Batch = std::vector<Event>(kBatch);
  host::IdContainer m_Parents;
};

}  // namespace

int EventsThroughComponent(const CommonOptions& Common, const EventsOptions& Options) {
  Session Store(Common, Missing::Refuse);
  const std::uint32_t nDatabase = Store.OpenEventDatabase(Options.Database, Missing::Refuse);
  if (Options.From && DatabaseOfId(*Options.From) != nDatabase) {
    throw Failure("read from " + FormatId(*Options.From), errPARAMETER_INVALID,
                  "this is no event of " + Options.Database.Describe());
  }
  const std::optional<DatabaseFiles> Files = Store.Files().Read(Options.Database);
  if (!Files) throw Failure("list " + Options.Database.Describe(), errREAD_FAILED);
  Printer Output(&Store, Options);
  EventReader Reader(&Store, nDatabase, &Output);
  int nStatus = kExitOk;
  for (const Run& Wanted : ChooseRuns(Files->Segments, Options)) {
    std::uint64_t nShown = 0;
    const ResultCode nCode = Reader.Show(Wanted, Options.bParents, &nShown);
    if (Succeeded(nCode)) continue;
    // The segments behind it may be sound: they are shown, too.
    ReportFailure(Failure("read segment " + std::to_string(Wanted.nSegment) + " of " + Options.Database.Describe(),
                          nCode, std::to_string(Wanted.nCount - nShown) + " of its events are missing here"));
    nStatus = kExitIncomplete;
  }
  if (const ResultCode nCode = Output.UnreadableCode(); Failed(nCode)) {
    ReportFailure(Failure("read the objects of some events", nCode));
    nStatus = kExitIncomplete;
  }
  return Store.StatusOfReading(nStatus);
}

}  // namespace lumbra::tool
