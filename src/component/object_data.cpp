// The component: data blocks of objects, as bytes and as objects of the host.
#include "component/lumbra.h"
#include "events/circle_watch.h"
#include "platform/io_priority.h"
#include "platform/scratch_buffer.h"
#include "platform/trace.h"

namespace lumbra {
namespace {

// What most host objects are saved in, without an allocation.
using ObjectBuffer = ScratchBuffer<512>;

}  // namespace

// ---- Bytes ------------------------------------------------------------------------------------------------

ResultCode Lumbra::GetObjectData(std::uint64_t nObjectId, void* pBuffer, std::uint32_t nBufferSize,
                                 std::uint32_t* pnDataSize, std::uint32_t nTag) {
  nObjectId = WithoutAlias(nObjectId);
  const SharedHold Hold(m_Lock);
  const IoPriorityGuard Guard;
  const Database Found = m_Databases.Find(DatabaseOfId(nObjectId));
  if (!Found.IsOpen()) return errPARAMETER_INVALID;
  const std::uint64_t nLocalId = WithoutDatabase(nObjectId);
  const ResultCode nCode = Found.Manager().GetObjectData(nLocalId, pBuffer, nBufferSize, pnDataSize, nTag);
  MarkCorruptedOn(nCode);
  Trace(&Handle, traceRoutine, "lmb\tGetObjectData(%I64X,%p,%d,%p,%d) = %terr", nLocalId, pBuffer, nBufferSize,
        pnDataSize, nTag, nCode);
  return nCode;
}

ResultCode Lumbra::SetObjectData(std::uint64_t nObjectId, const void* pData, std::uint32_t nSize, std::uint32_t nTag) {
  nObjectId = WithoutAlias(nObjectId);
  const SharedHold Hold(m_Lock);
  if (m_nWritesSuspended != 0) return errREAD_ONLY;
  const IoPriorityGuard Guard;
  const Database Found = m_Databases.Find(DatabaseOfId(nObjectId));
  if (!Found.IsOpen()) return errPARAMETER_INVALID;
  const std::uint64_t nLocalId = WithoutDatabase(nObjectId);
  const ResultCode nCode = Found.Manager().SetObjectData(nLocalId, pData, nSize, nTag);
  MarkCorruptedOn(nCode);
  Trace(&Handle, traceRoutine, "lmb\tSetObjectData(%I64X,%p,%d,%d) = %terr", nLocalId, pData, nSize, nTag, nCode);
  return nCode;
}

ResultCode Lumbra::RemoveAllObjectData(std::uint64_t nObjectId) {
  nObjectId = WithoutAlias(nObjectId);
  const SharedHold Hold(m_Lock);
  if (m_nWritesSuspended != 0) return errREAD_ONLY;
  const Database Found = m_Databases.Find(DatabaseOfId(nObjectId));
  if (!Found.IsOpen()) return errPARAMETER_INVALID;
  const std::uint64_t nLocalId = WithoutDatabase(nObjectId);
  const ResultCode nCode = Found.Manager().RemoveAllObjectData(nLocalId);
  Trace(&Handle, traceRoutine, "lmb\tLumbra::RemoveAllObjectData(%I64X) = %terr", nLocalId, nCode);
  return nCode;
}

// ---- Objects of the host ----------------------------------------------------------------------------------

ResultCode Lumbra::GetObjectDataInto(std::uint64_t nObjectId, HostObject* pTarget, std::uint32_t nTag) {
  if (pTarget == nullptr) return errPARAMETER_INVALID;
  nObjectId = WithoutAlias(nObjectId);
  const SharedHold Hold(m_Lock);
  const Database Found = m_Databases.Find(DatabaseOfId(nObjectId));
  if (!Found.IsOpen()) return errPARAMETER_INVALID;
  if (binding::IsContainer(pTarget)) return ListAncestors(Found.Manager(), nObjectId, pTarget);

  const std::uint64_t nLocalId = WithoutDatabase(nObjectId);
  ObjectBuffer Buffer;
  Buffer.Resize(ObjectBuffer::kInline);
  std::uint32_t nSize = 0;
  ResultCode nCode = Found.Manager().GetObjectData(nLocalId, Buffer.Get(), Buffer.size(), &nSize, nTag);
  if (nCode == errBUFFER_TOO_SMALL) {  // tried once more, with the size that was reported
    if (!Buffer.Resize(nSize)) return errOUT_OF_MEMORY;
    nCode = Found.Manager().GetObjectData(nLocalId, Buffer.Get(), Buffer.size(), &nSize, nTag);
  }
  MarkCorruptedOn(nCode);
  return Failed(nCode) ? nCode : binding::LoadFromBytes(pTarget, Buffer.Get(), nSize);
}

// An object that cannot be read ends the way up, with a hash of 0.
ResultCode Lumbra::ListAncestors(SegmentManager& Manager, std::uint64_t nObjectId, HostObject* pContainer) {
  const std::uint32_t nDatabase = DatabaseOfId(nObjectId);
  std::uint64_t nCurrent = WithoutDatabase(nObjectId);
  for (CircleWatch Circle; nCurrent != 0;) {
    if (Circle.WasHere(nCurrent)) {
      MarkCorruptedOn(errDATA_CORRUPTED);
      return errDATA_CORRUPTED;
    }
    std::uint64_t nParent = 0;
    std::uint64_t nHash = 0;
    std::uint8_t nType = 0;
    ResultCode nCode = Manager.GetObjectParent(nCurrent, &nParent, &nHash, &nType);
    MarkCorruptedOn(nCode);
    if (Failed(nCode)) nParent = nHash = nType = 0;
    nCode = errOK;
    if (nType == typeFile) {
      nCode = binding::ClearContainer(pContainer);
    } else {
      if (nParent != 0) nCode = binding::AppendToContainer(pContainer, kParentList, WithDatabase(nParent, nDatabase));
      if (Succeeded(nCode)) nCode = binding::AppendToContainer(pContainer, kHashList, nHash);
    }
    if (Failed(nCode)) return nCode;  // rather than lists with a gap
    nCurrent = WithoutDatabase(nParent);
  }
  return errOK;
}

ResultCode Lumbra::SetObjectDataFrom(std::uint64_t nObjectId, HostObject* pSource, std::uint32_t nTag) {
  if (pSource == nullptr) return errPARAMETER_INVALID;
  nObjectId = WithoutAlias(nObjectId);
  const SharedHold Hold(m_Lock);
  if (m_nWritesSuspended != 0) return errREAD_ONLY;
  const Database Found = m_Databases.Find(DatabaseOfId(nObjectId));
  if (!Found.IsOpen()) return errPARAMETER_INVALID;

  ObjectBuffer Buffer;
  Buffer.Resize(ObjectBuffer::kInline);
  std::uint32_t nNeeded = 0;
  ResultCode nCode = binding::SaveToBytes(pSource, Buffer.Get(), Buffer.size(), &nNeeded);
  if (nCode == errBUFFER_TOO_SMALL) {  // tried once more, with the size that was asked for
    if (!Buffer.Resize(nNeeded)) return errOUT_OF_MEMORY;
    nCode = binding::SaveToBytes(pSource, Buffer.Get(), Buffer.size(), &nNeeded);
  }
  if (Failed(nCode)) return nCode;
  if (nNeeded > Buffer.size()) return errRESULT_INVALID;  // a host that says it wrote more than there was room for
  const void* const pData = nNeeded == 0 ? nullptr : Buffer.Get();
  nCode = Found.Manager().SetObjectData(WithoutDatabase(nObjectId), pData, nNeeded, nTag);
  MarkCorruptedOn(nCode);
  return nCode;
}

}  // namespace lumbra
