// One numbered slice of an event database: a record file of events and an object store of its own for the
// names that they refer to. Events and names live and go together: dropping a segment drops both, and nothing
// outside refers into it except through ids that carry its number.
//
// A segment can be known without being open: its size and age come from the folder, and its files are opened
// by the first operation that needs them. One that failed to open is not tried again; its operations answer
// errOPEN_FAILED.
//
// It has no lock: the segment manager holds its own around every call.
#pragma once

#include <cstdint>
#include <memory>

#include "events/object_names.h"
#include "lumbra/result_code.h"
#include "objects/objdb.h"
#include "objects/plaindb.h"
#include "platform/storage_environment.h"

namespace lumbra {

class Segment {
 public:
  // With bCheckMode an object store that is created gets every kind of CRC.
  explicit Segment(bool bCheckMode) : m_bCheckMode(bCheckMode) {}
  ~Segment() = default;  // closes the files, and deletes none
  Segment(const Segment&) = delete;
  Segment& operator=(const Segment&) = delete;

  enum class Files { Existing, New };

  // Existing: reads the creation time and opens nothing; fails when there is no event file. New: deletes what
  // the number may have left behind, and creates and opens the files. The environment and the shared store
  // (which may be null: then the segment's own takes its place) must outlive the segment.
  ResultCode Init(StorageEnvironment* pEnv, std::uint32_t nEventSize, Files Which, std::uint32_t nNumber,
                  ObjectDB* pGlobalObjects);

  // Whether a crash ended the creation of an existing segment: its object store lacks files.
  bool IsUnfinished();

  // Opens the files; errOK when they are open. A segment whose object store cannot be opened is deleted:
  // events without their names are worth nothing.
  ResultCode Open();

  // Events. An event's index is its low word; the high word is 0 or the segment's number, errOBJECT_NOT_FOUND
  // for any other. Out pointers may be null.
  ResultCode AddEvent(const void* pData, std::uint32_t nSize, std::uint64_t* pnId);
  ResultCode GetEvents(std::uint32_t nIndexLow, std::uint32_t nIndexHigh, std::uint32_t nCount, void* pBuffer,
                       std::uint32_t nBufferSize, std::uint32_t* pnDelivered);
  ResultCode UpdateEvent(std::uint32_t nIndexLow, std::uint32_t nIndexHigh, const void* pData, std::uint32_t nSize);

  // Without opening anything: from the folder when the segment is not open.
  ResultCode GetEventCount(std::uint64_t* pnCount);
  std::uint64_t GetDataSize();   // bytes; 0 when it cannot be told
  std::uint64_t GetAge() const;  // seconds; 0 when the clock stands before the creation
  std::uint64_t GetCreationTime() const { return m_nCreationTime; }  // FILETIME

  ResultCode Flush();  // always errOK
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
  ObjectStores Stores() const { return {m_pObjects.get(), m_pGlobalObjects, m_nNumber}; }
  ResultCode OpenEvents();
  ResultCode OpenObjects();
  void Discard();
  template <class Operation>
  ResultCode OnStoreOf(std::uint64_t nId, Operation Do);

  std::uint32_t m_nNumber = 0;  // never 0 for a real segment
  bool m_bOpened = false;
  bool m_bFailed = false;  // an attempt to open failed; there is no second
  std::unique_ptr<PlainDB> m_pEvents;
  std::unique_ptr<ObjectDB> m_pObjects;
  ObjectDB* m_pGlobalObjects = nullptr;
  StorageEnvironment* m_pEnv = nullptr;
  bool m_bWritable = false;
  bool m_bCreate = false;  // missing files are created rather than required
  std::uint32_t m_nEventSize = 0;
  std::uint64_t m_nCreationTime = 0;  // of the event file, FILETIME
  const bool m_bCheckMode;
};

}  // namespace lumbra
