// The component: one instance of the store, as the host sees it.
//
// It owns 48 numbered databases and any number of named ones, shares one object store with every other
// instance of the process, and offers the 19 operations of lumbra/lumbra.h, the lifecycle and the properties.
// The declarations there are the contract of every public operation here; the interface table (tables.cpp)
// turns whatever is thrown below into a code.
//
// Locks, outermost first: the reader/writer lock (shared by every operation; exclusive to change
// propWRITES_SUSPENDED), the main lock (opening and clearing databases, every add, the size total, the list
// of named databases), a segment manager's own, an object store's own.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "component/host_text.h"
#include "component/hosted_instance.h"
#include "component/named_database.h"
#include "events/lmb_smgr.h"
#include "events/named_index.h"
#include "lumbra/lumbra.h"
#include "platform/os.h"
#include "platform/rw_lock.h"
#include "platform/storage_environment.h"

namespace lumbra {

struct DatabaseSlot {
  StorageEnvironment Environment;
  SegmentManager Manager;
};

class Lumbra : public HostedInstance {
 public:
  Lumbra();
  ~Lumbra();

  static Lumbra& Of(HostObject* pHandle);
  static Lumbra& Of(LumbraInstance* pInstance) { return *static_cast<Lumbra*>(pInstance); }

  // ---- Lifecycle and properties (lifecycle.cpp, properties.cpp) ----

  ResultCode ObjectInitDone();
  ResultCode ObjectShutdown();
  void Flush();
  ResultCode MessageReceive(std::uint32_t nClass, std::uint32_t nMessageId);
  ResultCode PropertyAccess(std::uint32_t nPropertyId, PropertyAccessRecord* pRecord);

  // ---- Databases (databases.cpp) ----

  ResultCode InitDB(std::uint32_t nDatabase, std::uint32_t nEventSize);
  ResultCode InitDBByName(const char16_t* pName, std::uint32_t nEventSize, std::uint32_t* pnDatabase);
  ResultCode SetDBParams(std::uint32_t nDatabase, std::uint32_t nKind, std::uint64_t nValue);
  ResultCode GetDBInfo(std::uint32_t nDatabase, std::uint32_t* pnRecords, std::uint64_t* pnDataSize,
                       std::uint64_t* pnTime);
  ResultCode ClearDB(std::uint32_t nDatabase);

  // ---- Events (events.cpp) ----

  ResultCode AddEvent(std::uint32_t nDatabase, const void* pData, std::uint32_t nSize, std::uint64_t* pnEventId);
  ResultCode GetEvents(std::uint32_t nDatabase, std::uint64_t nStart, void* pBuffer, std::uint32_t nBufferSize,
                       std::uint32_t nCount, std::uint32_t* pnRead, HostObject* pParents);
  ResultCode UpdateEvent(std::uint64_t nEventId, const void* pData, std::uint32_t nSize);

  // ---- Objects (objects.cpp) and their data (object_data.cpp) ----

  ResultCode FindObjectSimple(std::uint32_t nDatabase, std::uint32_t nType, const char16_t* pName,
                              std::int32_t nNameSize, std::uint32_t nCreate, std::uint32_t nFlagsOverride,
                              std::uint64_t* pnObjectId);
  ResultCode FindObject(std::uint32_t nDatabase, std::uint32_t nType, const char16_t* pName, std::int32_t nNameSize,
                        std::uint32_t nCreate, std::uint32_t nFlagsOverride, std::uint64_t nParentId,
                        std::uint64_t* pnObjectId);
  ResultCode GetObjectName(std::uint64_t nObjectId, char16_t* pBuffer, std::uint32_t nBufferSize,
                           std::uint32_t* pnNameSize, std::uint32_t nFlagsOverride, std::uint32_t* pnType);
  ResultCode GetObjectData(std::uint64_t nObjectId, void* pBuffer, std::uint32_t nBufferSize, std::uint32_t* pnDataSize,
                           std::uint32_t nTag);
  ResultCode SetObjectData(std::uint64_t nObjectId, const void* pData, std::uint32_t nSize, std::uint32_t nTag);
  ResultCode GetObjectDataInto(std::uint64_t nObjectId, HostObject* pTarget, std::uint32_t nTag);
  ResultCode SetObjectDataFrom(std::uint64_t nObjectId, HostObject* pSource, std::uint32_t nTag);
  ResultCode RemoveAllObjectData(std::uint64_t nObjectId);
  ResultCode EnumFirstObject(std::uint32_t nDatabase, std::uint64_t* pnObjectId);
  ResultCode EnumNextObject(std::uint64_t nObjectId, std::uint64_t* pnNextId);
  ResultCode Compact(std::uint32_t nDatabase);

  // ---- The tables that the host calls (tables.cpp) ----

  static const LumbraOperations kOperations;
  static const LumbraLifecycle kLifecycle;

 private:
  friend class InitAttempt;

  static constexpr std::uint32_t kSlots = kFirstNamedDatabase;
  static constexpr std::uint64_t kNoHostObject = UINT64_MAX;

  // Answers the environments' question for the exact file sizes through the host, whose property system knows
  // it.
  class Owner final : public StorageOwner {
   public:
    explicit Owner(HostObject* pHandle) : m_pHandle(pHandle) {}
    bool ExactFileSizes() override;

   private:
    HostObject* m_pHandle;
  };

  // The database that an operation works on: a slot, or a named one that is held for as long.
  class Database {
   public:
    explicit Database(SegmentManager* pSlot) : m_pManager(pSlot) {}
    explicit Database(NamedDatabaseRef Named)
        : m_Named(std::move(Named)), m_pManager(m_Named.Get() == nullptr ? nullptr : &m_Named->Manager) {}

    bool IsOpen() const { return m_pManager != nullptr; }
    SegmentManager& Manager() const { return *m_pManager; }

   private:
    NamedDatabaseRef m_Named;
    SegmentManager* m_pManager;
  };

  // Takes a database's size out of the size total while the database changes, and puts back what it has become, on
  // every way out. One with a size limit of its own does not count. The main lock is held meanwhile.
  class SizeChange {
   public:
    SizeChange(std::uint64_t* pnTotal, SegmentManager& Manager);
    ~SizeChange();
    SizeChange(const SizeChange&) = delete;
    SizeChange& operator=(const SizeChange&) = delete;

   private:
    std::uint64_t* const m_pnTotal;  // null where the database does not count
    SegmentManager& m_Manager;
  };

  // The database of an id; not open for the id of a named one that nobody opened.
  Database FindDatabase(std::uint32_t nDatabase);
  NamedDatabaseRef FindNamed(std::uint32_t nDatabase);
  NamedDatabaseRef FindNamed(const char16_t* pName);
  NamedDatabaseRef NamedAt(std::size_t nPosition);  // in the list; null behind its end

  // lifecycle.cpp
  ResultCode OpenStore();
  ResultCode LoadIndexAndCheck();
  void RegisterWellKnownObjects();
  void RegisterHostName();
  void ReadCheckMode();
  HostText ReportFolder();
  HostText Expand(const char16_t* pPlaceholder, ResultCode* pnSent);
  void GiveBack();
  void UnregisterHandler();

  // properties.cpp
  static ResultCode TransferNumber(std::atomic<std::uint32_t>* pnField, PropertyAccessRecord* pRecord);
  static ResultCode TransferReadOnly(std::uint32_t nValue, PropertyAccessRecord* pRecord);
  static ResultCode TransferComment(PropertyAccessRecord* pRecord);
  ResultCode TransferReportFolder(PropertyAccessRecord* pRecord);
  ResultCode TransferWritesSuspended(PropertyAccessRecord* pRecord);

  // databases.cpp
  HostText DatabaseFolder(std::u16string_view Name);
  bool InitEnvironment(StorageEnvironment* pEnvironment, const HostText& Folder);
  ResultCode InitManager(SegmentManager* pManager, StorageEnvironment* pEnvironment, std::uint32_t nEventSize);
  ResultCode OpenNamed(const char16_t* pName, std::uint32_t nEventSize, std::uint32_t* pnDatabase);
  ResultCode KeepNamed(const NamedDatabaseRef& Named, const std::string* pNewKey);
  ResultCode SetOneDBParam(std::uint32_t nDatabase, std::uint32_t nKind, std::uint64_t nValue);
  ResultCode ClearOneDB(std::uint32_t nDatabase);
  template <class Operation>
  ResultCode OnEveryDatabase(Operation Do);
  void GetTotals(std::uint32_t* pnRecords, std::uint64_t* pnDataSize, std::uint64_t* pnTime);
  void RecomputeSizeTotal();
  ResultCode CheckLimits();
  ResultCode CheckLimitsNamed();
  bool IsOverGlobalLimit();
  void EnforceGlobalLimit();
  ResultCode DropOldestSegment(SegmentManager& Manager);

  // events.cpp
  ResultCode AddEventNamed(std::uint32_t nDatabase, const void* pData, std::uint32_t nSize, std::uint64_t* pnEventId);
  ResultCode Append(SegmentManager& Manager, std::uint32_t nDatabase, const void* pData, std::uint32_t nSize,
                    std::uint64_t* pnEventId);
  ResultCode AppendParents(const void* pEvents, std::uint32_t nCount, std::uint32_t nEventSize, HostObject* pParents);
  std::uint64_t ParentOf(std::uint64_t nObjectId);
  void MarkCorruptedOn(ResultCode nCode);
  void SaveMark();

  // objects.cpp, object_data.cpp
  std::uint64_t WithoutAlias(std::uint64_t nObjectId) const;
  std::uint64_t ParentWithin(std::uint32_t nDatabase, std::uint64_t nParentId) const;
  ResultCode ListAncestors(SegmentManager& Manager, std::uint64_t nObjectId, HostObject* pContainer);

  // In the order in which they are destroyed, last to first.
  Owner m_Owner{&Handle};
  DatabaseSlot m_Slots[kSlots];  // slot 0 is the system database
  os::CriticalSection m_MainLock;
  std::uint64_t m_nSizeTotal = 0;        // bytes of the databases 1 to 254 without a size limit of their own
  std::uint64_t m_nGlobalSizeLimit = 0;  // of the size total; 0: none
  std::atomic<std::uint64_t> m_nHostObjectId{kNoHostObject};
  HostText m_ReportFolder;  // propREPORT_FOLDER; empty: the host's "%Report%"
  std::atomic<std::uint32_t> m_nCheckMode{0};
  std::atomic<std::uint32_t> m_nEnvironmentFlag{0};
  std::atomic<std::uint32_t> m_nCorrupted{0};
  std::atomic<bool> m_bMarkUnsaved{false};  // damage was met, and the index file does not say so yet
  std::atomic<std::uint32_t> m_nExactFileSizes{0};
  std::atomic<std::uint32_t> m_nWritesSuspended{0};  // set under the exclusive lock
  ReaderWriterLock m_Lock;
  std::atomic<bool> m_bInitialized{false};  // never cleared
  bool m_bHandlerRegistered = false;
  bool m_bUsesSharedObjects = false;
  std::vector<NamedDatabaseRef> m_NamedDatabases;  // in order of opening
  std::u16string m_IndexPath;                      // of "g_db_id.dat"
  PersistentIndex m_Index;                         // what that file holds
};

}  // namespace lumbra
