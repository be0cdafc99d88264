// The component: one instance of the store, as the host sees it.
//
// It shares one object store with every other instance of the process, and offers the 19 operations of lumbra/lumbra.h,
// the lifecycle and the properties. The declarations there are the contract of every public operation here; the
// interface table (tables.cpp) turns whatever is thrown below into a code. What an operation is stands here: it takes
// the reader/writer lock (shared; exclusive to change propWRITES_SUSPENDED), finds its database, has the work done,
// traces and answers. The databases themselves, and the main lock, are in databases.h.
#pragma once

#include <atomic>
#include <cstdint>

#include "component/databases.h"
#include "component/host_text.h"
#include "component/hosted_instance.h"
#include "lumbra/lumbra.h"
#include "platform/os.h"
#include "platform/rw_lock.h"

namespace lumbra {

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

  // ---- Databases (database_operations.cpp) ----

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

  static constexpr std::uint64_t kNoHostObject = UINT64_MAX;

  // Answers what the databases ask of their instance; the exact file sizes through the host, whose property system
  // knows them.
  class Owner final : public DatabasesOwner {
   public:
    explicit Owner(Lumbra& Instance) : m_Instance(Instance) {}
    HostObject* Handle() override { return &m_Instance.Handle; }
    HostText StoreFolder() override { return m_Instance.ReportFolder(); }
    OpenSettings Settings() override;
    bool ExactFileSizes() override;
    os::FolderRules RulesOfFolders() override;

   private:
    Lumbra& m_Instance;
  };

  // lifecycle.cpp
  ResultCode OpenStore();
  ResultCode LoadIndexAndCheck(const Database& System);
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

  // database_operations.cpp
  ResultCode SetOneDBParam(std::uint32_t nDatabase, std::uint32_t nKind, std::uint64_t nValue) REQUIRES_SHARED(m_Lock);
  ResultCode ClearOneDB(std::uint32_t nDatabase) REQUIRES_SHARED(m_Lock);

  // events.cpp
  ResultCode AppendParents(const void* pEvents, std::uint32_t nCount, std::uint32_t nEventSize, HostObject* pParents);
  std::uint64_t ParentOf(std::uint64_t nObjectId);
  void MarkCorruptedOn(ResultCode nCode);

  // objects.cpp, object_data.cpp
  std::uint64_t WithoutAlias(std::uint64_t nObjectId) const;
  std::uint64_t ParentWithin(std::uint32_t nDatabase, std::uint64_t nParentId) const;
  ResultCode ListAncestors(SegmentManager& Manager, std::uint64_t nObjectId, HostObject* pContainer);
  ResultCode CompactSharedObjects();

  // In the order in which they are destroyed, last to first.
  Owner m_Owner{*this};
  os::CriticalSection m_FolderLock;                  // taken alone, and below the main lock
  HostText m_ReportFolder GUARDED_BY(m_FolderLock);  // propREPORT_FOLDER; empty: the host's "%Report%"
  std::atomic<std::uint64_t> m_nHostObjectId{kNoHostObject};
  std::atomic<std::uint32_t> m_nCheckMode{0};
  std::atomic<std::uint32_t> m_nEnvironmentFlag{0};
  std::atomic<std::uint32_t> m_nCorrupted{0};
  std::atomic<std::uint32_t> m_nExactFileSizes{0};
  std::atomic<std::uint32_t> m_nGroupReadable{0};
  std::atomic<std::uint32_t> m_nOwnFolders{0};
  std::atomic<std::uint32_t> m_nOpenSegments{OpenSegments::kUsualLimit};
  std::atomic<std::uint32_t> m_nCacheSize{BlockBudget::kUsualKib};
  ReaderWriterLock m_Lock;
  std::atomic<std::uint32_t> m_nWritesSuspended GUARDED_BY(m_Lock){0};
  std::atomic<bool> m_bInitialized{false};  // never cleared
  bool m_bHandlerRegistered = false;
  bool m_bUsesSharedObjects = false;
  Databases m_Databases{m_Owner};
};

}  // namespace lumbra
