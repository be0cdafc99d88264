#include "inspect/event_reader.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "format/crc32.h"
#include "format/file_names.h"
#include "format/record_file.h"
#include "platform/result.h"

namespace lumbra::inspect {
namespace {

// So many files of events are opened before they are read.
constexpr std::size_t kOpenAhead = 64;

// Of a batch: what the memory near the processor holds.
constexpr std::uint32_t kMostBytes = 8 << 20;

bool IsDeleted(const std::unique_ptr<File>& pFile) {
  return pFile != nullptr && pFile->IsDeleted();
}

Gap Joined(const std::optional<Gap>& Before, const Gap& After) {
  if (!Before) return After;
  return {Before->From, After.To, Before->nCount + After.nCount, Before->bAtLeast || After.bAtLeast, After.Reason};
}

std::uint32_t CrcOfEvent(std::span<const std::uint8_t> Event) {
  return Crc32(UINT32_MAX, Event.data(), Event.size());  // under which zeros count, too
}

}  // namespace

EventReader::EventReader(const Store& Of, Database What, Report Tell)
    : m_Store(Of), m_Database(std::move(What)), m_Tell(std::move(Tell)) {}

// ---- Horizons ---------------------------------------------------------------------------------------------

// While "segments.dat" keeps its name the database was not cleared, and what was opened by its name belongs together.
ResultCode EventReader::Refresh() {
  if (m_pFolder == nullptr) {
    if (const os::SystemError nError = m_Store.OpenFolder(m_Database, &m_pFolder); nError != os::kSuccess)
      return ResultFromSystemError(nError);
  }
  m_bFirst = !std::exchange(m_bRefreshed, true);
  Patience Waiting;
  for (;;) {
    std::unique_ptr<File> pChain;
    (void)File::Open(m_pFolder, kSegmentsFile, &pChain);  // TakeHorizon tells when it is missing
    std::size_t nKnown = 0;
    const ResultCode nCode = TakeNext(&nKnown);
    if (Failed(nCode)) return nCode;
    const bool bCleared = pChain == nullptr ? m_Horizon.nLife != 0 : pChain->IsDeleted();
    if (os::DeletedFilesFreeTheirNames()) m_pChain = std::move(pChain);
    if (!bCleared) return errOK;
    ForgetFrom(nKnown);
    if (!Waiting.Wait()) return errOK;
  }
}

// What was found while the database was cleared may be of either life: nothing is said of it but that there was some.
void EventReader::ForgetFrom(std::size_t nTrack) {
  for (; nTrack < m_Tracks.size(); ++nTrack) {
    Track& One = m_Tracks[nTrack];
    One.Gone = Gap::Why::Cleared;
    One.pFile.reset();
    One.Extent.nEvents = 0;
    One.Extent.bOver = false;
  }
}

// *pnKnown receives how many of the tracks were there before.
ResultCode EventReader::TakeNext(std::size_t* pnKnown) {
  Horizon Fresh;
  const std::uint32_t nFrom = m_Tracks.empty() ? 0 : m_Tracks.front().Extent.nNumber;
  ResultCode nCode = TakeHorizon(m_Store, m_Database, m_Tell, &Fresh, nFrom, m_Horizon);
  // A chain that does not go on where we are is looked at from its start.
  const bool bGoesOn = !m_Tracks.empty() && !Fresh.Segments.empty() && IsSame(m_Tracks.front(), Fresh.Segments.front());
  if (Succeeded(nCode) && nFrom != 0 && !bGoesOn) nCode = TakeHorizon(m_Store, m_Database, m_Tell, &Fresh);
  if (Failed(nCode)) return nCode;
  Follow(Fresh);
  *pnKnown = m_Tracks.size();
  m_Horizon = std::move(Fresh);
  m_bBack = false;
  Append();
  return errOK;
}

// What became of the segments that were to be read.
void EventReader::Follow(const Horizon& Fresh) {
  const bool bSizeChanged = Fresh.nEventSize != m_Horizon.nEventSize;
  bool bAnyLeft = false;
  for (Track& One : m_Tracks) {
    if (One.Gone) continue;
    const auto Now = std::ranges::find(Fresh.Segments, One.Extent.nNumber, &SegmentExtent::nNumber);
    if (!bSizeChanged && Now != Fresh.Segments.end() && IsSame(One, *Now)) {
      One.Extent = *Now;
      One.Objects.nIdsBirth = Now->nIdsBirth;
      bAnyLeft = true;
    } else {
      One.Gone = Gap::Why::Dropped;
      SettleGone(&One, bSizeChanged);
    }
  }
  // One that was begun, never held an event, and is gone: its number is free again.
  while (!m_Tracks.empty() && m_Tracks.back().Gone && m_Tracks.back().Extent.nEvents == 0 &&
         (bAnyLeft || m_Tracks.back().Extent.bOver)) {
    if (m_Tracks.back().Before) m_Carried = m_Tracks.back().Before;
    m_Tracks.pop_back();
  }
  if (m_Tracks.empty()) m_nNext = 0;
  m_bOtherLife = m_bOtherLife || IsDeleted(m_pChain) || (m_nLife != 0 && Fresh.nLife != m_nLife);
  if (bAnyLeft || !IsAnew(Fresh)) return;
  for (Track& One : m_Tracks) One.Gone = Gap::Why::Cleared;
}

// Whether a chain of which no segment is known was begun anew: that is another life, or its number was there already.
bool EventReader::IsAnew(const Horizon& Fresh) const {
  const std::uint32_t nLast = m_Tracks.empty() ? m_nLastFinished : m_Tracks.back().Extent.nNumber;
  return m_bOtherLife || (!Fresh.Segments.empty() && Fresh.Segments.front().nNumber <= nLast);
}

// Of a segment that is gone it can be read what was opened, and counted how much there was at the end.
void EventReader::SettleGone(Track* pTrack, bool bSizeChanged) {
  if (m_pPaths != nullptr && pTrack->Objects.nToken == 0) pTrack->Objects.nToken = kNoObjects;
  os::FileLook Last{};
  if (pTrack->pFile == nullptr || pTrack->pFile->Look(&Last) != os::kSuccess) return;
  pTrack->Extent.nEvents = RecordCountOfSize(Last.nSize, m_Horizon.nEventSize);
  pTrack->Extent.bOver = true;
  if (bSizeChanged) pTrack->pFile.reset();  // nobody expects events of the old size any more
}

// Whether a segment is still the one that it was. Its number may have been given to another one, at the same tick of
// the clock.
bool EventReader::IsSame(const Track& Of, const SegmentExtent& Now) const {
  if (Of.Extent.nNumber != Now.nNumber || Of.Extent.nBirth != Now.nBirth || Now.nEvents < Of.Extent.nEvents)
    return false;
  return !IsDeleted(Of.pFile);
}

// The segments of the horizon behind those that are known. Between them some may be missing.
void EventReader::Append() {
  const std::vector<SegmentExtent>& Segments = m_Horizon.Segments;
  const bool bAnyLeft = std::ranges::any_of(m_Tracks, [](const Track& One) { return !One.Gone; });
  std::uint32_t nLast = m_Tracks.empty() ? m_nLastFinished : m_Tracks.back().Extent.nNumber;
  Gap Missing{{nLast + 1, 0}, {}, 0, true, bAnyLeft ? Gap::Why::Damaged : Gap::Why::Dropped};
  if (Segments.empty()) return;
  // Where some are left, a clearing was cut short, and what came behind them may have gone.
  if (m_bOtherLife) Missing.Reason = Gap::Why::Cleared;
  if (!bAnyLeft && IsAnew(m_Horizon)) {
    Missing.Reason = Gap::Why::Cleared;
    m_nLastFinished = nLast = 0;
    if (m_pPaths != nullptr) m_nChainToken = m_pPaths->NextToken();
  }
  for (const SegmentExtent& One : Segments) {
    if (One.nNumber <= nLast || WasThere(One)) continue;
    Track Fresh;
    Fresh.Extent = One;
    Fresh.Objects = {m_Database.Id.value_or(0), One.nNumber, One.nIdsBirth, 0, m_nChainToken};
    Missing.To = {One.nNumber, 0};
    const bool bFollows = One.nNumber == nLast + 1 || (nLast == 0 && (m_bFirst || Missing.Reason == Gap::Why::Cleared));
    if (!bFollows || Missing.Reason == Gap::Why::Cleared) Fresh.Before = Missing;
    if (m_Carried) Fresh.Before = Gap{m_Carried->From, Missing.To, 0, true, m_Carried->Reason};
    m_Carried.reset();
    nLast = One.nNumber;
    Missing = {{nLast + 1, 0}, {}, 0, true, Gap::Why::Damaged};
    m_Tracks.push_back(std::move(Fresh));
    m_bOtherLife = false;
  }
  if (m_Horizon.nLife != 0) m_nLife = m_Horizon.nLife;
  OpenAhead();
}

// Whether a segment was read before all that was known went: clearing that is interrupted leaves some, and they are
// found again when the database is opened the next time.
bool EventReader::WasThere(const SegmentExtent& One) const {
  return std::ranges::any_of(m_Finished, [&One](const SegmentExtent& Known) {
    return Known.nNumber == One.nNumber && Known.nBirth == One.nBirth && One.nBirth != 0;
  });
}

void EventReader::NoteFinished(const SegmentExtent& Of) {
  constexpr std::size_t kMost = 1000;  // more than a clearing is likely to leave
  m_nLastFinished = Of.nNumber;
  m_Finished.push_back(Of);
  if (m_Finished.size() > kMost) m_Finished.pop_front();
}

void EventReader::OpenAhead() {
  if (!os::DeletedFilesFreeTheirNames()) return;
  for (std::size_t i = 0; i < std::min(kOpenAhead, m_Tracks.size()); ++i) {
    Track& One = m_Tracks[i];
    if (One.pFile == nullptr && !One.Gone) (void)Open(&One);  // told when it is read
    const bool bUnopened = One.pFile != nullptr && One.Objects.nToken == 0;
    // Objects of a segment that never held an event may not be there yet.
    if (m_pPaths == nullptr || !bUnopened || One.Gone || One.Extent.nEvents == 0) continue;
    One.Objects.nToken = m_pPaths->Keep(One.Objects.nDatabase, One.Extent.nNumber);
    if (IsDeleted(One.pFile)) One.Objects.nToken = kNoObjects;  // they may be another segment's
  }
}

// ---- Places -----------------------------------------------------------------------------------------------

void EventReader::MoveTo(Place Where) {
  m_Tracks.clear();
  m_Pending.reset();
  m_bBack = false;
  m_nNext = 0;
  m_nLastFinished = 0;
  m_bFirst = true;
  m_nLife = m_Horizon.nLife;
  m_Finished.clear();
  m_bOtherLife = false;
  m_Carried.reset();
  Append();
  // A segment to which events may still come is not passed.
  while (m_Tracks.size() > 1 && m_Tracks.front().Extent.nNumber < Where.nSegment && m_Tracks.front().Extent.bOver) {
    NoteFinished(m_Tracks.front().Extent);
    m_Tracks.pop_front();
  }
  if (m_Tracks.empty()) return;
  Track& First = m_Tracks.front();
  First.Before.reset();
  if (First.Extent.nNumber == Where.nSegment) m_nNext = std::min(Where.nIndex, First.Extent.nEvents);
  if (First.Extent.nNumber < Where.nSegment) m_nNext = First.Extent.nEvents;
}

void EventReader::MoveToLast(std::uint64_t nEvents) {
  if (m_Horizon.Segments.empty()) return MoveToOldest();
  auto At = m_Horizon.Segments.end() - 1;
  while (At != m_Horizon.Segments.begin() && At->nEvents < nEvents) nEvents -= (At--)->nEvents;
  MoveTo({At->nNumber, At->nEvents - std::min(At->nEvents, nEvents)});
}

// ---- Events -----------------------------------------------------------------------------------------------

std::uint32_t EventReader::CountOf(std::uint64_t nLeft, std::uint32_t nMost) const {
  const std::uint32_t nFit = std::max(1u, kMostBytes / std::max(1u, m_Horizon.nEventSize));
  return static_cast<std::uint32_t>(std::min<std::uint64_t>({nLeft, nMost, nFit}));
}

Gap EventReader::RestOf(const Track& Of, std::uint64_t nFrom, Gap::Why Reason) const {
  const std::uint64_t nEnd = std::max(nFrom, Of.Extent.nEvents);
  return {{Of.Extent.nNumber, nFrom}, {Of.Extent.nNumber, nEnd}, nEnd - nFrom, !Of.Extent.bOver, Reason};
}

// Makes the first track one that has something to be read; false when there is none, or a gap is to be told first.
bool EventReader::StartFirst() {
  while (!m_Tracks.empty()) {
    Track& First = m_Tracks.front();
    if (First.Before) m_Pending = std::exchange(First.Before, {});
    if (m_Pending) return false;
    if (m_nNext < First.Extent.nEvents) return true;
    if (!First.Extent.bOver && !First.Gone) return false;
    if (!First.Extent.bOver) {  // nobody saw how far it went
      m_Pending = RestOf(First, m_nNext, *First.Gone);
      First.Extent.bOver = true;
      return false;
    }
    NoteFinished(First.Extent);
    m_Tracks.pop_front();
    m_nNext = 0;
    OpenAhead();
  }
  return false;
}

bool EventReader::Next(std::uint32_t nMost, Batch* pBatch) {
  *pBatch = {};
  std::optional<Gap> Lost;  // gaps that follow each other are told as one
  for (;;) {
    const bool bEvents = StartFirst();
    if (m_Pending) {
      Lost = Joined(Lost, *std::exchange(m_Pending, {}));
      continue;
    }
    if (!bEvents || Lost) break;
    Track& First = m_Tracks.front();
    const std::uint32_t nCount = CountOf(First.Extent.nEvents - m_nNext, nMost);
    const std::optional<Gap::Why> Why = Read(&First, m_nNext, nCount);
    if (!Why) {
      *pBatch = {{First.Extent.nNumber, m_nNext}, nCount, m_Buffer, First.Objects, {}};
      m_nNext += nCount;
      return true;
    }
    m_Pending = RestOf(First, m_nNext, *Why);
    m_nNext = First.Extent.nEvents;
  }
  if (!Lost) return false;
  pBatch->First = Lost->From;
  pBatch->Lost = Lost;
  return true;
}

bool EventReader::Previous(std::uint32_t nMost, Batch* pBatch) {
  *pBatch = {};
  if (!m_bBack) {
    m_bBack = true;
    m_nBack = m_Tracks.size();
    m_nBackEnd = m_Tracks.empty() ? 0 : m_Tracks.back().Extent.nEvents;
  }
  for (; m_nBack != 0; --m_nBack, m_nBackEnd = m_nBack == 0 ? 0 : m_Tracks[m_nBack - 1].Extent.nEvents) {
    Track& At = m_Tracks[m_nBack - 1];
    const std::uint64_t nLow = m_nBack == 1 ? m_nNext : 0;
    if (m_nBackEnd > nLow) {
      const std::uint32_t nCount = CountOf(m_nBackEnd - nLow, nMost);
      const std::optional<Gap::Why> Why = Read(&At, m_nBackEnd - nCount, nCount);
      pBatch->First = {At.Extent.nNumber, Why ? nLow : m_nBackEnd - nCount};
      if (Why) {
        pBatch->Lost = Gap{pBatch->First, {At.Extent.nNumber, m_nBackEnd}, m_nBackEnd - nLow, false, *Why};
        m_nBackEnd = nLow;
      } else {
        pBatch->nCount = nCount;
        pBatch->Events = m_Buffer;
        pBatch->Objects = At.Objects;
        m_nBackEnd -= nCount;
      }
      return true;
    }
    if (At.Before) {
      pBatch->Lost = std::exchange(At.Before, {});
      pBatch->First = pBatch->Lost->From;
      return true;
    }
  }
  if (!m_Pending) return false;
  pBatch->First = m_Pending->From;
  pBatch->Lost = std::exchange(m_Pending, {});
  return true;
}

// Whether a segment that is not there any more went because it was the oldest, or with all others.
Gap::Why EventReader::WhyGone(std::uint32_t nSegment) const {
  return ReadChainHead(m_pFolder).nFirst > nSegment ? Gap::Why::Dropped : Gap::Why::Cleared;
}

std::optional<Gap::Why> EventReader::Open(Track* pTrack) {
  const std::u16string Name = SegmentFileName(pTrack->Extent.nNumber, kEventsFile);
  const os::SystemError nError = File::Open(m_pFolder, Name, &pTrack->pFile);
  if (nError == os::kFileNotFound) return WhyGone(pTrack->Extent.nNumber);
  os::FileLook Found{};
  if (nError == os::kAccessDenied && os::LookAt(m_pFolder, Name, &Found) == os::kSuccess && !Found.bPlain) {
    m_Tell({Grade::Damage, m_Database.Folder + u'/' + Name, 0, "it is no file", "", ""});
    return Gap::Why::Damaged;
  }
  if (nError != os::kSuccess || pTrack->pFile->Look(&Found) != os::kSuccess) return Gap::Why::Unreadable;
  if (Found.nBirth == pTrack->Extent.nBirth) return {};
  pTrack->pFile.reset();  // another one has got its number
  return WhyGone(pTrack->Extent.nNumber);
}

std::optional<Gap::Why> EventReader::CheckHeader(Track* pTrack) {
  if (pTrack->bChecked) return {};
  tPLAINDB_HEADER Header{};
  std::uint32_t nRead = 0;
  if (pTrack->pFile->Read(0, &Header, sizeof(Header), &nRead) != os::kSuccess) return Gap::Why::Unreadable;
  const bool bMagic = std::memcmp(Header.Magic, kRecordMagic, sizeof(kRecordMagic)) == 0;
  pTrack->bChecked = nRead == sizeof(Header) && bMagic && Header.nHeaderSize == sizeof(Header) &&
                     Header.nRecordSize == m_Horizon.nEventSize;
  if (pTrack->bChecked) return {};
  const std::u16string Name = SegmentFileName(pTrack->Extent.nNumber, kEventsFile);
  m_Tell({Grade::Damage, m_Database.Folder + u'/' + Name, 0,
          "its header is not one of events of " + std::to_string(m_Horizon.nEventSize) + " bytes", "", ""});
  return Gap::Why::Damaged;
}

std::optional<Gap::Why> EventReader::Read(Track* pTrack, std::uint64_t nFirst, std::uint32_t nCount) {
  if (pTrack->pFile == nullptr) {
    if (pTrack->Gone) return pTrack->Gone;
    if (const std::optional<Gap::Why> Why = Open(pTrack)) return Why;
  }
  if (const std::optional<Gap::Why> Why = CheckHeader(pTrack)) {
    pTrack->pFile.reset();
    return Why;
  }
  const std::uint64_t nOffset = sizeof(tPLAINDB_HEADER) + nFirst * m_Horizon.nEventSize;
  m_Buffer.resize(std::size_t{nCount} * m_Horizon.nEventSize);
  std::uint32_t nRead = 0;
  const auto nSize = static_cast<std::uint32_t>(m_Buffer.size());
  const os::SystemError nError = pTrack->pFile->Read(nOffset, m_Buffer.data(), nSize, &nRead);
  if (!os::DeletedFilesFreeTheirNames()) pTrack->pFile.reset();
  if (nError != os::kSuccess) return Gap::Why::Unreadable;
  if (nRead == nSize) return {};
  return Gap::Why::Damaged;  // it was cut since the horizon
}

// ---- Cursors ----------------------------------------------------------------------------------------------

EventReader::Track* EventReader::FindTrack(std::uint32_t nSegment) {
  const auto Found = std::ranges::find(m_Tracks, nSegment, [](const Track& One) { return One.Extent.nNumber; });
  return Found == m_Tracks.end() ? nullptr : &*Found;
}

std::optional<std::uint32_t> EventReader::CrcOf(Track* pTrack, std::uint64_t nIndex) {
  std::vector<std::uint8_t> Kept;
  m_Buffer.swap(Kept);  // which is a batch's
  const bool bRead = nIndex < pTrack->Extent.nEvents && !Read(pTrack, nIndex, 1);
  const std::optional<std::uint32_t> Crc = bRead ? std::optional(CrcOfEvent(m_Buffer)) : std::nullopt;
  m_Buffer.swap(Kept);
  return Crc;
}

Cursor EventReader::CursorAt(Track* pTrack, std::uint64_t nNext, std::optional<std::uint32_t> BeforeCrc) {
  if (nNext != 0 && !pTrack->FirstCrc) pTrack->FirstCrc = CrcOf(pTrack, 0);
  if (nNext != 0 && !BeforeCrc) BeforeCrc = CrcOf(pTrack, nNext - 1);
  return {.nDatabase = CrcOfDatabase(),
          .nSegment = pTrack->Extent.nNumber,
          .nNext = nNext,
          .nLife = m_Horizon.nLife,
          .nBirth = pTrack->Extent.nBirth,
          .nEventSize = m_Horizon.nEventSize,
          .nFirstCrc = nNext == 0 ? 0 : pTrack->FirstCrc.value_or(0),
          .nBeforeCrc = BeforeCrc.value_or(0)};
}

std::uint32_t EventReader::CrcOfDatabase() const {
  return Crc32(UINT32_MAX, m_Database.Folder.data(), m_Database.Folder.size() * sizeof(char16_t));
}

Cursor EventReader::CursorBehind(const Batch& Read, std::uint32_t nEvents) {
  Track* const pTrack = FindTrack(Read.First.nSegment);
  if (pTrack == nullptr) return CursorHere();
  std::optional<std::uint32_t> BeforeCrc;
  if (nEvents != 0 && nEvents <= Read.nCount) {
    const std::size_t nSize = m_Horizon.nEventSize;
    BeforeCrc = CrcOfEvent(Read.Events.subspan((nEvents - 1) * nSize, nSize));
  }
  return CursorAt(pTrack, Read.First.nIndex + nEvents, BeforeCrc);
}

// Of a segment that is over and was read to its end the cursor stands before the next one, unless something is to be
// told in between.
Cursor EventReader::CursorHere() {
  std::size_t nAt = 0;
  std::uint64_t nNext = m_nNext;
  while (nAt + 1 < m_Tracks.size() && nNext >= m_Tracks[nAt].Extent.nEvents && m_Tracks[nAt].Extent.bOver &&
         !m_Tracks[nAt + 1].Before) {
    ++nAt;
    nNext = 0;
  }
  if (!m_Tracks.empty()) return CursorAt(&m_Tracks[nAt], nNext, {});
  return {.nDatabase = CrcOfDatabase(),
          .nSegment = m_nLastFinished == 0 ? 0 : m_nLastFinished + 1,
          .nLife = m_nLife,
          .nEventSize = m_Horizon.nEventSize};
}

// At a place, or at the oldest event, with a gap before it.
Resumed EventReader::GoOnBehindLoss(const Cursor& Kept, Gap::Why Reason, Place Where) {
  MoveTo(Where);
  const Place Next = m_Tracks.empty() ? Place{} : Place{m_Tracks.front().Extent.nNumber, 0};
  m_Pending = Gap{{Kept.nSegment, Kept.nNext}, Next, 0, true, Reason};
  return Resumed::Lost;
}

bool EventReader::IsOfThisDatabase(const Cursor& Kept) const {
  return Kept.nDatabase == CrcOfDatabase();
}

Resumed EventReader::Resume(const Cursor& Kept) {
  MoveTo({Kept.nSegment, Kept.nNext});
  const std::vector<SegmentExtent>& Segments = m_Horizon.Segments;
  const std::uint32_t nFirst = Segments.empty() ? 0 : Segments.front().nNumber;
  const std::uint32_t nLast = Segments.empty() ? 0 : Segments.back().nNumber;
  if (Kept.nSegment == 0) return nFirst <= 1 ? Resumed::There : GoOnBehindLoss(Kept, Gap::Why::Dropped);
  if (Kept.nEventSize != m_Horizon.nEventSize) return GoOnBehindLoss(Kept, Gap::Why::Cleared);
  const bool bSameLife = Kept.nLife == m_Horizon.nLife;
  Track* const pTrack = FindTrack(Kept.nSegment);
  if (pTrack == nullptr) {
    const bool bBegun = Kept.nNext == 0 && bSameLife && Kept.nSegment == nLast + 1;  // or it was given up
    if (bBegun) return Resumed::There;
    if (Kept.nSegment > nLast) return GoOnBehindLoss(Kept, Gap::Why::Cleared);
    if (Kept.nSegment < nFirst) return GoOnBehindLoss(Kept, Gap::Why::Dropped);
    return GoOnBehindLoss(Kept, Gap::Why::Damaged, {Kept.nSegment + 1, 0});  // it is missing in between
  }
  // A birth that is the same says more than an event, which may have been updated; a copy that was put back has
  // another.
  const bool bBirth = Kept.nBirth != 0 && Kept.nBirth == pTrack->Extent.nBirth;
  if (Kept.nNext == 0)
    return bBirth || bSameLife || Kept.nBirth == 0 ? Resumed::There : GoOnBehindLoss(Kept, Gap::Why::Cleared);
  const std::optional<std::uint32_t> FirstCrc = CrcOf(pTrack, 0);
  const std::optional<std::uint32_t> BeforeCrc = CrcOf(pTrack, Kept.nNext - 1);
  // What cannot be read, because it is dropped just now, say, is told when it is to be read.
  if (!BeforeCrc && Kept.nNext <= pTrack->Extent.nEvents) return Resumed::There;
  const bool bFirst = FirstCrc == Kept.nFirstCrc;
  if (bFirst && BeforeCrc == Kept.nBeforeCrc) return Resumed::There;
  if (!bFirst && !bBirth) return GoOnBehindLoss(Kept, Gap::Why::Cleared);
  MoveTo({Kept.nSegment, 0});
  return Resumed::Repeated;
}

}  // namespace lumbra::inspect
