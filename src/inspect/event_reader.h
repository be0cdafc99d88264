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
#include "inspect/paths.h"
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
  ObjectsOrigin Objects;                 // where the names of objects that they are about are looked for
  std::optional<Gap> Lost;               // without events then

  Place Behind() const { return {First.nSegment, First.nIndex + nCount}; }
};

// What became of a cursor.
enum class Resumed {
  There,     // reading goes on where it stopped
  Repeated,  // the segment has lost events since, by a power cut, or the last one was updated: it is read once more
  Lost,      // what it points to was dropped or cleared: reading goes on at the oldest event
};

// One thread at a time.
class EventReader {
 public:
  EventReader(const Store& Of, Database What, Report Tell);

  // Takes a horizon. To be called first, and again to see what came meanwhile: what became of events that were not read
  // yet is told by gaps. Where a deleted file stays what it was while it is open, the next segments are opened, so that
  // they can be read when they are dropped.
  ResultCode Refresh();
  const Horizon& Seen() const { return m_Horizon; }
  std::uint32_t EventSize() const { return m_Horizon.nEventSize; }  // bytes

  // With the segments that are opened their objects are, too, from the next horizon on. The paths outlive this.
  void OpenObjectsIn(Paths* pPaths) { m_pPaths = pPaths; }

  // Where Next goes on, within the horizon: at the oldest event, at the first one that is not before a place, so many
  // before the end, or behind the last one that is there. What was to be told by a gap is forgotten.
  void MoveToOldest() { MoveTo({}); }
  void MoveTo(Place Where);
  void MoveToLast(std::uint64_t nEvents);
  void MoveToEnd() { MoveToLast(0); }

  // The next events, at most so many, or the next gap. False at the horizon.
  bool Next(std::uint32_t nMost, Batch* pBatch);

  // The other way round, from the horizon back to where Next goes on. The events of a batch stand in their order.
  bool Previous(std::uint32_t nMost, Batch* pBatch);

  // A cursor behind the first so many events of the batch that was read last; where Next goes on; and going on at one
  // that was kept, after which the next gap tells what is lost.
  Cursor CursorBehind(const Batch& Read, std::uint32_t nEvents);
  Cursor CursorHere();
  Resumed Resume(const Cursor& Kept);
  bool IsOfThisDatabase(const Cursor& Kept) const;

 private:
  // A segment that is to be read.
  struct Track {
    SegmentExtent Extent;
    ObjectsOrigin Objects;
    std::optional<Gap> Before;     // what is missing between it and the track before it
    std::unique_ptr<File> pFile;   // null: not opened yet, or not kept open
    bool bChecked = false;         // its header was read, and fits
    std::optional<Gap::Why> Gone;  // it was dropped or cleared since; what was opened can be read
    std::optional<std::uint32_t> FirstCrc;
  };

  void Follow(const Horizon& Fresh);
  bool IsSame(const Track& Of, const SegmentExtent& Now) const;
  void SettleGone(Track* pTrack, bool bSizeChanged);
  bool IsAnew(const Horizon& Fresh) const;
  ResultCode TakeNext(std::size_t* pnKnown);
  void ForgetFrom(std::size_t nTrack);
  void Append();
  bool WasThere(const SegmentExtent& One) const;
  void OpenAhead();
  bool StartFirst();
  Gap RestOf(const Track& Of, std::uint64_t nFrom, Gap::Why Reason) const;
  Gap::Why WhyGone(std::uint32_t nSegment) const;
  std::optional<Gap::Why> Open(Track* pTrack);
  std::optional<Gap::Why> CheckHeader(Track* pTrack);
  std::optional<Gap::Why> Read(Track* pTrack, std::uint64_t nFirst, std::uint32_t nCount);
  std::uint32_t CountOf(std::uint64_t nLeft, std::uint32_t nMost) const;
  Track* FindTrack(std::uint32_t nSegment);
  std::optional<std::uint32_t> CrcOf(Track* pTrack, std::uint64_t nIndex);
  Cursor CursorAt(Track* pTrack, std::uint64_t nNext, std::optional<std::uint32_t> BeforeCrc);
  Resumed GoOnBehindLoss(const Cursor& Kept, Gap::Why Reason, Place Where = {});
  std::uint32_t CrcOfDatabase() const;
  void NoteFinished(const SegmentExtent& Of);

  const Store& m_Store;
  const Database m_Database;
  const Report m_Tell;
  os::FolderHandle m_pFolder;
  Horizon m_Horizon;
  std::deque<Track> m_Tracks;         // oldest first, from the one on that Next reads
  std::uint64_t m_nNext = 0;          // in the first track
  std::uint32_t m_nLastFinished = 0;  // the segment that was read before the first track; 0: none
  Paths* m_pPaths = nullptr;
  std::unique_ptr<File> m_pChain;   // "segments.dat", as it was at the horizon; it goes when the database is cleared
  std::uint64_t m_nChainToken = 0;  // from which on objects are of this life of the chain
  bool m_bRefreshed = false;
  bool m_bFirst = true;                  // at the first horizon, where nothing was known before
  std::deque<SegmentExtent> m_Finished;  // the last ones that were read
  bool m_bOtherLife = false;             // another life began since the last segment became a track
  std::uint64_t m_nLife = 0;             // of the segments that are known
  std::optional<Gap> m_Carried;          // of a track that went before it was read
  std::optional<Gap> m_Pending;          // to be told before the first track
  std::size_t m_nBack = 0;               // Previous reads in the track before this one ...
  std::uint64_t m_nBackEnd = 0;          // ... the events before this one
  bool m_bBack = false;                  // the two hold
  std::vector<std::uint8_t> m_Buffer;
};

}  // namespace lumbra::inspect
