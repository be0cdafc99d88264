// lumbra events: what a database holds, oldest to newest, with the names of the objects; beside whoever writes.
#include <algorithm>
#include <cstdio>
#include <thread>

#include "batch_printer.h"
#include "commands.h"
#include "cursor_file.h"
#include "event_filter.h"
#include "event_names.h"
#include "event_output.h"
#include "failure.h"
#include "ids.h"
#include "inspect/event_reader.h"
#include "machine.h"
#include "progress.h"
#include "reading.h"

namespace lumbra::tool {
namespace {

constexpr std::uint64_t kWithoutLimit = UINT64_MAX;
constexpr std::uint64_t kFollowedLines = 10;

// Many events are read, and their names looked up, together; where no name is, not more than processors keep near.
constexpr std::uint32_t kMostEvents = 262144;
constexpr std::uint32_t kMostBytes = 8U << 20;
constexpr std::uint32_t kMostBytesToCount = 256U << 10;
constexpr std::size_t kMostNamesOfFew = 1024;  // where there is a limit, at which most of them would be for nothing

// How often it is looked for new events.
constexpr std::chrono::milliseconds kShortestWait{20};
constexpr std::chrono::milliseconds kLongestWait{200};

// That of a database whose id is not known is left out of the ids that are shown.
std::uint32_t IdOf(const inspect::Database& Database) {
  return Database.Id.value_or(0);
}

class EventShow {
 public:
  EventShow(const CommonOptions& Common, const EventsOptions& Options)
      : m_Options(Options),
        m_pStore(OpenToRead(Common)),
        m_Database(Require(*m_pStore, Options.Database)),
        m_Names(*m_pStore, Common, &m_Findings),
        m_Reader(*m_pStore, m_Database, m_Findings.Teller()),
        m_KeptCursor(Options.CursorFile),
        m_Progress("events", OutputIsFile() && !Options.bQuiet && !Options.bFollow),
        m_nLeft(std::min(Options.Count.value_or(kWithoutLimit), Options.bJustOne ? 1 : kWithoutLimit)) {}

  int Run() {
    WatchForInterrupt();
    if (m_Options.From && m_Database.Id && DatabaseOfId(*m_Options.From) != *m_Database.Id) {
      throw Failure("read from " + FormatId(*m_Options.From), errPARAMETER_INVALID,
                    "this is no event of " + m_Options.Database.Describe());
    }
    const EventFilterOptions& Filter = m_Options.Filter;
    const bool bAsksForNames = !Filter.Names.empty() || !Filter.NotNames.empty() || !Filter.Under.empty();
    if (!m_Options.bCountOnly || bAsksForNames) m_Reader.OpenObjectsIn(m_Names.Paths());
    Look();
    for (const inspect::SegmentExtent& One : m_Reader.Seen().Segments) m_nTotal += One.nEvents;
    m_nStatus = GoToStart();
    if (m_nStatus != kExitOk) return m_nStatus;
    if (m_Options.bReverse) {
      ShowBackwards();
    } else {
      ShowForwards();
    }
    if (m_Options.bFollow) Follow();
    return Finish();
  }

 private:
  // ---- Where to begin -----------------------------------------------------------------------------------

  // Takes a horizon, and opens what may be dropped before it is read.
  void Look() {
    Check(m_Reader.Refresh(), "read " + m_Options.Database.Describe());
    const std::uint32_t nSize = m_Reader.EventSize();
    if (nSize != 0 && nSize != m_nEventSize) Interpret(nSize);
  }

  void Interpret(std::uint32_t nSize) {
    Deliver();
    m_nEventSize = nSize;
    const Schema Layout = SchemaOf(*m_pStore, m_Database, m_Options.Layout, nSize);
    const Field* const pObject = Layout.Object();
    m_ObjectAt = pObject == nullptr ? std::nullopt : std::optional(pObject->nOffset);
    m_Filter.emplace(m_Options.Filter, Layout, m_Options.bUtc ? Zone::Utc : Zone::Local);
    m_Output.emplace(m_Options, Layout, IdOf(m_Database));
    if (!m_Options.bCountOnly) m_Output->PrintHead();
  }

  // Answers the exit status with which to end at once, or kExitOk.
  int GoToStart() {
    std::optional<std::string> After = m_KeptCursor.Read();
    if (m_Options.AfterCursor) After = m_Options.AfterCursor;
    if (m_Options.Cursor) return GoOnAt(*m_Options.Cursor, true);
    if (After) return GoOnAt(*After, false);
    if (m_Options.From) m_Reader.MoveTo({SegmentOfId(*m_Options.From), static_cast<std::uint32_t>(*m_Options.From)});
    std::optional<std::uint64_t> Lines = m_Options.Lines;
    if (m_Options.bReverse) m_nLeft = std::min(m_nLeft, Lines.value_or(kWithoutLimit));
    if (m_Options.bFollow && !m_Options.From && !Lines) Lines = kFollowedLines;
    if (Lines && *Lines != kWithoutLimit && !m_Options.bReverse) GoToLast(*Lines);
    return kExitOk;
  }

  // The newest events that are to be shown, of which nothing is kept: they are read twice.
  void GoToLast(std::uint64_t nEvents) {
    if (!m_Filter || m_Filter->PassesAll() || nEvents == 0) return m_Reader.MoveToLast(nEvents);
    inspect::Batch Read;
    while (!Interrupted() && m_Reader.Previous(MostEvents(), &Read)) {
      if (Read.Lost) continue;
      m_Filter->Select(Read.Events, m_nEventSize, &m_Positions);
      if (m_Filter->AsksForNames()) KeepThoseWithNames(Read);
      if (m_Positions.size() >= nEvents) {
        const std::uint32_t nPosition = m_Positions[m_Positions.size() - static_cast<std::size_t>(nEvents)];
        return m_Reader.MoveTo({Read.First.nSegment, Read.First.nIndex + nPosition});
      }
      nEvents -= m_Positions.size();
    }
    m_Reader.MoveToOldest();
  }

  void KeepThoseWithNames(const inspect::Batch& Read) {
    const std::vector<inspect::ObjectView>& Objects = Resolve(Read, m_Positions);
    std::size_t nKept = 0;
    for (std::size_t i = 0; i < m_Positions.size(); ++i) {
      if (m_Filter->PassesName(Objects[i])) m_Positions[nKept++] = m_Positions[i];
    }
    m_Positions.resize(nKept);
  }

  int GoOnAt(const std::string& Text, bool bFromBefore) {
    const std::optional<inspect::Cursor> Kept = inspect::ParseCursor(Text);
    constexpr std::size_t kMostShown = 100;
    if (!Kept || !m_Reader.IsOfThisDatabase(*Kept)) {
      std::fprintf(stderr, "lumbra: this is no cursor%s: %s\n", Kept ? " of this database" : "",
                   Printable(Text.substr(0, kMostShown)).c_str());
      return kExitCursorInvalid;
    }
    const inspect::Resumed Found = m_Reader.Resume(*Kept);
    if (Found == inspect::Resumed::There) {
      if (bFromBefore && Kept->nNext != 0) m_Reader.MoveTo({Kept->nSegment, Kept->nNext - 1});
      return kExitOk;
    }
    const bool bRepeated = Found == inspect::Resumed::Repeated;
    if (m_Options.IfGone == OnGap::Error || (bRepeated && !m_Options.bQuiet)) {
      std::fprintf(
          stderr, "lumbra: the event of the cursor is gone: %s\n",
          bRepeated
              ? "the newest events were lost by a power cut, or it was updated; the segment is read from its start"
              : "it was dropped or cleared");
    }
    if (m_Options.IfGone == OnGap::Error) return kExitCursorGone;
    if (m_Options.IfGone == OnGap::Latest) GoToEnd();
    return kExitOk;
  }

  // What is left out on the way there is a part of the gap.
  void GoToEnd() {
    std::optional<inspect::Gap> Lost;
    inspect::Batch Read;
    if (m_Reader.Next(1, &Read) && Read.Lost) Lost = Read.Lost;
    m_Reader.MoveToEnd();
    if (!Lost) return;
    for (const inspect::SegmentExtent& One : m_Reader.Seen().Segments) {
      Lost->nCount += One.nEvents;
      Lost->To = {One.nNumber, One.nEvents};
    }
    Tell(*Lost);
  }

  // ---- What is shown ------------------------------------------------------------------------------------

  std::uint32_t MostEvents() const {
    const bool bBytesAlone = m_Options.bCountOnly && m_Filter && !m_Filter->AsksForNames();
    const std::uint32_t nBytes = bBytesAlone ? kMostBytesToCount : kMostBytes;
    return std::clamp<std::uint32_t>(nBytes / std::max<std::uint32_t>(m_nEventSize, 1), 1, kMostEvents);
  }

  void ShowForwards() {
    inspect::Batch Read;
    while (IsGoingOn() && m_Reader.Next(MostEvents(), &Read)) {
      if (!ShowBatch(Read)) return;
      if (m_KeptCursor.IsDue()) KeepCursor();
    }
  }

  void ShowBackwards() {
    inspect::Batch Read;
    while (IsGoingOn() && m_Reader.Previous(MostEvents(), &Read)) {
      if (!ShowBatch(Read)) return;
    }
  }

  bool IsGoingOn() const { return m_nLeft != 0 && m_nStatus == kExitOk && !m_bWriteFailed && !Interrupted(); }

  // False when it was not shown to its end.
  bool ShowBatch(const inspect::Batch& Read) {
    if (Read.Lost) {
      Tell(*Read.Lost);
      return true;
    }
    m_nExamined += Read.nCount;
    m_Filter->Select(Read.Events, m_nEventSize, &m_Positions);
    if (m_Options.bReverse) std::reverse(m_Positions.begin(), m_Positions.end());
    const bool bNames = WantsNames();
    const std::size_t nMost = bNames && m_nLeft != kWithoutLimit ? kMostNamesOfFew : m_Positions.size();
    for (std::size_t nFrom = 0; nFrom < m_Positions.size(); nFrom += nMost) {
      const std::span Some = std::span(m_Positions).subspan(nFrom).first(std::min(nMost, m_Positions.size() - nFrom));
      if (!ShowSome(Read, Some, bNames)) return false;
    }
    m_Progress.Tell(m_nExamined, m_nExamined, m_nTotal);
    return true;
  }

  bool WantsNames() const {
    return m_ObjectAt && (m_Filter->AsksForNames() || (!m_Options.bCountOnly && m_Output->AsksForNames()));
  }

  bool ShowSome(const inspect::Batch& Read, std::span<const std::uint32_t> Positions, bool bNames) {
    const inspect::ObjectView* const pObjects = bNames ? Resolve(Read, Positions).data() : nullptr;
    if (m_Options.bCountOnly && !m_Filter->AsksForNames() && m_nLeft == kWithoutLimit) {
      m_nShown += Positions.size();
      return true;
    }
    if (IsWorthAThread(Positions.size())) {
      m_nShown += Positions.size();
      m_Printer.Print(&*m_Output, Read, m_nEventSize, Positions, pObjects);
      return true;
    }
    WaitForPrinting();
    for (std::size_t i = 0; i < Positions.size(); ++i) {
      const inspect::ObjectView* const pObject = bNames ? &pObjects[i] : nullptr;
      if (bNames) ApproachName({pObjects, Positions.size()}, i);
      if (m_Filter->AsksForNames() && !m_Filter->PassesName(*pObject)) continue;
      if (!m_Options.bCountOnly) Print(Read, Positions[i], pObject);
      ++m_nShown;
      if (m_nLeft != kWithoutLimit && --m_nLeft == 0) {
        if (WantsCursor()) m_Stopped = m_Reader.CursorBehind(Read, Positions[i] + 1);
        return false;
      }
      if (m_bWriteFailed) return false;
    }
    return true;
  }

  // Whether many events are printed of which nothing else is asked.
  bool IsWorthAThread(std::size_t nEvents) const {
    return nEvents >= BatchPrinter::kFewest && !m_Options.bCountOnly && !m_Options.bShowCursor &&
           m_nLeft == kWithoutLimit && !m_Filter->AsksForNames();
  }

  void WaitForPrinting() { m_bWriteFailed = !m_Printer.Wait() || m_bWriteFailed; }

  void Print(const inspect::Batch& Read, std::uint32_t nPosition, const inspect::ObjectView* pObject) {
    if (m_Options.bShowCursor && m_Options.Form != OutputForm::Table)
      m_Cursor = inspect::FormatCursor(m_Reader.CursorBehind(Read, nPosition + 1));
    m_Output->Print({Read.First.nSegment, Read.First.nIndex + nPosition},
                    Read.Events.data() + std::size_t{nPosition} * m_nEventSize, pObject, m_Cursor);
    m_bWriteFailed = !m_Output->WriteIfFull();
  }

  const std::vector<inspect::ObjectView>& Resolve(const inspect::Batch& Read,
                                                  std::span<const std::uint32_t> Positions) {
    return m_Names.Resolve(Read, m_nEventSize, *m_ObjectAt, Positions);
  }

  void Tell(const inspect::Gap& Lost) {
    const bool bGone = Lost.Reason == inspect::Gap::Why::Dropped || Lost.Reason == inspect::Gap::Why::Cleared;
    if (bGone && m_Options.IfGone == OnGap::Error) m_nStatus = kExitCursorGone;
    m_Findings.NoteMissing();
    if (!m_Options.bQuiet) {
      Deliver();
      m_Progress.End();
      std::fprintf(stderr, "lumbra: gap: %s\n", DescribeGap(Lost, IdOf(m_Database)).c_str());
    }
    if (m_Output && !m_Options.bCountOnly && (m_Options.bShowCursor || m_Options.bFollow)) m_Output->PrintGap(Lost);
  }

  // ---- What goes on -------------------------------------------------------------------------------------

  void Follow() {
    std::chrono::milliseconds Wait = kShortestWait;
    while (IsGoingOn()) {
      Deliver();
      if (m_KeptCursor.IsDue()) KeepCursor();
      m_Names.Rest();
      std::this_thread::sleep_for(Wait);
      if (Interrupted()) return;
      const std::uint64_t nBefore = m_nExamined;
      Look();
      ShowForwards();
      Wait = m_nExamined != nBefore ? kShortestWait : std::min(Wait * 2, kLongestWait);
    }
  }

  // Brings what was printed to whoever reads it.
  void Deliver() {
    WaitForPrinting();
    const bool bAll = (!m_Output || m_Output->Write()) && std::fflush(stdout) == 0;
    m_bWriteFailed = m_bWriteFailed || !bAll;
  }

  bool WantsCursor() const { return m_Options.bShowCursor || m_KeptCursor.IsKept(); }
  std::string Cursor() { return inspect::FormatCursor(m_Stopped ? *m_Stopped : m_Reader.CursorHere()); }

  void KeepCursor() {
    Deliver();
    if (!m_bWriteFailed) m_KeptCursor.Write(Cursor());
  }

  int Finish() {
    m_Progress.End();
    WaitForPrinting();
    if (m_Output && m_Options.bShowCursor && m_Options.Form == OutputForm::Table && !m_Options.bCountOnly)
      m_Output->PrintLine("-- cursor: " + Cursor());
    Deliver();
    if (m_Options.bCountOnly) {
      const bool bJson = m_Options.Form == OutputForm::Json;
      std::printf(bJson ? "{\"count\":%llu}\n" : "%llu\n", static_cast<unsigned long long>(m_nShown));
    }
    if (m_KeptCursor.IsKept() && m_nStatus == kExitOk) KeepCursor();
    m_Names.TellOfUnreadable();
    if (Interrupted()) {
      std::clearerr(stdout);  // a write that was interrupted is no failure
      return kExitInterrupted;
    }
    if (m_nStatus != kExitOk) return m_nStatus;
    if (m_Options.bJustOne && m_nShown == 0) return kExitFailed;
    return m_Findings.StatusOfReading(kExitOk);
  }

  const EventsOptions& m_Options;
  const std::unique_ptr<inspect::Store> m_pStore;
  const inspect::Database m_Database;
  Findings m_Findings;
  EventNames m_Names;
  inspect::EventReader m_Reader;
  CursorFile m_KeptCursor;
  Progress m_Progress;
  std::uint64_t m_nLeft;  // events that are still to be shown
  // What follows from the size of an event; nothing while there are none.
  std::uint32_t m_nEventSize = 0;
  std::optional<std::uint32_t> m_ObjectAt;
  std::optional<EventFilter> m_Filter;
  std::optional<EventOutput> m_Output;
  // Of the batch that is being shown.
  std::vector<std::uint32_t> m_Positions;
  std::string m_Cursor;

  std::uint64_t m_nTotal = 0;
  std::uint64_t m_nExamined = 0;
  std::uint64_t m_nShown = 0;
  std::optional<inspect::Cursor> m_Stopped;  // within a batch
  bool m_bWriteFailed = false;
  int m_nStatus = kExitOk;
  BatchPrinter m_Printer;  // the last member: it ends before what it uses
};

// What the component cannot do.
bool NeedsReader(const EventsOptions& Options) {
  return Options.bReverse || Options.bFollow || Options.bJustOne || Options.Cursor || Options.AfterCursor ||
         !Options.CursorFile.empty() || Options.Filter != EventFilterOptions() || Options.Form == OutputForm::Csv ||
         !Options.Fields.empty() || Options.Layout || Options.bShowCursor || Options.bNumbers || Options.bCountOnly;
}

}  // namespace

int Events(const CommonOptions& Common, const EventsOptions& Options) {
  if (!ReadsThroughComponent(Common)) return EventShow(Common, Options).Run();
  if (!NeedsReader(Options)) return EventsThroughComponent(Common, Options);
  std::fputs("lumbra: with --module or --trace there are --last, --from, --count, --parents and --json alone\n",
             stderr);
  return kExitUsage;
}

}  // namespace lumbra::tool
