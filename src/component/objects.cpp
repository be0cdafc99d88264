// The component: finding, creating, naming and enumerating objects, and compacting the shared ones.
#include <memory>

#include "component/lumbra.h"
#include "component/shared_objects.h"
#include "format/file_names.h"
#include "platform/io_priority.h"
#include "platform/trace.h"

namespace lumbra {
namespace {

// The types whose names the trace prints as text.
bool IsPathType(std::uint32_t nType) {
  return nType >= typeFile && nType <= typeRegistryValue;
}

}  // namespace

// The id that an argument means: the host's name object for the alias, otherwise the argument itself.
std::uint64_t Lumbra::WithoutAlias(std::uint64_t nObjectId) const {
  return nObjectId == kHostObjectAlias ? m_nHostObjectId.load() : nObjectId;
}

// A parent's id as the database knows it. One of another database stays as it is, so that the store refuses it: its
// number within this one would be somebody else's.
std::uint64_t Lumbra::ParentWithin(std::uint32_t nDatabase, std::uint64_t nParentId) const {
  nParentId = WithoutAlias(nParentId);
  const std::uint32_t nOwner = DatabaseOfId(nParentId);
  return nOwner == 0 || nOwner == nDatabase ? WithoutDatabase(nParentId) : nParentId;
}

ResultCode Lumbra::FindObjectSimple(std::uint32_t nDatabase, std::uint32_t nType, const char16_t* pName,
                                    std::int32_t nNameSize, std::uint32_t nCreate, std::uint32_t nFlagsOverride,
                                    std::uint64_t* pnObjectId) {
  return FindObject(nDatabase, nType, pName, nNameSize, nCreate, nFlagsOverride, 0, pnObjectId);
}

ResultCode Lumbra::FindObject(std::uint32_t nDatabase, std::uint32_t nType, const char16_t* pName,
                              std::int32_t nNameSize, std::uint32_t nCreate, std::uint32_t nFlagsOverride,
                              std::uint64_t nParentId, std::uint64_t* pnObjectId) {
  const SharedHold Hold(m_Lock);
  if (m_nWritesSuspended != 0 && nCreate != 0) return errREAD_ONLY;
  const IoPriorityGuard Guard;
  const Database Found = m_Databases.Find(nDatabase);
  if (!Found.IsOpen()) return errPARAMETER_INVALID;
  if (pnObjectId != nullptr) *pnObjectId = 0;                    // also when something is thrown
  if (nNameSize < kZeroTerminated) return errPARAMETER_INVALID;  // no size at all, which could not even be traced

  const StoreChoice Choice = nDatabase == kSystemDatabase ? StoreChoice::Global : StoreChoice::Own;
  const ObjectQuery Query{static_cast<std::uint8_t>(nType),      nFlagsOverride, pName,
                          static_cast<std::uint32_t>(nNameSize), nCreate,        ParentWithin(nDatabase, nParentId)};
  std::uint64_t nId = 0;
  const ResultCode nCode = Found.Manager().FindObject(Choice, Query, &nId);
  MarkCorruptedOn(nCode);
  if (nId == m_nHostObjectId) nId = kHostObjectAlias;
  if (IsPathType(nType)) {
    Trace(&Handle, traceRoutine, "lmb\tFindObject(%X,%X,%X,%.*S,%d,%d,%I64X,%I64X) = %terr", nDatabase, nType,
          nFlagsOverride, nNameSize / 2, pName, nNameSize, nCreate, nParentId, nId, nCode);
  } else {
    const auto nNameAsNumber = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(pName));
    Trace(&Handle, traceRoutine, "lmb\tFindObject(%X,%X,%X,%08X,%d,%d,%I64X,%I64X) = %terr", nDatabase, nType,
          nFlagsOverride, nNameAsNumber, nNameSize, nCreate, nParentId, nId, nCode);
  }
  if (pnObjectId != nullptr) *pnObjectId = Failed(nCode) ? 0 : WithDatabase(nId, nDatabase);
  return nCode;
}

ResultCode Lumbra::GetObjectName(std::uint64_t nObjectId, char16_t* pBuffer, std::uint32_t nBufferSize,
                                 std::uint32_t* pnNameSize, std::uint32_t nFlagsOverride, std::uint32_t* pnType) {
  nObjectId = WithoutAlias(nObjectId);
  const SharedHold Hold(m_Lock);
  const IoPriorityGuard Guard;
  const std::uint32_t nDatabase = DatabaseOfId(nObjectId);
  const Database Found = m_Databases.Find(nDatabase);
  if (!Found.IsOpen()) return errPARAMETER_INVALID;
  if (pBuffer == nullptr && nBufferSize == 0 && pnType == nullptr) return errOK;

  const std::uint64_t nLocalId = WithoutDatabase(nObjectId);
  std::uint32_t nOwnSize = 0;
  std::uint32_t& nNameSize = pnNameSize != nullptr ? *pnNameSize : nOwnSize;
  std::uint8_t nType = 0;
  const ResultCode nCode =
      Found.Manager().GetObjectName(nLocalId, pBuffer, nBufferSize, &nNameSize, nFlagsOverride, &nType);
  MarkCorruptedOn(nCode);
  if (Failed(nCode)) {
    Trace(&Handle, traceFailure, "lmb\tGetObjectName(%X:%I64X) failed %terr", nDatabase, nLocalId, nCode);
  } else if (pBuffer != nullptr && IsPathType(nType)) {
    const std::uint32_t nUnits = nNameSize / 2;
    Trace(&Handle, traceRoutine, "lmb\tGetObjectName(%X:%I64X) => %*.*S", nDatabase, nLocalId, nUnits, nUnits,
          static_cast<const char16_t*>(pBuffer));
  } else if (pBuffer != nullptr) {
    Trace(&Handle, traceRoutine, "lmb\tGetObjectName(%X:%I64X) => type %u", nDatabase, nLocalId, std::uint32_t{nType});
  }
  if (pnType != nullptr) *pnType = nType;
  return nCode;
}

// ---- Enumeration ------------------------------------------------------------------------------------------

ResultCode Lumbra::EnumFirstObject(std::uint32_t nDatabase, std::uint64_t* pnObjectId) {
  if (pnObjectId == nullptr) return errPARAMETER_INVALID;
  const SharedHold Hold(m_Lock);
  const Database Found = m_Databases.Find(nDatabase);
  if (!Found.IsOpen()) return errPARAMETER_INVALID;
  const ResultCode nCode = Found.Manager().EnumFirstObject();
  if (Succeeded(nCode)) *pnObjectId = WithDatabase(*pnObjectId, nDatabase);
  return nCode;
}

ResultCode Lumbra::EnumNextObject(std::uint64_t nObjectId, std::uint64_t* pnNextId) {
  nObjectId = WithoutAlias(nObjectId);
  const SharedHold Hold(m_Lock);
  const std::uint32_t nDatabase = DatabaseOfId(nObjectId);
  const Database Found = m_Databases.Find(nDatabase);
  if (!Found.IsOpen()) return errPARAMETER_INVALID;
  const ResultCode nCode = Found.Manager().EnumNextObject(SegmentOfId(nObjectId));
  if (Succeeded(nCode) && pnNextId != nullptr) *pnNextId = WithDatabase(*pnNextId, nDatabase);
  return nCode;
}

// ---- Compaction -------------------------------------------------------------------------------------------

// Beside the live store, which goes on with its own files: nothing is renamed, so a pass that ends early costs nothing.
ResultCode Lumbra::Compact(std::uint32_t nDatabase) {
  if (nDatabase != kSystemDatabase) return errPARAMETER_INVALID;
  const SharedHold Hold(m_Lock);
  if (m_nWritesSuspended != 0) return errREAD_ONLY;
  return m_Databases.Alone([this] { return CompactSharedObjects(); });
}

ResultCode Lumbra::CompactSharedObjects() {
  if (!m_bUsesSharedObjects) return errSTORE_NOT_INITIALIZED;
  std::unique_ptr<StorageFile> pNewIds;
  std::unique_ptr<StorageFile> pNewData;
  StorageEnvironment& Environment = *SharedObjects::Environment();
  const bool bReady = Succeeded(Environment.OpenFile(kCompactedIdsFile, 0, true, true, &pNewIds)) &&
                      Succeeded(Environment.OpenFile(kCompactedDataFile, 0, true, true, &pNewData)) &&
                      pNewIds->SetSize(0) && pNewData->SetSize(0);
  if (!bReady) return errWRITE_FAILED;

  Trace(&Handle, traceNotable, "lmb\tAbout to begin compacting global database");
  const ResultCode nCode = SharedObjects::Store()->Compact(pNewIds, *pNewData);
  if (Failed(nCode)) {
    Trace(&Handle, traceFailure, "lmb\tCompact finished with error %terr", nCode);
    return nCode;
  }
  Trace(&Handle, traceNotable, "lmb\tCompact finished successfully (without renaming)");
  return errOK;
}

}  // namespace lumbra
