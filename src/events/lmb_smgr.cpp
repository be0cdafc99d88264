#include "events/lmb_smgr.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "format/file_names.h"
#include "platform/failed_step.h"
#include "platform/invariant.h"
#include "platform/result.h"

namespace lumbra {

// ---- Opening and closing ----------------------------------------------------------------------------------

ResultCode SegmentManager::Init(StorageEnvironment* pEnv, std::uint32_t nEventSize, ObjectDB* pGlobalObjects,
                                bool bCheckMode) {
  const os::Hold Hold(m_Lock);
  return Open(pEnv, nEventSize, pGlobalObjects, bCheckMode);
}

ResultCode SegmentManager::Open(StorageEnvironment* pEnv, std::uint32_t nEventSize, ObjectDB* pGlobalObjects,
                                bool bCheckMode) {
  if (m_bInitialized) return errALREADY_DONE;
  if (pEnv == nullptr) return errPARAMETER_INVALID;
  SetDescriptorRelief(&OpenSegments::CloseOne);
  m_pEnv = pEnv;
  m_pGlobalObjects = pGlobalObjects;
  m_bCheckMode = bCheckMode;
  m_nTotalSize = m_nTotalEvents = 0;
  ResultCode nCode = errOK;
  try {
    nCode = OpenChain(nEventSize);
  } catch (...) {
    nCode = ResultFromCurrentException();
  }
  if (Failed(nCode)) {
    Close();  // so that "segments.dat" is free for another attempt
    m_nTotalSize = m_nTotalEvents = 0;
    return nCode;
  }
  LUMBRA_INVARIANT(IsConsistent());
  m_bInitialized = true;
  return errOK;
}

ResultCode SegmentManager::OpenChain(std::uint32_t nEventSize) {
  ResultCode nCode = OpenHeader(nEventSize);
  if (Failed(nCode)) return nCode;
  bool bLeftOut = false;
  nCode = ListSegments(&bLeftOut);
  if (Failed(nCode) || !m_Segments.empty()) return nCode;
  // A number that was taken is taken again, so that the ids of the segments before it do not come back.
  if (!bLeftOut) m_nNextNumber = 1;
  m_Header.nFirstSegment = m_nNextNumber;
  return NewSegment();
}

ResultCode SegmentManager::OpenHeader(std::uint32_t nEventSize) {
  const ResultCode nCode = m_pEnv->OpenFile(kSegmentsFile, 0, true, true, &m_pHeaderFile);
  if (Failed(nCode)) return nCode;
  return LookAtHeader(nEventSize).OrStartAnew([&] {
    m_Lock.AssertHeld();
    std::memcpy(m_Header.nMagic, kSegmentsMagic, sizeof(kSegmentsMagic));
    m_Header.nFirstSegment = 0;
    m_Header.nEventSize = nEventSize;
    return WriteHeader();
  });
}

FileContent SegmentManager::LookAtHeader(std::uint32_t nEventSize) {
  std::uint32_t nRead = 0;
  if (!m_pHeaderFile->SeekRead(0, &m_Header, sizeof(m_Header), &nRead)) {
    return FileContent::Unread(FailedStep(errREAD_FAILED));
  }
  const bool bOurs =
      nRead == sizeof(m_Header) && std::memcmp(m_Header.nMagic, kSegmentsMagic, sizeof(kSegmentsMagic)) == 0;
  return bOurs && m_Header.nEventSize == nEventSize ? FileContent::Ours() : FileContent::Foreign();
}

// Takes up the segments from the first number on, until one has no event file: there the chain ends. Nothing is opened
// nor changed, so the folder is listed once, and each file looked at once.
ResultCode SegmentManager::ListSegments(bool* pbLeftOut) {
  *pbLeftOut = false;
  if (m_Header.nFirstSegment == 0) return errOK;
  const os::SearchScope OneLookAtTheFolder;
  for (m_nNextNumber = m_Header.nFirstSegment; m_nNextNumber < kSegmentNumberLimit; ++m_nNextNumber) {
    std::unique_ptr<Segment> pSegment = MakeSegment();
    if (pSegment == nullptr) return errOUT_OF_MEMORY;
    ResultCode nCode =
        pSegment->Init(m_pEnv, m_Header.nEventSize, Segment::Files::Existing, m_nNextNumber, m_pGlobalObjects);
    std::uint64_t nEvents = 0;
    std::uint64_t nSize = 0;
    if (Succeeded(nCode)) nCode = pSegment->GetEventCount(&nEvents);
    if (Succeeded(nCode)) nCode = pSegment->MeasureData(&nSize);
    if (nCode == errNOT_FOUND) break;
    // Any other failure: whether the segment is there is not known, and its number must not be taken again; or how much
    // is in it, and a limit of the size would not be kept.
    if (Succeeded(nCode)) nCode = AppendEntry(std::move(pSegment), nEvents, nSize);
    if (Failed(nCode)) return nCode;
  }
  *pbLeftOut = LeaveOutUnfinished();
  return errOK;
}

// A newest segment without events whose creation a crash cut short could not be opened, and no event could be
// added until the next start. Its number is taken again instead, and what there is of it deleted.
bool SegmentManager::LeaveOutUnfinished() {
  if (m_Segments.empty()) return false;
  const tSEGMENT_ENTRY& Newest = m_Segments.back();
  if (Newest.nEventCount != 0 || !Newest.pSegment->IsUnfinished()) return false;
  m_nTotalSize -= Newest.nDataSize;
  m_nNextNumber = Newest.nNumber;
  m_Segments.pop_back();
  return true;
}

ResultCode SegmentManager::Clear() {
  if (!m_bInitialized) return errSTORE_NOT_INITIALIZED;
  const os::Hold Hold(m_Lock);
  Close();
  (void)m_pEnv->DeleteFiles(u"*.*", 0);  // answers errOK always
  std::uint64_t nTime = 0;
  const bool bAllGone = m_pEnv->GetFileCreationTime(kAnyEventsFile, 0, &nTime) == errNOT_FOUND;
  const ResultCode nCode = Open(m_pEnv, m_Header.nEventSize, m_pGlobalObjects, m_bCheckMode);
  return Succeeded(nCode) && !bAllGone ? errACCESS_DENIED : nCode;
}

void SegmentManager::TearDown() {
  const os::Hold Hold(m_Lock);
  Close();
}

void SegmentManager::Close() {
  if (m_bInitialized.exchange(false)) CatchUpHeader();
  OpenSegments::Forget(this);
  m_Segments.clear();
  m_pHeaderFile.reset();
  m_bHeaderBehind = m_bSyncFailed = false;
}

// ---- The chain --------------------------------------------------------------------------------------------

std::unique_ptr<Segment> SegmentManager::MakeSegment() {
  return std::unique_ptr<Segment>(new (std::nothrow) Segment(m_bCheckMode, m_Lock, this));
}

// What is thrown on the way becomes a code: an event that finds no new segment goes to the one that is there.
ResultCode SegmentManager::NewSegment() {
  try {
    return StartSegment();
  } catch (...) {
    return ResultFromCurrentException();
  }
}

ResultCode SegmentManager::StartSegment() {
  if (m_nNextNumber >= kSegmentNumberLimit) return errOUT_OF_SPACE;
  std::unique_ptr<Segment> pSegment = MakeSegment();
  if (pSegment == nullptr) return errOUT_OF_MEMORY;
  ResultCode nCode = pSegment->Init(m_pEnv, m_Header.nEventSize, Segment::Files::New, m_nNextNumber, m_pGlobalObjects);
  if (Failed(nCode)) return nCode;
  nCode = WriteHeader();
  if (Failed(nCode)) return nCode;
  std::uint64_t nEvents = 0;
  nCode = pSegment->GetEventCount(&nEvents);
  if (Failed(nCode)) return nCode;
  const std::uint64_t nSize = pSegment->GetDataSize();
  nCode = AppendEntry(std::move(pSegment), nEvents, nSize);
  if (Failed(nCode)) return nCode;
  OpenSegments::NoteNewest(this, m_nNextNumber++);
  if (m_Segments.size() > 1) LimitOpenSegments(m_Segments[m_Segments.size() - 2]);
  return errOK;
}

// Puts a segment with the number m_nNextNumber at the chain's end.
ResultCode SegmentManager::AppendEntry(std::unique_ptr<Segment> pSegment, std::uint64_t nEvents, std::uint64_t nSize) {
  try {
    m_Segments.push_back({std::move(pSegment), m_nNextNumber, nEvents, nSize});
  } catch (const std::bad_alloc&) {
    return errOUT_OF_MEMORY;
  }
  m_nTotalSize += nSize;
  m_nTotalEvents += nEvents;
  return errOK;
}

// ---- The header -------------------------------------------------------------------------------------------

ResultCode SegmentManager::WriteHeader() {
  m_bHeaderBehind = !m_pHeaderFile->SeekWrite(0, &m_Header, sizeof(m_Header), nullptr);
  return m_bHeaderBehind ? FailedStep(errWRITE_FAILED) : errOK;
}

// Writes again what could not be written before: should the process end first, the next start would find no segment
// where the file says, and begin anew.
void SegmentManager::CatchUpHeader() {
  if (m_bHeaderBehind && Succeeded(WriteHeader())) SyncHeader();  // otherwise the next occasion comes
}

void SegmentManager::SyncHeader() {
  if (m_pHeaderFile != nullptr && !m_pHeaderFile->Flush()) TraceFailedStep(errWRITE_FAILED);
}

// Brings the number of the first segment that has its files to the disk. To be called before the files of a segment
// are deleted, so that the header never leads to one that is gone, not even after a power cut; but where it cannot be
// written, see CatchUpHeader.
ResultCode SegmentManager::MoveStart() {
  const auto First = std::find_if(m_Segments.begin(), m_Segments.end(),
                                  [](const tSEGMENT_ENTRY& Entry) { return !Entry.pSegment->IsDiscarded(); });
  m_Header.nFirstSegment = First == m_Segments.end() ? m_nNextNumber : First->nNumber;
  const ResultCode nCode = WriteHeader();
  if (Succeeded(nCode)) SyncHeader();
  return nCode;
}

void SegmentManager::BeforeDiscard() {
  m_Lock.AssertHeld();  // by the operation on the segment
  if (m_Segments.empty() || !m_Segments.front().pSegment->IsDiscarded()) return;
  (void)MoveStart();  // a failure is traced, and remembered
  if (m_Header.nFirstSegment != m_nNextNumber) return;
  // No other segment is left. The next start takes up this number, as that of a segment which was only begun.
  std::unique_ptr<StorageFile> pBegun;
  (void)m_pEnv->OpenFile(kEventsFile, m_nNextNumber, true, true, &pBegun);
}

SegmentManager::tSEGMENT_ENTRY* SegmentManager::FindEntry(std::uint32_t nSegment) {
  if (m_Segments.empty()) return nullptr;
  if (nSegment == 0 || nSegment == m_Segments.back().nNumber) return &m_Segments.back();
  const auto Found =
      std::lower_bound(m_Segments.begin(), m_Segments.end(), nSegment,
                       [](const tSEGMENT_ENTRY& Entry, std::uint32_t nNumber) { return Entry.nNumber < nNumber; });
  return Found != m_Segments.end() && Found->nNumber == nSegment ? &*Found : nullptr;
}

// ---- Limits -----------------------------------------------------------------------------------------------

std::atomic<std::uint64_t>* SegmentManager::LimitOf(LumbraLimit nKind) {
  switch (nKind) {
    case limitDatabaseSize:
      return &m_nDbMaxSize;
    case limitDatabaseAge:
      return &m_nDbMaxAge;
    case limitDatabaseEvents:
      return &m_nDbMaxEvents;
    case limitSegmentSize:
      return &m_nSegmentMaxSize;
    case limitSegmentAge:
      return &m_nSegmentMaxAge;
    case limitSegmentEvents:
      return &m_nSegmentMaxEvents;
    case limitGlobalSize:  // of all databases together
      break;
  }
  return nullptr;
}

ResultCode SegmentManager::SetLimit(LumbraLimit nKind, std::uint64_t nLimit) {
  std::atomic<std::uint64_t>* const pLimit = LimitOf(nKind);
  if (pLimit == nullptr) return errNOT_SUPPORTED;
  const os::Hold Hold(m_Lock);
  *pLimit = nLimit;
  (void)EnforceLimits(false);  // what cannot be done now is tried again at the next add
  return errOK;
}

ResultCode SegmentManager::CheckLimits(bool bForce) {
  const os::Hold Hold(m_Lock);
  return EnforceLimits(bForce);
}

ResultCode SegmentManager::EnforceLimits(bool bForce) {
  if (m_Segments.empty()) return errOK;
  CatchUpHeader();
  // A disk that is too full for a new segment is no reason to keep the old ones.
  const ResultCode nStarted = IsNewestFull() ? NewSegment() : errOK;
  // Where the newest has lost a file, though, those before it are all that there is, and their numbers must not come
  // back.
  if (Failed(nStarted) && m_Segments.back().pSegment->IsDiscarded()) return nStarted;
  for (; m_Segments.size() > 1 && (bForce || IsOverLimits()); bForce = false) {
    const ResultCode nCode = DeleteOldest(bForce);
    if (Failed(nCode)) return Failed(nStarted) ? nStarted : nCode;
  }
  LUMBRA_INVARIANT(IsConsistent());
  return nStarted;
}

// A segment is full when it reaches a limit, and takes nothing any more when it has lost a file ...
bool SegmentManager::IsNewestFull() {
  const tSEGMENT_ENTRY& Newest = m_Segments.back();
  if (Newest.pSegment->IsDiscarded()) return true;
  if (m_nSegmentMaxEvents != 0 && Newest.nEventCount >= m_nSegmentMaxEvents) return true;
  if (m_nSegmentMaxSize != 0 && Newest.pSegment->GetDataSize() >= m_nSegmentMaxSize) return true;
  return m_nSegmentMaxAge != 0 && Newest.pSegment->GetAge() >= m_nSegmentMaxAge;
}

// ... while a database may hold exactly its limit.
bool SegmentManager::IsOverLimits() {
  if (m_nDbMaxSize != 0 && m_nTotalSize > m_nDbMaxSize) return true;
  if (m_nDbMaxEvents != 0 && m_nTotalEvents > m_nDbMaxEvents) return true;
  return m_nDbMaxAge != 0 && m_Segments.front().pSegment->GetAge() > m_nDbMaxAge;
}

ResultCode SegmentManager::DeleteOldest(bool bForced) {
  tSEGMENT_ENTRY Oldest = std::move(m_Segments.front());
  const std::uint32_t nNumber = Oldest.nNumber;
  m_nTotalEvents -= Oldest.nEventCount;
  m_nTotalSize -= Oldest.nDataSize;
  m_Segments.erase(m_Segments.begin());
  const ResultCode nCode = MoveStart();
  OpenSegments::Forget(this, nNumber);
  Oldest.pSegment.reset();
  (void)m_pEnv->DeleteFiles(u"*.*", nNumber);  // answers errOK always
  if (Failed(nCode)) return nCode;
  Trace(kHostRoot, traceRoutine, "lmb\tSegment %d has been deleted (%d,%I64X,%I64X,%I64X)", nNumber,
        std::int32_t{bForced}, m_nDbMaxSize.load(), m_nDbMaxEvents.load(), m_nDbMaxAge.load());
  return errOK;
}

// ---- Events -----------------------------------------------------------------------------------------------

ResultCode SegmentManager::AddEvent(const void* pData, std::uint32_t nSize, std::uint64_t* pnId) {
  if (!m_bInitialized) return errSTORE_NOT_INITIALIZED;
  const os::Hold Hold(m_Lock);
  (void)EnforceLimits(false);  // if no new segment can be started, the event goes to the one that is there
  if (m_Segments.empty()) return errUNEXPECTED;
  tSEGMENT_ENTRY& Newest = m_Segments.back();
  const ResultCode nCode = OnEntry(&Newest, [&](Segment& Found) { return Found.AddEvent(pData, nSize, pnId); });
  return Failed(nCode) ? nCode : Refresh(&Newest);
}

// Brings an entry, and with it the totals, to what its segment holds now.
ResultCode SegmentManager::Refresh(tSEGMENT_ENTRY* pEntry) {
  std::uint64_t nEvents = 0;
  const ResultCode nCode = pEntry->pSegment->GetEventCount(&nEvents);
  if (Failed(nCode)) return nCode;
  const std::uint64_t nSize = pEntry->pSegment->GetDataSize();
  m_nTotalEvents += nEvents - pEntry->nEventCount;
  m_nTotalSize += nSize - pEntry->nDataSize;
  pEntry->nEventCount = nEvents;
  pEntry->nDataSize = nSize;
  LUMBRA_INVARIANT(IsConsistent());
  return errOK;
}

// After the use of a segment that is not the newest: it may be one too many that is open.
void SegmentManager::LimitOpenSegments(const tSEGMENT_ENTRY& Used) {
  if (!Used.pSegment->IsOpen()) return;
  OpenSegments::Use(this, Used.nNumber);
}

SegmentManager::Closing SegmentManager::CloseSegment(std::uint32_t nNumber) {
  const tSEGMENT_ENTRY* const pEntry = FindEntry(nNumber);
  if (pEntry == nullptr || pEntry->pSegment->Close()) return Closing::Done;
  m_bSyncFailed = true;
  return Closing::Failed;
}

SegmentManager::Closing SegmentManager::TryCloseSegment(std::uint32_t nNumber) {
  if (!m_Lock.try_lock()) return Closing::Busy;
  Closing How = Closing::Failed;
  try {
    How = CloseSegment(nNumber);
  } catch (...) {  // it stays open
  }
  m_Lock.unlock();
  return How;
}

// The totals are the sums, and the numbers ascend.
bool SegmentManager::IsConsistent() const {
  std::uint64_t nEvents = 0;
  std::uint64_t nSize = 0;
  std::uint32_t nNumber = 0;
  for (const tSEGMENT_ENTRY& Entry : m_Segments) {
    if (Entry.nNumber <= nNumber) return false;
    nNumber = Entry.nNumber;
    nEvents += Entry.nEventCount;
    nSize += Entry.nDataSize;
  }
  return nNumber < m_nNextNumber && nEvents == m_nTotalEvents && nSize == m_nTotalSize;
}

// Does something with a segment. Should its event file have been started anew when that opened it, because it held
// something else, the totals must not count on with events that are gone.
template <class Operation>
ResultCode SegmentManager::OnEntry(tSEGMENT_ENTRY* pEntry, Operation Do) {
  const bool bWasOpen = pEntry->pSegment->IsOpen();
  const ResultCode nCode = Do(*pEntry->pSegment);
  if (pEntry != &m_Segments.back()) LimitOpenSegments(*pEntry);
  if (bWasOpen || !pEntry->pSegment->IsOpen()) return nCode;
  if (pEntry == &m_Segments.back()) OpenSegments::NoteNewest(this, pEntry->nNumber);
  std::uint64_t nEvents = 0;
  const bool bKnown = Succeeded(pEntry->pSegment->GetEventCount(&nEvents));
  if (bKnown && nEvents != pEntry->nEventCount) (void)Refresh(pEntry);
  return nCode;
}

ResultCode SegmentManager::GetEvents(std::uint32_t nStartLow, std::int32_t nStartHigh, void* pBuffer,
                                     std::uint32_t nCount, std::uint32_t nBufferSize, std::uint32_t* pnDelivered) {
  if (!m_bInitialized) return errSTORE_NOT_INITIALIZED;
  const os::Hold Hold(m_Lock);
  std::uint32_t nDelivered = 0;
  std::uint32_t& nReported = pnDelivered != nullptr ? *pnDelivered : nDelivered;
  nReported = 0;
  Start From{};
  const ResultCode nCode = FindStart(nStartLow, nStartHigh, &From);
  if (Failed(nCode)) return nCode;

  auto* pCursor = static_cast<std::uint8_t*>(pBuffer);
  for (; From.nEntry < m_Segments.size(); ++From.nEntry) {
    tSEGMENT_ENTRY& Entry = m_Segments[From.nEntry];
    if (From.nPosition >= Entry.nEventCount) {
      From.nPosition -= Entry.nEventCount;
      continue;
    }
    const auto nWanted =
        static_cast<std::uint32_t>(std::min<std::uint64_t>(Entry.nEventCount - From.nPosition, nCount));
    std::uint32_t nGot = 0;
    const ResultCode nRead = OnEntry(&Entry, [&](Segment& Found) {
      return Found.GetEvents(static_cast<std::uint32_t>(From.nPosition), 0, nWanted, pCursor, nBufferSize, &nGot);
    });
    if (nRead != errOK) return nRead;
    if (nGot != nWanted) return errUNEXPECTED;
    const std::uint32_t nBytes = nGot * m_Header.nEventSize;
    if (pCursor != nullptr) pCursor += nBytes;
    nBufferSize -= nBytes;
    nReported += nGot;
    nCount -= nGot;
    if (nCount == 0) return errOK;
    From.nPosition = 0;
  }
  return errNO_MORE_EVENTS;
}

ResultCode SegmentManager::FindStart(std::uint32_t nStartLow, std::int32_t nStartHigh, Start* pStart) {
  constexpr std::int32_t kFromEnd = -1;
  *pStart = {0, nStartLow};
  if (nStartHigh == 0) return errOK;
  if (nStartHigh == kFromEnd) {
    if (m_Segments.empty()) return errUNEXPECTED;
    const std::uint64_t nBack = (std::uint64_t{1} << 32) - nStartLow;
    pStart->nPosition = nBack > m_nTotalEvents ? 0 : m_nTotalEvents - nBack;
    return errOK;
  }
  const tSEGMENT_ENTRY* const pNamed = FindEntry(static_cast<std::uint32_t>(nStartHigh));
  if (pNamed == nullptr) return errOK;  // a segment that is no more: the oldest, at the same index
  if (nStartLow >= pNamed->nEventCount) return errINDEX_OUT_OF_RANGE;
  pStart->nEntry = static_cast<std::size_t>(pNamed - m_Segments.data());
  return errOK;
}

ResultCode SegmentManager::UpdateEvent(std::uint32_t nIndexLow, std::uint32_t nSegment, const void* pData,
                                       std::uint32_t nSize) {
  if (!m_bInitialized) return errSTORE_NOT_INITIALIZED;
  const os::Hold Hold(m_Lock);
  return OnSegment(nSegment, [&](Segment& Found) { return Found.UpdateEvent(nIndexLow, nSegment, pData, nSize); });
}

// ---- Totals -----------------------------------------------------------------------------------------------

std::uint64_t SegmentManager::GetTotalEvents() {
  const os::Hold Hold(m_Lock);
  return m_nTotalEvents;
}

std::uint64_t SegmentManager::GetTotalSize() {
  const os::Hold Hold(m_Lock);
  return m_nTotalSize;
}

std::uint32_t SegmentManager::GetSegmentCount() {
  const os::Hold Hold(m_Lock);
  return static_cast<std::uint32_t>(m_Segments.size());
}

std::uint32_t SegmentManager::GetEventSize() {
  const os::Hold Hold(m_Lock);
  return m_Header.nEventSize;
}

std::uint64_t SegmentManager::GetOldestAge() {
  const os::Hold Hold(m_Lock);
  return m_Segments.empty() ? 0 : m_Segments.front().pSegment->GetAge();
}

std::uint64_t SegmentManager::GetOldestCreationTime() {
  const os::Hold Hold(m_Lock);
  return m_Segments.empty() ? 0 : m_Segments.front().pSegment->GetCreationTime();
}

// ---- Objects ----------------------------------------------------------------------------------------------

template <class Operation>
ResultCode SegmentManager::OnSegment(std::uint32_t nSegment, Operation Do) {
  tSEGMENT_ENTRY* const pEntry = FindEntry(nSegment);
  return pEntry == nullptr ? errOBJECT_NOT_FOUND : OnEntry(pEntry, Do);
}

ResultCode SegmentManager::Flush(Segment::Flushing What) {
  if (!m_bInitialized) return errSTORE_NOT_INITIALIZED;
  const os::Hold Hold(m_Lock);
  CatchUpHeader();
  for (const tSEGMENT_ENTRY& Entry : m_Segments)
    (void)Entry.pSegment->Flush(What);  // errOK always; failures are traced
  SyncHeader();
  // The system may have dropped what it could not write, and call the next sync a success.
  if (m_bSyncFailed) TraceFailedStep(errWRITE_FAILED);
  return errOK;
}

ResultCode SegmentManager::Check(StoreChoice Choice) {
  if (!m_bInitialized) return errSTORE_NOT_INITIALIZED;
  const os::Hold Hold(m_Lock);
  if (m_Segments.empty()) return errUNEXPECTED;
  return OnEntry(&m_Segments.back(), [&](Segment& Newest) { return Newest.Check(Choice); });
}

ResultCode SegmentManager::FindObject(StoreChoice Choice, const ObjectQuery& Query, std::uint64_t* pnId) {
  if (!m_bInitialized) return errSTORE_NOT_INITIALIZED;
  const os::Hold Hold(m_Lock);
  if (m_Segments.empty()) return errUNEXPECTED;
  // Names come before the events that would start the next segment.
  if (m_Segments.back().pSegment->IsDiscarded()) (void)NewSegment();
  return OnEntry(&m_Segments.back(), [&](Segment& Newest) { return Newest.FindObject(Choice, Query, pnId); });
}

ResultCode SegmentManager::GetObjectName(std::uint64_t nId, void* pBuffer, std::uint32_t nBufferSize,
                                         std::uint32_t* pnNeeded, std::uint32_t nFlagsOverride, std::uint8_t* pnType) {
  if (!m_bInitialized) return errSTORE_NOT_INITIALIZED;
  const os::Hold Hold(m_Lock);
  return OnSegment(StoreNumberOf(nId), [&](Segment& Found) {
    return Found.GetObjectName(nId, pBuffer, nBufferSize, pnNeeded, nFlagsOverride, pnType);
  });
}

ResultCode SegmentManager::GetObjectParent(std::uint64_t nId, std::uint64_t* pnParentId, std::uint64_t* pnHash,
                                           std::uint8_t* pnType) {
  if (!m_bInitialized) return errSTORE_NOT_INITIALIZED;
  const os::Hold Hold(m_Lock);
  return OnSegment(StoreNumberOf(nId),
                   [&](Segment& Found) { return Found.GetObjectParent(nId, pnParentId, pnHash, pnType); });
}

ResultCode SegmentManager::GetObjectData(std::uint64_t nId, void* pBuffer, std::uint32_t nBufferSize,
                                         std::uint32_t* pnSize, std::uint32_t nTag) {
  if (!m_bInitialized) return errSTORE_NOT_INITIALIZED;
  const os::Hold Hold(m_Lock);
  return OnSegment(StoreNumberOf(nId),
                   [&](Segment& Found) { return Found.GetObjectData(nId, pBuffer, nBufferSize, pnSize, nTag); });
}

ResultCode SegmentManager::SetObjectData(std::uint64_t nId, const void* pData, std::uint32_t nSize,
                                         std::uint32_t nTag) {
  if (!m_bInitialized) return errSTORE_NOT_INITIALIZED;
  const os::Hold Hold(m_Lock);
  return OnSegment(StoreNumberOf(nId), [&](Segment& Found) { return Found.SetObjectData(nId, pData, nSize, nTag); });
}

ResultCode SegmentManager::RemoveAllObjectData(std::uint64_t nId) {
  if (!m_bInitialized) return errSTORE_NOT_INITIALIZED;
  const os::Hold Hold(m_Lock);
  return OnSegment(StoreNumberOf(nId), [&](Segment& Found) { return Found.RemoveAllObjectData(nId); });
}

ResultCode SegmentManager::EnumFirstObject() {
  if (!m_bInitialized) return errSTORE_NOT_INITIALIZED;
  const os::Hold Hold(m_Lock);
  for (tSEGMENT_ENTRY& Entry : m_Segments) {
    const ResultCode nCode = OnEntry(&Entry, [](Segment& Found) { return Found.EnumObjects(); });
    if (nCode != errOBJECT_NOT_FOUND) return nCode;
  }
  return errOBJECT_NOT_FOUND;
}

ResultCode SegmentManager::EnumNextObject(std::uint32_t nSegment) {
  if (!m_bInitialized) return errSTORE_NOT_INITIALIZED;
  const os::Hold Hold(m_Lock);
  tSEGMENT_ENTRY* const pEntry = FindEntry(nSegment);
  return pEntry == nullptr ? errPARAMETER_INVALID : OnEntry(pEntry, [](Segment& Found) { return Found.EnumObjects(); });
}

}  // namespace lumbra
