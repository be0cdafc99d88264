// One event database: a folder with a chain of numbered segments and "segments.dat", which says where the
// chain starts (format/segments_file.h).
//
// Events go to the newest segment; a new one is started when it is full, old or large enough, and the oldest
// are dropped while the database exceeds its limits. The newest is never dropped. Totals of events and bytes
// are kept as the chain changes. Limits are set at any time, also before Init, and survive Clear and Init;
// they are not stored.
//
// Any thread may call any operation; one lock per manager is held for each operation's whole run, taken by the public
// functions alone.
// Unless a line says otherwise an operation on a manager that is not initialised answers
// errSTORE_NOT_INITIALIZED.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "events/lmb_seg.h"
#include "events/open_segments.h"
#include "format/segments_file.h"
#include "lumbra/lumbra.h"
#include "lumbra/result_code.h"
#include "platform/file_content.h"
#include "platform/os.h"
#include "platform/storage_environment.h"

namespace lumbra {

class SegmentManager final : private SegmentChain, private SegmentOwner {
 public:
  SegmentManager() = default;
  ~SegmentManager() { TearDown(); }
  SegmentManager(const SegmentManager&) = delete;
  SegmentManager& operator=(const SegmentManager&) = delete;

  // Lists the segments of the folder, or starts the first one. A missing or foreign "segments.dat", or one of
  // another event size, starts the database anew; the files of its segments are deleted as their numbers come
  // up again. errALREADY_DONE when initialised. The environment and the shared object store (which may be
  // null) must outlive the use. After a failure nothing is open.
  ResultCode Init(StorageEnvironment* pEnv, std::uint32_t nEventSize, ObjectDB* pGlobalObjects, bool bCheckMode)
      EXCLUDES(m_Lock);

  // Deletes every file of the folder and starts the first segment, with the same event size. errACCESS_DENIED when a
  // segment could not be deleted; the database is then open on what is left, a whole beginning of the chain.
  ResultCode Clear() EXCLUDES(m_Lock);

  bool IsInitialized() const { return m_bInitialized; }

  // Closes every file; none is deleted. Init opens the database again.
  void TearDown() EXCLUDES(m_Lock);

  // ---- Events ----

  // Appends to the newest segment. *pnId (may be null): segment number and index.
  ResultCode AddEvent(const void* pData, std::uint32_t nSize, std::uint64_t* pnId) EXCLUDES(m_Lock);

  // Reads nCount events from a start on. The start's high word is 0 (the low word counts from the oldest
  // event), -1 (the low word is -k: the last k events), or a segment's number (the low word is the index in
  // it). *pnDelivered (may be null) receives the number of events of the segments that were read in full.
  // errNO_MORE_EVENTS, a success, when fewer are there; errINDEX_OUT_OF_RANGE for an index that the named
  // segment does not hold.
  ResultCode GetEvents(std::uint32_t nStartLow, std::int32_t nStartHigh, void* pBuffer, std::uint32_t nCount,
                       std::uint32_t nBufferSize, std::uint32_t* pnDelivered) EXCLUDES(m_Lock);

  // Segment number 0 means the newest. errOBJECT_NOT_FOUND when there is no such segment.
  ResultCode UpdateEvent(std::uint32_t nIndexLow, std::uint32_t nSegment, const void* pData, std::uint32_t nSize)
      EXCLUDES(m_Lock);

  // ---- Limits and totals (these work in any state) ----

  // Starts a new segment if the newest is full; then drops the oldest while the database exceeds its limits,
  // with bForce at least one. Those are dropped also when no new one can be started, whose failure is answered.
  ResultCode CheckLimits(bool bForce) EXCLUDES(m_Lock);
  ResultCode DeleteOldestSegment() EXCLUDES(m_Lock) { return CheckLimits(true); }

  // 0 is no limit. Each is enforced at once. errNOT_SUPPORTED for the limit that one database alone does not have.
  ResultCode SetLimit(LumbraLimit nKind, std::uint64_t nLimit) EXCLUDES(m_Lock);
  void SetSegmentMaxEvents(std::uint64_t nLimit) { (void)SetLimit(limitSegmentEvents, nLimit); }
  void SetSegmentMaxSize(std::uint64_t nBytes) { (void)SetLimit(limitSegmentSize, nBytes); }
  void SetSegmentMaxAge(std::uint64_t nSeconds) { (void)SetLimit(limitSegmentAge, nSeconds); }
  void SetDbMaxEvents(std::uint64_t nLimit) { (void)SetLimit(limitDatabaseEvents, nLimit); }
  void SetDbMaxSize(std::uint64_t nBytes) { (void)SetLimit(limitDatabaseSize, nBytes); }
  void SetDbMaxAge(std::uint64_t nSeconds) { (void)SetLimit(limitDatabaseAge, nSeconds); }
  std::uint64_t GetDbMaxSize() const { return m_nDbMaxSize; }

  std::uint64_t GetTotalEvents() EXCLUDES(m_Lock);
  std::uint64_t GetTotalSize() EXCLUDES(m_Lock);  // bytes
  std::uint32_t GetSegmentCount() EXCLUDES(m_Lock);
  std::uint32_t GetEventSize() EXCLUDES(m_Lock);
  std::uint64_t GetOldestAge() EXCLUDES(m_Lock);           // seconds; 0 without a segment
  std::uint64_t GetOldestCreationTime() EXCLUDES(m_Lock);  // FILETIME; 0 without a segment

  // ---- Objects ----

  // Brings to the disk what was written to the open segments, the shared store (unless the caller does that) and
  // "segments.dat". errOK also when that fails, which is traced; and so is, each time until the database is opened
  // again, that it failed for a segment before.
  ResultCode Flush(Segment::Flushing What = Segment::Flushing::WithSharedStore) EXCLUDES(m_Lock);

  // The quick check of an object store, through the newest segment.
  ResultCode Check(StoreChoice Choice) EXCLUDES(m_Lock);

  // Works in the newest segment: names are created where new events go. errUNEXPECTED without a segment.
  ResultCode FindObject(StoreChoice Choice, const ObjectQuery& Query, std::uint64_t* pnId) EXCLUDES(m_Lock);

  // These find the segment from the id's high word, where 0 means the newest, which leads on to the shared
  // store. errOBJECT_NOT_FOUND when there is no such segment. Arguments as in Segment.
  ResultCode GetObjectName(std::uint64_t nId, void* pBuffer, std::uint32_t nBufferSize, std::uint32_t* pnNeeded,
                           std::uint32_t nFlagsOverride, std::uint8_t* pnType) EXCLUDES(m_Lock);
  ResultCode GetObjectParent(std::uint64_t nId, std::uint64_t* pnParentId, std::uint64_t* pnHash, std::uint8_t* pnType)
      EXCLUDES(m_Lock);
  ResultCode GetObjectData(std::uint64_t nId, void* pBuffer, std::uint32_t nBufferSize, std::uint32_t* pnSize,
                           std::uint32_t nTag) EXCLUDES(m_Lock);
  ResultCode SetObjectData(std::uint64_t nId, const void* pData, std::uint32_t nSize, std::uint32_t nTag)
      EXCLUDES(m_Lock);
  ResultCode RemoveAllObjectData(std::uint64_t nId) EXCLUDES(m_Lock);

  // Enumeration of objects, which no segment provides: errNOT_IMPLEMENTED from the first segment that is
  // asked.
  ResultCode EnumFirstObject() EXCLUDES(m_Lock);
  ResultCode EnumNextObject(std::uint32_t nSegment) EXCLUDES(m_Lock);

 private:
  struct tSEGMENT_ENTRY {
    std::unique_ptr<Segment> pSegment;
    std::uint32_t nNumber;
    std::uint64_t nEventCount;  // this and the size are refreshed after every append
    std::uint64_t nDataSize;
  };

  // A place in the chain: events from nPosition on, counted from the start of Segments[nEntry].
  struct Start {
    std::size_t nEntry;
    std::uint64_t nPosition;
  };

  ResultCode Open(StorageEnvironment* pEnv, std::uint32_t nEventSize, ObjectDB* pGlobalObjects, bool bCheckMode)
      REQUIRES(m_Lock);
  void Close() REQUIRES(m_Lock);
  ResultCode OpenChain(std::uint32_t nEventSize) REQUIRES(m_Lock);
  ResultCode OpenHeader(std::uint32_t nEventSize) REQUIRES(m_Lock);
  FileContent LookAtHeader(std::uint32_t nEventSize) REQUIRES(m_Lock);
  ResultCode ListSegments(bool* pbLeftOut) REQUIRES(m_Lock);
  bool LeaveOutUnfinished() REQUIRES(m_Lock);
  ResultCode NewSegment() REQUIRES(m_Lock);
  ResultCode StartSegment() REQUIRES(m_Lock);
  ResultCode AppendEntry(std::unique_ptr<Segment> pSegment, std::uint64_t nEvents, std::uint64_t nSize)
      REQUIRES(m_Lock);
  std::unique_ptr<Segment> MakeSegment() REQUIRES(m_Lock);
  ResultCode WriteHeader() REQUIRES(m_Lock);
  ResultCode MoveStart() REQUIRES(m_Lock);
  void CatchUpHeader() REQUIRES(m_Lock);
  void SyncHeader() REQUIRES(m_Lock);
  void BeforeDiscard() override;
  Closing TryCloseSegment(std::uint32_t nNumber) override;
  Closing CloseSegment(std::uint32_t nNumber) REQUIRES(m_Lock);
  void LimitOpenSegments(const tSEGMENT_ENTRY& Used) REQUIRES(m_Lock);
  ResultCode Refresh(tSEGMENT_ENTRY* pEntry) REQUIRES(m_Lock);
  std::atomic<std::uint64_t>* LimitOf(LumbraLimit nKind);
  ResultCode EnforceLimits(bool bForce) REQUIRES(m_Lock);
  bool IsNewestFull() REQUIRES(m_Lock);
  bool IsOverLimits() REQUIRES(m_Lock);
  bool IsConsistent() const REQUIRES(m_Lock);
  ResultCode DeleteOldest(bool bForced) REQUIRES(m_Lock);
  ResultCode FindStart(std::uint32_t nStartLow, std::int32_t nStartHigh, Start* pStart) REQUIRES(m_Lock);
  tSEGMENT_ENTRY* FindEntry(std::uint32_t nSegment) REQUIRES(m_Lock);
  template <class Operation>
  ResultCode OnEntry(tSEGMENT_ENTRY* pEntry, Operation Do) REQUIRES(m_Lock);
  template <class Operation>
  ResultCode OnSegment(std::uint32_t nSegment, Operation Do) REQUIRES(m_Lock);

  std::atomic<bool> m_bInitialized{false};            // looked at before the lock is taken
  std::atomic<std::uint64_t> m_nSegmentMaxEvents{0};  // a limit is written under the lock, and read also without
  std::atomic<std::uint64_t> m_nSegmentMaxSize{0};
  std::atomic<std::uint64_t> m_nSegmentMaxAge{0};
  std::atomic<std::uint64_t> m_nDbMaxEvents{0};
  std::atomic<std::uint64_t> m_nDbMaxSize{0};
  std::atomic<std::uint64_t> m_nDbMaxAge{0};

  os::CriticalSection m_Lock;  // guards everything below, and every segment
  StorageEnvironment* m_pEnv GUARDED_BY(m_Lock) = nullptr;
  std::vector<tSEGMENT_ENTRY> m_Segments GUARDED_BY(m_Lock);      // oldest first
  std::uint32_t m_nNextNumber GUARDED_BY(m_Lock) = 1;             // of the next new segment
  std::unique_ptr<StorageFile> m_pHeaderFile GUARDED_BY(m_Lock);  // "segments.dat", held while initialised
  tSDB_HEADER m_Header GUARDED_BY(m_Lock){};
  bool m_bHeaderBehind GUARDED_BY(m_Lock) = false;  // a write of the header failed: it may name a segment that is gone
  bool m_bSyncFailed GUARDED_BY(m_Lock) = false;    // of a segment that was to be closed
  std::uint64_t m_nTotalSize GUARDED_BY(m_Lock) = 0;
  std::uint64_t m_nTotalEvents GUARDED_BY(m_Lock) = 0;
  ObjectDB* m_pGlobalObjects GUARDED_BY(m_Lock) = nullptr;
  bool m_bCheckMode GUARDED_BY(m_Lock) = false;
};

}  // namespace lumbra
