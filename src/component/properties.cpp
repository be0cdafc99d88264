// The component: its properties.
#include <algorithm>
#include <cstring>

#include "component/lumbra.h"

namespace lumbra {
namespace {

constexpr char kComment[] = "Lumbra";

// Writes a value of nSize bytes into the record's buffer, if it has one; the running count tells the size
// either way.
ResultCode PutValue(PropertyAccessRecord* pRecord, const void* pValue, std::uint32_t nSize) {
  pRecord->nCount += nSize;
  if (pRecord->pBuffer == nullptr) return errOK;
  if (pRecord->nSize < pRecord->nCount) return errBUFFER_TOO_SMALL;
  if (nSize != 0) std::memcpy(pRecord->pBuffer, pValue, nSize);
  pRecord->pBuffer = static_cast<char*>(pRecord->pBuffer) + nSize;
  return errOK;
}

// Null for an id that is no property's.
const LumbraPropertyInfo* FindProperty(std::uint32_t nPropertyId) {
  const auto* const pFound = std::find_if(std::begin(kProperties), std::end(kProperties),
                                          [&](const LumbraPropertyInfo& Info) { return Info.nId == nPropertyId; });
  return pFound == std::end(kProperties) ? nullptr : pFound;
}

}  // namespace

ResultCode Lumbra::PropertyAccess(std::uint32_t nPropertyId, PropertyAccessRecord* pRecord) {
  const LumbraPropertyInfo* const pInfo = FindProperty(nPropertyId);
  if (pInfo == nullptr) return errPROPERTY_NOT_HANDLED;
  const bool bFrozen = pInfo->Set == LumbraPropertySet::UntilInitialized && m_bInitialized;
  if (bFrozen && pRecord->nMode == propertySet) return errPROPERTY_READ_ONLY;
  switch (pInfo->nId) {
    case propCHECK_MODE:
      return TransferNumber(&m_nCheckMode, pRecord);
    case propENVIRONMENT_FLAG:
      return TransferNumber(&m_nEnvironmentFlag, pRecord);
    case propCORRUPTED:
      return TransferReadOnly(m_nCorrupted, pRecord);
    case propEXACT_FILE_SIZES:
      return TransferNumber(&m_nExactFileSizes, pRecord);
    case propGROUP_READABLE:
      return TransferNumber(&m_nGroupReadable, pRecord);
    case propOWN_FOLDERS:
      return TransferNumber(&m_nOwnFolders, pRecord);
    case propOPEN_SEGMENTS:
      return TransferNumber(&m_nOpenSegments, pRecord);
    case propCACHE_SIZE:
      return TransferNumber(&m_nCacheSize, pRecord);
    case propWRITES_SUSPENDED:
      return TransferWritesSuspended(pRecord);
    case propREPORT_FOLDER:
      return TransferReportFolder(pRecord);
    case propINTERFACE_COMMENT:
      return TransferComment(pRecord);
    case propINTERFACE_CONSTANT:
      return TransferReadOnly(kInterfaceConstant, pRecord);
  }
  return errPROPERTY_NOT_HANDLED;
}

ResultCode Lumbra::TransferNumber(std::atomic<std::uint32_t>* pnField, PropertyAccessRecord* pRecord) {
  std::uint32_t nValue = *pnField;
  switch (pRecord->nMode) {
    case propertyProbe:
      return errOK;
    case propertyGet:
      return PutValue(pRecord, &nValue, sizeof(nValue));
    case propertySet:
    case propertyCodePage:  // a number has none; the host's cursor takes the same road as for a set
      if (pRecord->pBuffer == nullptr) return errPARAMETER_INVALID;
      std::memcpy(&nValue, pRecord->pBuffer, sizeof(nValue));
      *pnField = nValue;
      pRecord->nCount += static_cast<std::uint32_t>(sizeof(nValue));
      pRecord->pBuffer = static_cast<char*>(pRecord->pBuffer) + sizeof(nValue);
      return errOK;
    default:
      return errPROPERTY_NOT_HANDLED;
  }
}

ResultCode Lumbra::TransferReadOnly(std::uint32_t nValue, PropertyAccessRecord* pRecord) {
  switch (pRecord->nMode) {
    case propertyProbe:
      return errOK;
    case propertyGet:
      return PutValue(pRecord, &nValue, sizeof(nValue));
    default:
      return errPROPERTY_NOT_HANDLED;
  }
}

// Exclusive for a set: operations that run finish first, and none runs while the value changes.
ResultCode Lumbra::TransferWritesSuspended(PropertyAccessRecord* pRecord) {
  if (pRecord->nMode == propertySet) {
    const ExclusiveHold Hold(m_Lock);
    return TransferNumber(&m_nWritesSuspended, pRecord);
  }
  const SharedHold Hold(m_Lock);
  return TransferNumber(&m_nWritesSuspended, pRecord);
}

ResultCode Lumbra::TransferReportFolder(PropertyAccessRecord* pRecord) {
  const os::Hold Hold(m_FolderLock);
  switch (pRecord->nMode) {
    case propertyProbe:
      return errOK;
    case propertyCodePage:
      pRecord->nCodePage = kCodePageUtf16;
      return errOK;
    case propertyGet: {
      const bool bEmpty = m_ReportFolder.Empty();
      const auto nUnits = static_cast<std::uint32_t>(bEmpty ? 0 : m_ReportFolder.Length() + 1);
      return PutValue(pRecord, m_ReportFolder.Text(), nUnits * static_cast<std::uint32_t>(sizeof(char16_t)));
    }
    case propertySet: {
      if (pRecord->pBuffer == nullptr && pRecord->nSize != 0) return errPARAMETER_INVALID;
      HostText Folder;
      Folder.AppendConverted(pRecord->pBuffer, pRecord->nSize, pRecord->nCodePage);
      m_ReportFolder = std::move(Folder);
      pRecord->nCount += pRecord->nSize;
      pRecord->pBuffer = static_cast<char*>(pRecord->pBuffer) + pRecord->nSize;
      return errOK;
    }
    default:
      return errPROPERTY_NOT_HANDLED;
  }
}

ResultCode Lumbra::TransferComment(PropertyAccessRecord* pRecord) {
  switch (pRecord->nMode) {
    case propertyProbe:
      return errOK;
    case propertyCodePage:
      pRecord->nCodePage = kCodePage8Bit;
      return errOK;
    case propertyGet:
      return PutValue(pRecord, kComment, sizeof(kComment));
    case propertySet: {  // accepted and ignored
      if (pRecord->pBuffer == nullptr) return errOK;
      auto* const pText = static_cast<char*>(pRecord->pBuffer);
      pRecord->pBuffer = pText + strnlen(pText, sizeof(kComment) - 1);
      return errOK;
    }
    default:
      return errPROPERTY_NOT_HANDLED;
  }
}

}  // namespace lumbra
