// One numbered slice of an event database: a record file of events and an object store of its own for the
// names that they refer to. Events and names live and go together: dropping a segment drops both, and nothing
// outside refers into it except through ids that carry its number.
//
// A segment can be known without being open: its size and age come from the folder, and its files are opened
// by the first operation that needs them. While they cannot be opened its operations answer errOPEN_FAILED. Where a
// call of the system failed the next operation tries again; a segment that has lost a file is not tried again.
//
// It has no lock: the segment manager holds its own around every call.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "events/object_names.h"
#include "lumbra/result_code.h"
#include "objects/objdb.h"
#include "objects/plaindb.h"
#include "platform/storage_environment.h"

namespace lumbra {

// Who keeps the chain that a segment is part of.
class SegmentChain {
 public:
  // The segment has lost a file and is worth nothing any more. Called before the rest of it is deleted, so that the
  // chain can leave it out first.
  virtual void BeforeDiscard() = 0;

 protected:
  ~SegmentChain() = default;
};

class Segment {
 public:
  // With bCheckMode an object store that is created gets every kind of CRC. The lock is the one that serialises the
  // calls. The chain may be null.
  Segment(bool bCheckMode, os::CriticalSection& Owner, SegmentChain* pChain)
      : m_Blocks(Owner), m_bCheckMode(bCheckMode), m_pChain(pChain) {}
  ~Segment() = default;  // closes the files, and deletes none
  Segment(const Segment&) = delete;
  Segment& operator=(const Segment&) = delete;

  enum class Files { Existing, New };

  // Existing: reads the creation time and opens nothing; fails when there is no event file. New: deletes what
  // the number may have left behind, and creates and opens the files. The environment and the shared store
  // (which may be null: then the segment's own takes its place) must outlive the segment.
  ResultCode Init(StorageEnvironment* pEnv, std::uint32_t nEventSize, Files Which, std::uint32_t nNumber,
                  ObjectDB* pGlobalObjects);

  // Whether a crash ended the creation of an existing segment before a name was stored in it: its object store lacks
  // files, and holds no record.
  bool IsUnfinished();

  // Whether a file of it is missing. The chain keeps its entry until it is dropped.
  bool IsDiscarded() const { return m_bDiscarded; }
  bool IsOpen() const { return m_bOpened; }

  // Opens the files; errOK when they are open. A segment that lacks a file of its object store is deleted: events
  // without their names are worth nothing. So is a new one that cannot be opened.
  ResultCode Open();

  // Closes the files, whose writes are brought to the disk first; the next operation opens them again. False when that
  // fails: then they stay open.
  bool Close();

  // Events. An event's index is its low word; the high word is 0 or the segment's number, errOBJECT_NOT_FOUND
  // for any other. Out pointers may be null.
  ResultCode AddEvent(const void* pData, std::uint32_t nSize, std::uint64_t* pnId);
  ResultCode GetEvents(std::uint32_t nIndexLow, std::uint32_t nIndexHigh, std::uint32_t nCount, void* pBuffer,
                       std::uint32_t nBufferSize, std::uint32_t* pnDelivered);
  ResultCode UpdateEvent(std::uint32_t nIndexLow, std::uint32_t nIndexHigh, const void* pData, std::uint32_t nSize);

  // Without opening anything: from the folder when the segment is not open.
  ResultCode GetEventCount(std::uint64_t* pnCount);
  ResultCode MeasureData(std::uint64_t* pnSize);  // bytes
  std::uint64_t GetDataSize();                    // the same; 0 when it cannot be told
  std::uint64_t GetAge() const;                   // seconds; 0 when the clock stands before the creation
  std::uint64_t GetCreationTime() const { return m_nCreationTime; }  // FILETIME

  // Brings its files to the disk, and those of the shared store, unless the caller does that once for all segments.
  // Always errOK.
  enum class Flushing { WithSharedStore, OwnFiles };
  ResultCode Flush(Flushing What = Flushing::WithSharedStore);
  ResultCode Check(StoreChoice Choice);

  // Objects. Ids lead by their high word to the shared store (0) or the segment's own (its number);
  // errOBJECT_NOT_FOUND for any other.
  ResultCode FindObject(StoreChoice Choice, const ObjectQuery& Query, std::uint64_t* pnId);
  ResultCode GetObjectName(std::uint64_t nId, void* pBuffer, std::uint32_t nBufferSize, std::uint32_t* pnNeeded,
                           std::uint32_t nFlagsOverride, std::uint8_t* pnType);
  ResultCode GetObjectParent(std::uint64_t nId, std::uint64_t* pnParentId, std::uint64_t* pnHash, std::uint8_t* pnType);
  ResultCode GetObjectData(std::uint64_t nId, void* pBuffer, std::uint32_t nBufferSize, std::uint32_t* pnSize,
                           std::uint32_t nTag);
  ResultCode SetObjectData(std::uint64_t nId, const void* pData, std::uint32_t nSize, std::uint32_t nTag);
  ResultCode RemoveAllObjectData(std::uint64_t nId);

  // Enumeration of objects is not provided: errNOT_IMPLEMENTED once the segment is open.
  ResultCode EnumObjects();

 private:
  class OpenAttempt {
   public:
    explicit OpenAttempt(Segment* pSegment) : m_pSegment(pSegment) {}
    ~OpenAttempt();
    OpenAttempt(const OpenAttempt&) = delete;
    OpenAttempt& operator=(const OpenAttempt&) = delete;

   private:
    Segment* m_pSegment;
  };

  // For an operation on objects, which may change the size of the store.
  ObjectStores Stores() {
    m_nObjectsSize.reset();
    return {m_pObjects.get(), m_pGlobalObjects, m_nNumber};
  }
  ResultCode OpenEvents();
  ResultCode OpenObjects();
  ResultCode OpenObjectFiles(ObjectFiles* pFiles, bool* pbGone);
  bool IsGone(const char16_t* pName);
  void LeaveChain();
  void Discard();
  template <class Operation>
  ResultCode OnStoreOf(std::uint64_t nId, Operation Do);

  std::uint32_t m_nNumber = 0;  // never 0 for a real segment
  bool m_bOpened = false;
  bool m_bWasOpen = false;    // now or before
  bool m_bFailed = false;     // it cannot be opened for reasons of its own; there is no second attempt
  bool m_bDiscarded = false;  // a file of it is missing
  BlockTable m_Blocks;        // of the events
  std::unique_ptr<PlainDB> m_pEvents;
  std::unique_ptr<ObjectDB> m_pObjects;
  std::optional<std::uint64_t> m_nObjectsSize;  // bytes, since the last operation on it: an event asks for it, too
  ObjectDB* m_pGlobalObjects = nullptr;
  StorageEnvironment* m_pEnv = nullptr;
  bool m_bWritable = false;
  bool m_bCreate = false;  // missing files are created rather than required
  std::uint32_t m_nEventSize = 0;
  std::uint64_t m_nCreationTime = 0;  // of the event file, FILETIME
  const bool m_bCheckMode;
  SegmentChain* const m_pChain;
};

}  // namespace lumbra
