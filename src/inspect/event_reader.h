// Reads the events of a database, and says which ones it did not read: positions are numbers, so what is missing is
// counted.
//
// What nobody can see who takes no locks: an event that is being updated meanwhile may be read half old.
#pragma once

#include <compare>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "inspect/cursor.h"
#include "inspect/file.h"
#include "inspect/finding.h"
#include "inspect/horizon.h"
#include "inspect/store.h"

namespace lumbra::inspect {

// An event by its position, or where one would be.
struct Place {
  std::uint32_t nSegment = 0;
  std::uint64_t nIndex = 0;

  auto operator<=>(const Place&) const = default;
};

// Events that are not delivered: those from a place on, before another one.
struct Gap {
  enum class Why {
    Dropped,     // the oldest segments went, by a limit
    Cleared,     // the database was cleared, or begun anew with events of another size
    Damaged,     // a file is missing in between, or is no file of such events
    Unreadable,  // the system refuses to open or read a file
  };

  Place From;
  Place To;
  std::uint64_t nCount = 0;  // so many
  bool bAtLeast = false;     // or more: what was never seen cannot be counted
  Why Reason = Why::Dropped;
};

// A run of events that stand behind one another in a segment, or a gap.
struct Batch {
  Place First;
  std::uint32_t nCount = 0;
  std::span<const std::uint8_t> Events;  // good until the next call of the reader
  std::optional<Gap> Lost;               // without events then

  Place Behind() const { return {First.nSegment, First.nIndex + nCount}; }
};

// What became of a cursor.
enum class Resumed {
  There,     // reading goes on where it stopped
  Repeated,  // the segment has lost events since, by a power cut: it is read from its start once more
  Lost,      // what it points to was dropped or cleared: reading goes on at the oldest event
};

// One thread at a time.
class EventReader {
 public:
  EventReader(const Store& Of, Database What, Report Tell);

  // Takes a horizon, and opens what may be deleted before it is read. To be called first, and again to see what came
  // meanwhile: what became of events that were not read yet is told by gaps.
  ResultCode Refresh();
  const Horizon& Seen() const { return m_Horizon; }
  std::uint32_t EventSize() const { return m_Horizon.nEventSize; }

  // Where Next goes on: at the oldest event, at the first one that is not before a place, so many before the end, or
  // behind the last one that is there.
  void MoveToOldest();
  void MoveTo(Place Where);
  void MoveToLast(std::uint64_t nEvents);
  void MoveToEnd();

  // The next events, at most so many, or the next gap. False at the horizon, where nothing is lost.
  bool Next(std::uint32_t nMost, Batch* pBatch);

  // The other way round, from the horizon on: the last events that were not read yet, which stand in the batch in their
  // order. Places that Next is moved to are its end.
  bool Previous(std::uint32_t nMost, Batch* pBatch);

  // A cursor behind the first so many events of a batch that was just read; where Next goes on; and going on at one
  // that was kept. What is lost then is told by the next gap.
  Cursor CursorBehind(const Batch& Read, std::uint32_t nEvents);
  Cursor CursorHere();
  Resumed Resume(const Cursor& Kept);

 private:
  // A segment that is to be read.
  struct Track {
    SegmentExtent Extent;
    std::unique_ptr<File> pFile;  // kept, where a deleted file stays what it was; null: not opened yet
    std::optional<std::uint32_t> FirstCrc;
    bool bGone = false;     // it was dropped or cleared since
    bool bChecked = false;  // its header was read, and fits
  };

  bool Finish(Track* pTrack);
  void OpenAhead();
  void Append(const Horizon& Fresh);
  bool IsStillThere(const Track& Of, const Horizon& Fresh) const;
  std::optional<Gap::Why> Open(Track* pTrack);
  std::optional<Gap::Why> Read(Track* pTrack, std::uint64_t nFirst, std::uint32_t nCount);
  std::optional<std::uint32_t> CrcOf(Track* pTrack, std::uint64_t nIndex);
  Gap RestOf(const Track& Of, std::uint64_t nFrom, Gap::Why Reason) const;

  const Store& m_Store;
  const Database m_Database;
  const Report m_Tell;
  os::FolderHandle m_pFolder;
  Horizon m_Horizon;
  std::deque<Track> m_Tracks;   // oldest first, from the one on that Next reads
  std::deque<Gap> m_Gaps;       // to be told before the first track
  std::uint64_t m_nNext = 0;    // in the first track
  std::optional<Place> m_Back;  // Previous goes on before it
  std::vector<std::uint8_t> m_Buffer;
};

}  // namespace lumbra::inspect
