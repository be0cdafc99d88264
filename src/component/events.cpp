// The component: adding, reading and rewriting events.
#include <cstring>

#include "component/lumbra.h"
#include "format/event_file.h"
#include "platform/trace.h"

namespace lumbra {

// ---- Adding -----------------------------------------------------------------------------------------------

ResultCode Lumbra::AddEvent(std::uint32_t nDatabase, const void* pData, std::uint32_t nSize, std::uint64_t* pnEventId) {
  Trace(&Handle, traceDetail, "lmb\tLumbra::AddEvent Database - %X", nDatabase);
  if (nDatabase == kSystemDatabase) return errNOT_SUPPORTED;
  const SharedHold Hold(m_Lock);
  if (m_nWritesSuspended != 0) return errREAD_ONLY;
  return m_Databases.Add(nDatabase, pData, nSize, [&](ResultCode nCode, std::uint64_t nLocalId) {
    const std::uint64_t nEventId = WithDatabase(nLocalId, nDatabase);
    if (pnEventId != nullptr) *pnEventId = nEventId;
    if (nDatabase < kFirstNamedDatabase) {
      Trace(&Handle, traceRoutine, "lmb\tAddEvent(%X,%d,%I64X) = %terr", nDatabase, nSize, nEventId, nCode);
    } else {
      Trace(&Handle, traceRoutine, "lmb\tAddEventNamed(%X,%d,%I64X) = %terr", nDatabase, nSize, nEventId, nCode);
    }
    return nCode;
  });
}

// ---- Reading ----------------------------------------------------------------------------------------------

ResultCode Lumbra::GetEvents(std::uint32_t nDatabase, std::uint64_t nStart, void* pBuffer, std::uint32_t nBufferSize,
                             std::uint32_t nCount, std::uint32_t* pnRead, HostObject* pParents) {
  const SharedHold Hold(m_Lock);
  // A top byte of 0xFF belongs to a position counted from the end, not to a database.
  if (const std::uint32_t nNamed = DatabaseOfId(nStart); nNamed != 0 && nNamed != kAllDatabases) {
    nDatabase = nNamed;
    nStart = WithoutDatabase(nStart);
  }
  const Database Found = m_Databases.Find(nDatabase);
  if (!Found.IsOpen()) return errPARAMETER_INVALID;
  std::uint32_t nRead = 0;
  ResultCode nCode =
      Found.Manager().GetEvents(static_cast<std::uint32_t>(nStart), static_cast<std::int32_t>(nStart >> 32), pBuffer,
                                nCount, nBufferSize, &nRead);
  if (pnRead != nullptr) *pnRead = nRead;
  MarkCorruptedOn(nCode);
  if (Succeeded(nCode) && pnRead != nullptr && binding::IsContainer(pParents)) {
    const ResultCode nAppended = AppendParents(pBuffer, nRead, Found.Manager().GetEventSize(), pParents);
    if (Failed(nAppended)) nCode = nAppended;
  }
  Trace(&Handle, traceRoutine, "lmb\tGetEvents(%X,%I64X,%d,%d,%d) = %terr", nDatabase, nStart, nBufferSize, nCount,
        pnRead == nullptr ? 0 : nRead, nCode);
  return nCode;
}

// One value for each event: the parent of the object that the event names, or 0.
ResultCode Lumbra::AppendParents(const void* pEvents, std::uint32_t nCount, std::uint32_t nEventSize,
                                 HostObject* pParents) {
  const auto* pEvent = static_cast<const std::uint8_t*>(pEvents);
  const bool bHasObjectId = nEventSize >= kObjectIdInEvent + sizeof(std::uint64_t);
  for (std::uint32_t i = 0; i < nCount; ++i, pEvent += nEventSize) {
    std::uint64_t nObjectId = 0;
    if (bHasObjectId) std::memcpy(&nObjectId, pEvent + kObjectIdInEvent, sizeof(nObjectId));
    const ResultCode nCode = binding::AppendToContainer(pParents, kParentList, ParentOf(nObjectId));
    if (Failed(nCode)) return nCode;
  }
  return errOK;
}

std::uint64_t Lumbra::ParentOf(std::uint64_t nObjectId) {
  const std::uint32_t nDatabase = DatabaseOfId(nObjectId);
  const std::uint64_t nLocalId = WithoutDatabase(nObjectId);
  const Database Found = m_Databases.Find(nDatabase);
  if (!Found.IsOpen()) return 0;
  std::uint64_t nParent = 0;
  const ResultCode nCode = Found.Manager().GetObjectParent(nLocalId, &nParent, nullptr, nullptr);
  if (Failed(nCode) || nParent == 0 || nParent == nLocalId) return 0;
  return WithDatabase(nParent, nDatabase);
}

// Damaged data marks the whole store, once: the property, and the index file for the next start. While that fails it is
// tried again whenever damage is met, at each flush, and at the shutdown.
void Lumbra::MarkCorruptedOn(ResultCode nCode) {
  if (nCode != errDATA_CORRUPTED) return;
  if (m_nCorrupted.exchange(1) == 0) m_Databases.NeedMark(true);
  m_Databases.SaveMark();
}

// ---- Rewriting --------------------------------------------------------------------------------------------

ResultCode Lumbra::UpdateEvent(std::uint64_t nEventId, const void* pData, std::uint32_t nSize) {
  const SharedHold Hold(m_Lock);
  if (m_nWritesSuspended != 0) return errREAD_ONLY;
  const Database Found = m_Databases.Find(DatabaseOfId(nEventId));
  if (!Found.IsOpen()) return errPARAMETER_INVALID;
  const std::uint64_t nLocalId = WithoutDatabase(nEventId);
  const ResultCode nCode =
      Found.Manager().UpdateEvent(static_cast<std::uint32_t>(nLocalId), SegmentOfId(nEventId), pData, nSize);
  Trace(&Handle, traceRoutine, "lmb\tUpdateEvent(%I64X,%u) = %terr", nLocalId, nSize, nCode);
  return nCode;
}

}  // namespace lumbra
