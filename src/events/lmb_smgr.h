// One event database: a folder with a chain of numbered segments and "segments.dat", which says where the
// chain starts (format/segments_file.h).
//
// Events go to the newest segment; a new one is started when it is full, old or large enough, and the oldest
// are dropped while the database exceeds its limits. The newest is never dropped. Totals of events and bytes
// are kept as the chain changes. Limits are set at any time, also before Init, and survive Clear and Init;
// they are not stored.
//
// Any thread may call any operation; one re-entrant lock per manager is held for each operation's whole run.
// Unless a line says otherwise an operation on a manager that is not initialised answers
// errSTORE_NOT_INITIALIZED.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "events/lmb_seg.h"
#include "format/segments_file.h"
#include "lumbra/result_code.h"
#include "platform/file_content.h"
#include "platform/os.h"
#include "platform/storage_environment.h"

namespace lumbra {

class SegmentManager : private SegmentChain {
 public:
  SegmentManager() = default;
  ~SegmentManager() { TearDown(); }
  SegmentManager(const SegmentManager&) = delete;
  SegmentManager& operator=(const SegmentManager&) = delete;

  // Lists the segments of the folder, or starts the first one. A missing or foreign "segments.dat", or one of
  // another event size, starts the database anew; the files of its segments are deleted as their numbers come
  // up again. errALREADY_DONE when initialised. The environment and the shared object store (which may be
  // null) must outlive the use. After a failure nothing is open.
  ResultCode Init(StorageEnvironment* pEnv, std::uint32_t nEventSize, ObjectDB* pGlobalObjects, bool bCheckMode);

  // Deletes every file of the folder and starts the first segment, with the same event size. errACCESS_DENIED when a
  // segment could not be deleted; the database is then open on what is left, a whole beginning of the chain.
  ResultCode Clear();

  bool IsInitialized() const { return m_bInitialized; }

  // Closes every file; none is deleted. Init opens the database again.
  void TearDown();

  // ---- Events ----

  // Appends to the newest segment. *pnId (may be null): segment number and index.
  ResultCode AddEvent(const void* pData, std::uint32_t nSize, std::uint64_t* pnId);

  // Reads nCount events from a start on. The start's high word is 0 (the low word counts from the oldest
  // event), -1 (the low word is -k: the last k events), or a segment's number (the low word is the index in
  // it). *pnDelivered (may be null) receives the number of events of the segments that were read in full.
  // errNO_MORE_EVENTS, a success, when fewer are there; errINDEX_OUT_OF_RANGE for an index that the named
  // segment does not hold.
  ResultCode GetEvents(std::uint32_t nStartLow, std::int32_t nStartHigh, void* pBuffer, std::uint32_t nCount,
                       std::uint32_t nBufferSize, std::uint32_t* pnDelivered);

  // Segment number 0 means the newest. errOBJECT_NOT_FOUND when there is no such segment.
  ResultCode UpdateEvent(std::uint32_t nIndexLow, std::uint32_t nSegment, const void* pData, std::uint32_t nSize);

  // ---- Limits and totals (these work in any state) ----

  // Starts a new segment if the newest is full; then drops the oldest while the database exceeds its limits,
  // with bForce at least one.
  ResultCode CheckLimits(bool bForce);
  ResultCode DeleteOldestSegment() { return CheckLimits(true); }

  // 0 is no limit. Each is enforced at once.
  void SetSegmentMaxEvents(std::uint64_t nLimit) { SetLimit(&m_nSegmentMaxEvents, nLimit); }
  void SetSegmentMaxSize(std::uint64_t nBytes) { SetLimit(&m_nSegmentMaxSize, nBytes); }
  void SetSegmentMaxAge(std::uint64_t nSeconds) { SetLimit(&m_nSegmentMaxAge, nSeconds); }
  void SetDbMaxEvents(std::uint64_t nLimit) { SetLimit(&m_nDbMaxEvents, nLimit); }
  void SetDbMaxSize(std::uint64_t nBytes) { SetLimit(&m_nDbMaxSize, nBytes); }
  void SetDbMaxAge(std::uint64_t nSeconds) { SetLimit(&m_nDbMaxAge, nSeconds); }
  std::uint64_t GetDbMaxSize() const { return m_nDbMaxSize; }

  std::uint64_t GetTotalEvents();
  std::uint64_t GetTotalSize();  // bytes
  std::uint32_t GetSegmentCount();
  std::uint32_t GetEventSize();
  std::uint64_t GetOldestAge();           // seconds; 0 without a segment
  std::uint64_t GetOldestCreationTime();  // FILETIME; 0 without a segment

  // ---- Objects ----

  // Brings to the disk what was written to the open segments, the shared store and "segments.dat". errOK also when
  // that fails, which is traced.
  ResultCode Flush();

  // The quick check of an object store, through the newest segment.
  ResultCode Check(StoreChoice Choice);

  // Works in the newest segment: names are created where new events go. errUNEXPECTED without a segment.
  ResultCode FindObject(StoreChoice Choice, const ObjectQuery& Query, std::uint64_t* pnId);

  // These find the segment from the id's high word, where 0 means the newest, which leads on to the shared
  // store. errOBJECT_NOT_FOUND when there is no such segment. Arguments as in Segment.
  ResultCode GetObjectName(std::uint64_t nId, void* pBuffer, std::uint32_t nBufferSize, std::uint32_t* pnNeeded,
                           std::uint32_t nFlagsOverride, std::uint8_t* pnType);
  ResultCode GetObjectParent(std::uint64_t nId, std::uint64_t* pnParentId, std::uint64_t* pnHash, std::uint8_t* pnType);
  ResultCode GetObjectData(std::uint64_t nId, void* pBuffer, std::uint32_t nBufferSize, std::uint32_t* pnSize,
                           std::uint32_t nTag);
  ResultCode SetObjectData(std::uint64_t nId, const void* pData, std::uint32_t nSize, std::uint32_t nTag);
  ResultCode RemoveAllObjectData(std::uint64_t nId);

  // Enumeration of objects, which no segment provides: errNOT_IMPLEMENTED from the first segment that is
  // asked.
  ResultCode EnumFirstObject();
  ResultCode EnumNextObject(std::uint32_t nSegment);

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

  ResultCode OpenChain(std::uint32_t nEventSize);
  ResultCode OpenHeader(std::uint32_t nEventSize);
  FileContent LookAtHeader(std::uint32_t nEventSize);
  ResultCode ListSegments();
  bool LeaveOutUnfinished();
  ResultCode NewSegment();
  ResultCode StartSegment();
  ResultCode AppendEntry(std::unique_ptr<Segment> pSegment, std::uint64_t nEvents, std::uint64_t nSize);
  std::unique_ptr<Segment> MakeSegment();
  ResultCode WriteHeader();
  ResultCode MoveStart();
  void CatchUpHeader();
  void SyncHeader();
  void BeforeDiscard() override;
  ResultCode Refresh(tSEGMENT_ENTRY* pEntry);
  void SetLimit(std::atomic<std::uint64_t>* pLimit, std::uint64_t nLimit);
  bool IsNewestFull();
  bool IsOverLimits();
  ResultCode DeleteOldest(bool bForced);
  ResultCode FindStart(std::uint32_t nStartLow, std::int32_t nStartHigh, Start* pStart);
  tSEGMENT_ENTRY* FindEntry(std::uint32_t nSegment);
  template <class Operation>
  ResultCode OnEntry(tSEGMENT_ENTRY* pEntry, Operation Do);
  template <class Operation>
  ResultCode OnSegment(std::uint32_t nSegment, Operation Do);

  StorageEnvironment* m_pEnv = nullptr;
  std::atomic<bool> m_bInitialized{false};            // looked at before the lock is taken
  os::CriticalSection m_Lock;                         // guards everything below, and every segment
  std::vector<tSEGMENT_ENTRY> m_Segments;             // oldest first
  std::atomic<std::uint64_t> m_nSegmentMaxEvents{0};  // a limit is written under the lock, and read also without
  std::atomic<std::uint64_t> m_nSegmentMaxSize{0};
  std::atomic<std::uint64_t> m_nSegmentMaxAge{0};
  std::atomic<std::uint64_t> m_nDbMaxEvents{0};
  std::atomic<std::uint64_t> m_nDbMaxSize{0};
  std::atomic<std::uint64_t> m_nDbMaxAge{0};
  std::uint32_t m_nNextNumber = 1;             // of the next new segment
  std::unique_ptr<StorageFile> m_pHeaderFile;  // "segments.dat", held while initialised
  tSDB_HEADER m_Header{};
  bool m_bHeaderBehind = false;  // a write of the header failed: the file may name a segment that is gone
  std::uint64_t m_nTotalSize = 0;
  std::uint64_t m_nTotalEvents = 0;
  ObjectDB* m_pGlobalObjects = nullptr;
  bool m_bCheckMode = false;
};

}  // namespace lumbra
