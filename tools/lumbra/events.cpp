// lumbra events: what a database holds, oldest to newest, with the names of the objects; beside whoever writes.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <future>
#include <thread>

#include "commands.h"
#include "cursor_file.h"
#include "event_filter.h"
#include "event_output.h"
#include "failure.h"
#include "ids.h"
#include "inspect/event_reader.h"
#include "inspect/paths.h"
#include "machine.h"
#include "open_objects.h"
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

std::string Counted(std::uint64_t nCount, const char* pOne) {
  return std::to_string(nCount) + ' ' + pOne + (nCount == 1 ? "" : "s");
}

class EventShow {
 public:
  EventShow(const CommonOptions& Common, const EventsOptions& Options)
      : m_Common(Common),
        m_Options(Options),
        m_pStore(OpenToRead(Common)),
        m_Database(Require(*m_pStore, Options.Database)),
        m_Reader(*m_pStore, m_Database, m_Findings.Teller()),
        m_Paths(*m_pStore, CacheBytesOf(Common)),
        m_KeptCursor(Options.CursorFile),
        m_Progress("events", OutputIsFile() && !Options.bQuiet && !Options.bFollow),
        m_nLeft(std::min(Options.Count.value_or(kWithoutLimit), Options.bJustOne ? 1 : kWithoutLimit)) {}

  int Run() {
    WatchForInterrupt();
    if (m_Options.From && m_Database.Id && DatabaseOfId(*m_Options.From) != *m_Database.Id) {
      throw Failure("read from " + FormatId(*m_Options.From), errPARAMETER_INVALID,
                    "this is no event of " + m_Options.Database.Describe());
    }
    Look();
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
    if (!WantsNames()) return;
    for (const inspect::SegmentExtent& One : m_Reader.Upcoming()) m_Paths.Keep(LifeOf(One.nNumber, One.nIdsBirth));
  }

  void Interpret(std::uint32_t nSize) {
    if (m_Output) Deliver();
    m_nEventSize = nSize;
    const Schema Layout = SchemaOf(*m_pStore, m_Database, m_Options.Layout, nSize);
    const Field* const pObject = Layout.Object();
    m_ObjectAt = pObject == nullptr ? std::nullopt : std::optional(pObject->nOffset);
    m_Filter.emplace(m_Options.Filter, Layout, m_Options.bUtc ? Zone::Utc : Zone::Local);
    m_Output.emplace(m_Options, Layout, m_Database.Id.value_or(0));
    if (!m_Options.bCountOnly) m_Output->PrintHead();
  }

  // Answers the exit status with which to end at once, or kExitOk.
  int GoToStart() {
    std::optional<std::string> After = m_KeptCursor.Read();
    if (!m_Options.AfterCursor.empty()) After = m_Options.AfterCursor;
    if (!m_Options.Cursor.empty()) return GoOnAt(m_Options.Cursor, true);
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
    if (!Kept) {
      std::fprintf(stderr, "lumbra: this is no cursor: %s\n", Printable(Text).c_str());
      return kExitCursorInvalid;
    }
    const inspect::Resumed Found = m_Reader.Resume(*Kept);
    if (Found == inspect::Resumed::There) {
      if (bFromBefore && Kept->nNext != 0) m_Reader.MoveTo({Kept->nSegment, Kept->nNext - 1});
      return kExitOk;
    }
    const bool bRepeated = Found == inspect::Resumed::Repeated;
    if (m_Options.IfGone == OnGap::Error || (bRepeated && !m_Options.bQuiet)) {
      std::fprintf(stderr, "lumbra: the event of the cursor is gone: %s\n",
                   bRepeated ? "the newest events were lost by a power cut; the segment is read from its start"
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
    m_Progress.Tell(m_nExamined, m_nExamined, Total());
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
      PrintMeanwhile(Read, Positions, pObjects);
      return true;
    }
    WaitForPrinting();
    for (std::size_t i = 0; i < Positions.size(); ++i) {
      const inspect::ObjectView* const pObject = bNames ? &pObjects[i] : nullptr;
      if (bNames && i + kAhead < Positions.size()) Approach(pObjects[i + kAhead].Name);
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

  // Names stand in the order of their ids, and are read in that of the events: the next ones are brought near.
  static constexpr std::size_t kAhead = 8;
  static void Approach(std::string_view Name) {
    constexpr std::size_t kLine = 64;
    for (std::size_t n = 0; n < std::min<std::size_t>(Name.size(), 3 * kLine); n += kLine)
      __builtin_prefetch(Name.data() + n);
  }

  // Many events of which nothing else is asked are printed by a second thread, while the next ones are read.
  bool IsWorthAThread(std::size_t nEvents) const {
    constexpr std::size_t kFewest = 16384;
    return nEvents >= kFewest && !m_Options.bCountOnly && !m_Options.bShowCursor && m_nLeft == kWithoutLimit &&
           !m_Filter->AsksForNames();
  }

  void PrintMeanwhile(const inspect::Batch& Read, std::span<const std::uint32_t> Positions,
                      const inspect::ObjectView* pObjects) {
    WaitForPrinting();
    m_Printed.assign(Read.Events.begin(), Read.Events.end());
    m_PrintedPositions.assign(Positions.begin(), Positions.end());
    m_Printing = std::async(std::launch::async, [this, First = Read.First, pObjects] {
      bool bAll = true;
      for (std::size_t i = 0; bAll && i < m_PrintedPositions.size(); ++i) {
        if (pObjects != nullptr && i + kAhead < m_PrintedPositions.size()) Approach(pObjects[i + kAhead].Name);
        const std::uint32_t nPosition = m_PrintedPositions[i];
        m_Output->Print({First.nSegment, First.nIndex + nPosition},
                        m_Printed.data() + std::size_t{nPosition} * m_nEventSize,
                        pObjects == nullptr ? nullptr : &pObjects[i], {});
        bAll = m_Output->WriteIfFull();
      }
      return bAll;
    });
  }

  void WaitForPrinting() {
    if (m_Printing.valid() && !m_Printing.get()) m_bWriteFailed = true;
  }

  void Print(const inspect::Batch& Read, std::uint32_t nPosition, const inspect::ObjectView* pObject) {
    if (m_Options.bShowCursor && m_Options.Form != OutputForm::Table)
      m_Cursor = inspect::FormatCursor(m_Reader.CursorBehind(Read, nPosition + 1));
    m_Output->Print({Read.First.nSegment, Read.First.nIndex + nPosition},
                    Read.Events.data() + std::size_t{nPosition} * m_nEventSize, pObject, m_Cursor);
    m_bWriteFailed = !m_Output->WriteIfFull();
  }

  const std::vector<inspect::ObjectView>& Resolve(const inspect::Batch& Read,
                                                  std::span<const std::uint32_t> Positions) {
    m_Ids.resize(Positions.size());
    for (std::size_t i = 0; i < Positions.size(); ++i)
      std::memcpy(&m_Ids[i], Read.Events.data() + std::size_t{Positions[i]} * m_nEventSize + *m_ObjectAt,
                  sizeof(m_Ids[i]));
    if (!m_bHostKnown && std::ranges::find(m_Ids, kHostObjectAlias) != m_Ids.end()) {
      m_bHostKnown = true;
      m_Paths.SetHostObject(ObjectStores(*m_pStore, m_Common, &m_Findings).HostObject());
    }
    const std::vector<inspect::ObjectView>& Objects =
        m_Paths.Resolve(m_Ids, LifeOf(Read.First.nSegment, Read.nIdsBirth));
    using State = inspect::ObjectView::State;
    for (const inspect::ObjectView& One : Objects) {
      m_nDamaged += One.Of == State::Damaged ? 1 : 0;
      m_nUnsettled += One.Of == State::Unsettled ? 1 : 0;
      m_nUnreadable += One.Of == State::Unreadable ? 1 : 0;
    }
    return Objects;
  }

  inspect::SegmentLife LifeOf(std::uint32_t nSegment, std::uint64_t nIdsBirth) const {
    return {m_Database.Id.value_or(0), nSegment, nIdsBirth};
  }

  void Tell(const inspect::Gap& Lost) {
    const bool bGone = Lost.Reason == inspect::Gap::Why::Dropped || Lost.Reason == inspect::Gap::Why::Cleared;
    if (bGone && m_Options.IfGone == OnGap::Error) m_nStatus = kExitCursorGone;
    m_Findings.NoteMissing();
    if (!m_Options.bQuiet) {
      if (m_Output) Deliver();
      m_Progress.End();
      std::fprintf(stderr, "lumbra: gap: %s\n", Describe(Lost).c_str());
    }
    if (m_Output && !m_Options.bCountOnly && (m_Options.bShowCursor || m_Options.bFollow)) m_Output->PrintGap(Lost);
  }

  std::string Describe(const inspect::Gap& Lost) const {
    const auto IdOf = [this](inspect::Place Where) {
      return FormatId(WithDatabase((std::uint64_t{Where.nSegment} << 32) | Where.nIndex, m_Database.Id.value_or(0)));
    };
    const auto Reason = [&] {
      switch (Lost.Reason) {
        case inspect::Gap::Why::Dropped:
          return "the oldest segments were dropped";
        case inspect::Gap::Why::Cleared:
          return "the database was cleared";
        case inspect::Gap::Why::Damaged:
          return "a file is missing or damaged";
        case inspect::Gap::Why::Unreadable:
          return "a file cannot be read";
      }
      return "";
    };
    const std::string Count = Lost.bAtLeast && Lost.nCount == 0
                                  ? "an unknown number of events"
                                  : (Lost.bAtLeast ? "at least " : "") + Counted(Lost.nCount, "event");
    return Count + " from " + IdOf(Lost.From) + " up to " + IdOf(Lost.To) + " are missing here: " + Reason();
  }

  // ---- What goes on -------------------------------------------------------------------------------------

  void Follow() {
    std::chrono::milliseconds Wait = kShortestWait;
    while (IsGoingOn()) {
      Deliver();
      if (m_KeptCursor.IsDue()) KeepCursor();
      m_Paths.Rest();
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
    m_bWriteFailed = m_bWriteFailed || !m_Output->Write() || std::fflush(stdout) != 0;
  }

  bool WantsCursor() const { return m_Options.bShowCursor || m_KeptCursor.IsKept(); }
  std::string Cursor() { return inspect::FormatCursor(m_Stopped ? *m_Stopped : m_Reader.CursorHere()); }

  void KeepCursor() {
    if (m_Output) Deliver();
    if (!m_bWriteFailed) m_KeptCursor.Write(Cursor());
  }

  std::uint64_t Total() const {
    std::uint64_t nTotal = 0;
    for (const inspect::SegmentExtent& One : m_Reader.Seen().Segments) nTotal += One.nEvents;
    return nTotal;
  }

  int Finish() {
    m_Progress.End();
    WaitForPrinting();
    if (m_Output && m_Options.bShowCursor && m_Options.Form == OutputForm::Table && !m_Options.bCountOnly)
      m_Output->PrintLine("-- cursor: " + Cursor());
    if (m_Output) Deliver();
    if (m_Options.bCountOnly) {
      const bool bJson = m_Options.Form == OutputForm::Json;
      std::printf(bJson ? "{\"count\":%llu}\n" : "%llu\n", static_cast<unsigned long long>(m_nShown));
    }
    if (m_KeptCursor.IsKept() && m_nStatus == kExitOk) KeepCursor();
    TellOfNames();
    if (Interrupted()) {
      std::clearerr(stdout);  // a write that was interrupted is no failure
      return kExitInterrupted;
    }
    if (m_nStatus != kExitOk) return m_nStatus;
    if (m_Options.bJustOne && m_nShown == 0) return kExitFailed;
    return m_Findings.StatusOfReading(kExitOk);
  }

  void TellOfNames() {
    const auto TellOf = [this](std::uint64_t nCount, const char* pWhy) {
      if (nCount == 0) return;
      m_Findings.NoteMissing();
      std::fprintf(stderr, "lumbra: the objects of %s cannot be read: %s\n", Counted(nCount, "event").c_str(), pWhy);
    };
    TellOf(m_nDamaged, "what is stored of them is damaged");
    TellOf(m_nUnsettled, "somebody who has the store was writing to them");
    TellOf(m_nUnreadable, "the system does not let us");
  }

  const CommonOptions& m_Common;
  const EventsOptions& m_Options;
  const std::unique_ptr<inspect::Store> m_pStore;
  const inspect::Database m_Database;
  Findings m_Findings;
  inspect::EventReader m_Reader;
  inspect::Paths m_Paths;
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
  std::vector<std::uint64_t> m_Ids;
  bool m_bHostKnown = false;  // whether it was looked for what kHostObjectAlias stands for
  std::string m_Cursor;
  // Of the one that the second thread prints.
  std::vector<std::uint8_t> m_Printed;
  std::vector<std::uint32_t> m_PrintedPositions;

  std::uint64_t m_nExamined = 0;
  std::uint64_t m_nShown = 0;
  std::uint64_t m_nDamaged = 0;  // events whose objects are
  std::uint64_t m_nUnsettled = 0;
  std::uint64_t m_nUnreadable = 0;
  std::optional<inspect::Cursor> m_Stopped;  // within a batch
  bool m_bWriteFailed = false;
  int m_nStatus = kExitOk;
  std::future<bool> m_Printing;  // the last member: it ends before what it uses
};

// What the component cannot do.
bool NeedsReader(const EventsOptions& Options) {
  return Options.bReverse || Options.bFollow || Options.bJustOne || !Options.Cursor.empty() ||
         !Options.AfterCursor.empty() || !Options.CursorFile.empty() || Options.Filter != EventFilterOptions() ||
         Options.Form == OutputForm::Csv || !Options.Fields.empty() || Options.Layout || Options.bShowCursor ||
         Options.bNumbers || Options.bCountOnly;
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
