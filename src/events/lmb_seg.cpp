#include "events/lmb_seg.h"

#include <algorithm>
#include <new>

#include "format/file_names.h"
#include "platform/failed_step.h"
#include "platform/os.h"
#include "platform/result.h"

namespace lumbra {
namespace {

constexpr std::uint64_t kFileTimeUnitsPerSecond = 10000000;

// Whether the refusal of a file will stand. Any other may pass: somebody holds the file, or the process has run out of
// descriptors or memory.
bool IsAboutTheFile(ResultCode nRefused) {
  return nRefused == errACCESS_DENIED;
}

}  // namespace

ResultCode Segment::Init(StorageEnvironment* pEnv, std::uint32_t nEventSize, Files Which, std::uint32_t nNumber,
                         ObjectDB* pGlobalObjects) {
  if (m_bOpened) return errALREADY_DONE;
  if (pEnv == nullptr) return errPARAMETER_INVALID;
  m_nEventSize = nEventSize;
  m_nNumber = nNumber;
  m_pEnv = pEnv;
  m_pGlobalObjects = pGlobalObjects;
  m_bWritable = true;
  m_bCreate = Which == Files::New;
  if (!m_bCreate) return m_pEnv->GetFileCreationTime(kEventsFile, nNumber, &m_nCreationTime);
  // A new segment never inherits records of an older one with its number.
  if (nNumber != 0) (void)m_pEnv->DeleteFiles(u"*.*", nNumber);  // answers errOK always
  return Open();
}

bool Segment::IsUnfinished() {
  std::uint64_t nSize = 0;
  const auto SizeOf = [&](const char16_t* pName) {
    return m_pEnv->GetFileSize(pName, m_nNumber, &nSize);
  };
  const ResultCode nIds = SizeOf(kIdsFile);
  if (nIds == errNOT_FOUND) return true;
  if (Failed(nIds) || RecordCountOfSize(nSize, sizeof(tODB_ID_ENTRY)) != 0) return false;
  return SizeOf(kTreeFile) == errNOT_FOUND || SizeOf(kDataFile) == errNOT_FOUND;
}

// ---- Opening ----------------------------------------------------------------------------------------------

ResultCode Segment::Open() {
  if (m_bOpened) return errOK;
  if (m_bFailed) return errOPEN_FAILED;
  const OpenAttempt Attempt(this);
  ResultCode nCode = OpenEvents();
  if (Succeeded(nCode)) nCode = OpenObjects();
  if (Failed(nCode)) return nCode;
  if (m_pGlobalObjects == nullptr) m_pGlobalObjects = m_pObjects.get();
  m_bOpened = m_bWasOpen = true;
  return errOK;
}

bool Segment::Close() {
  if (!m_bOpened) return true;
  m_pEvents->Flush();
  (void)m_pObjects->Flush();  // answer errOK always; what fails is traced
  if (!m_pEvents->IsFlushed() || !m_pObjects->IsFlushed()) return false;
  if (m_pGlobalObjects == m_pObjects.get()) m_pGlobalObjects = nullptr;
  m_pEvents.reset();
  m_pObjects.reset();
  m_bOpened = m_bCreate = false;  // what is missing from now on is lost
  return true;
}

// Closes what was opened, unless all was: also when something is thrown on the way, as the next attempt would meet our
// own hold on a file.
Segment::OpenAttempt::~OpenAttempt() {
  if (m_pSegment->m_bOpened) return;
  m_pSegment->m_pObjects.reset();
  m_pSegment->m_pEvents.reset();
  if (m_pSegment->m_bCreate) m_pSegment->Discard();  // there is nothing in it yet
}

ResultCode Segment::OpenEvents() {
  std::unique_ptr<StorageFile> pFile;
  const ResultCode nCode = m_pEnv->OpenFile(kEventsFile, m_nNumber, m_bCreate, m_bWritable, &pFile);
  if (Failed(nCode)) {
    TraceFailedStep(nCode);
    m_bFailed = IsAboutTheFile(nCode);
    if (nCode == errOBJECT_NOT_FOUND && IsGone(kEventsFile)) LeaveChain();
    return nCode;
  }
  // Once: where the file system keeps no time of birth, what stands for it moves with the file.
  if (!m_bWasOpen && !pFile->GetCreationTime(&m_nCreationTime)) return FailedStep(errREAD_FAILED);
  m_pEvents.reset(new (std::nothrow) PlainDB(&m_Blocks));
  if (m_pEvents == nullptr) return FailedStep(errOUT_OF_MEMORY);
  if (!m_pEvents->Open(pFile, m_nEventSize, false)) {
    TraceFailedStep(errWRITE_FAILED);
    return errOPEN_FAILED;
  }
  return errOK;
}

ResultCode Segment::OpenObjects() {
  m_nObjectsSize.reset();
  m_pObjects.reset(new (std::nothrow) ObjectDB(m_bCheckMode));
  if (m_pObjects == nullptr) return FailedStep(errOUT_OF_MEMORY);
  ObjectFiles Opened;
  bool bGone = false;
  const ResultCode nRefused = OpenObjectFiles(&Opened, &bGone);
  const ResultCode nCode = m_pObjects->Open(m_nNumber, Opened, TreeHead::Small);
  if (Succeeded(nCode)) return errOK;
  TraceFailedStep(Failed(nRefused) ? nRefused : nCode);
  m_bFailed = IsAboutTheFile(nRefused);
  // What the system did not let us open or read, because somebody holds it or the process has run out of something,
  // may be good.
  if (bGone && Succeeded(nRefused)) {
    Opened = ObjectFiles();
    LeaveChain();
    Discard();
  }
  return errOPEN_FAILED;
}

// A file that is missing, or that cannot be opened, is handed on as absent, and the store refuses it. *pbGone tells
// whether one is missing, the answer why the system refused one that may be there.
ResultCode Segment::OpenObjectFiles(ObjectFiles* pFiles, bool* pbGone) {
  ResultCode nRefused = errOK;
  const auto OpenFile = [&](const char16_t* pName, std::unique_ptr<StorageFile>* ppFile) {
    const ResultCode nOpened = m_pEnv->OpenFile(pName, m_nNumber, m_bCreate, m_bWritable, ppFile);
    if (Succeeded(nOpened)) return;
    const bool bGone = nOpened == errOBJECT_NOT_FOUND && !m_bCreate && IsGone(pName);
    if (bGone) *pbGone = true;
    if (!bGone) nRefused = nOpened;
  };
  OpenFile(kTreeFile, &pFiles->pTree);
  OpenFile(kIdsFile, &pFiles->pIds);
  OpenFile(kDataFile, &pFiles->pData);
  return nRefused;
}

// Whether a file is gone. That is not known while the folder shows nothing at all: then it is the folder that is away.
bool Segment::IsGone(const char16_t* pName) {
  std::uint64_t nTime = 0;
  if (m_pEnv->GetFileCreationTime(pName, m_nNumber, &nTime) != errNOT_FOUND) return false;
  return Succeeded(m_pEnv->GetFileCreationTime(u"*", 0, &nTime));
}

// A segment that lacks a file: the chain starts behind it, should it start here.
void Segment::LeaveChain() {
  m_bFailed = m_bDiscarded = true;
  if (m_pChain != nullptr) m_pChain->BeforeDiscard();
}

// Deletes the segment, its events included.
void Segment::Discard() {
  m_pEvents.reset();
  m_pObjects.reset();
  (void)m_pEnv->DeleteFiles(u"*.*", m_nNumber);  // answers errOK always
}

// ---- Events -----------------------------------------------------------------------------------------------

ResultCode Segment::AddEvent(const void* pData, std::uint32_t nSize, std::uint64_t* pnId) {
  if (Failed(Open())) return errOPEN_FAILED;
  std::uint64_t nIndex = 0;
  const ResultCode nCode = m_pEvents->AddRecord(pData, nSize, &nIndex);
  if (Failed(nCode)) return nCode;
  if (pnId != nullptr) *pnId = (std::uint64_t{m_nNumber} << 32) | nIndex;
  return errOK;
}

ResultCode Segment::GetEvents(std::uint32_t nIndexLow, std::uint32_t nIndexHigh, std::uint32_t nCount, void* pBuffer,
                              std::uint32_t nBufferSize, std::uint32_t* pnDelivered) {
  if (Failed(Open())) return errOPEN_FAILED;
  if (nIndexHigh != 0 && nIndexHigh != m_nNumber) return errOBJECT_NOT_FOUND;
  const std::uint64_t nWanted = std::uint64_t{nCount} * m_nEventSize;
  const auto nLimit = static_cast<std::uint32_t>(std::min<std::uint64_t>(nBufferSize, nWanted));
  std::uint32_t nRead = 0;
  const ResultCode nCode = m_pEvents->GetRecords(nIndexLow, pBuffer, nLimit, &nRead);
  if (pnDelivered != nullptr) *pnDelivered = nRead;
  if (Failed(nCode)) return nCode;
  if (m_pEvents->ReadFailed()) return errREAD_FAILED;  // not a success with fewer events
  return nRead == nCount ? errOK : errNO_MORE_EVENTS;
}

ResultCode Segment::UpdateEvent(std::uint32_t nIndexLow, std::uint32_t nIndexHigh, const void* pData,
                                std::uint32_t nSize) {
  if (Failed(Open())) return errOPEN_FAILED;
  if (nIndexHigh != 0 && nIndexHigh != m_nNumber) return errOBJECT_NOT_FOUND;
  return m_pEvents->SetRecord(nIndexLow, pData, nSize);
}

// ---- Counts, sizes, age -----------------------------------------------------------------------------------

ResultCode Segment::GetEventCount(std::uint64_t* pnCount) {
  if (m_bOpened) {
    *pnCount = m_pEvents->GetRecordCount();
    return errOK;
  }
  if (m_bFailed || m_pEnv == nullptr) return errSTORE_NOT_INITIALIZED;
  std::uint64_t nFileSize = 0;
  const ResultCode nCode = m_pEnv->GetFileSize(kEventsFile, m_nNumber, &nFileSize);
  if (Failed(nCode)) return nCode;
  *pnCount = RecordCountOfSize(nFileSize, m_nEventSize);
  return errOK;
}

ResultCode Segment::MeasureData(std::uint64_t* pnSize) {
  if (m_bOpened) {
    if (!m_nObjectsSize.has_value()) m_nObjectsSize = m_pObjects->GetSize();
    *pnSize = *m_nObjectsSize + m_pEvents->GetSize();
    return errOK;
  }
  if (m_bFailed || m_pEnv == nullptr) return errSTORE_NOT_INITIALIZED;
  return m_pEnv->GetFileSize(u"*.dat", m_nNumber, pnSize);
}

std::uint64_t Segment::GetDataSize() {
  std::uint64_t nSize = 0;
  return Succeeded(MeasureData(&nSize)) ? nSize : 0;
}

std::uint64_t Segment::GetAge() const {
  const std::uint64_t nNow = StorageEnvironment::GetCurrentTime();
  if (m_nCreationTime == 0 || nNow < m_nCreationTime) return 0;
  return (nNow - m_nCreationTime) / kFileTimeUnitsPerSecond;
}

ResultCode Segment::Flush(Flushing What) {
  if (!m_bOpened) return errOK;
  m_pEvents->Flush();
  (void)m_pObjects->Flush();  // answer errOK always; what fails is traced
  if (What == Flushing::WithSharedStore) (void)m_pGlobalObjects->Flush();
  return errOK;
}

ResultCode Segment::Check(StoreChoice Choice) {
  if (Failed(Open())) return errOPEN_FAILED;
  m_nObjectsSize.reset();  // what the tree lacks is put back
  return (Choice == StoreChoice::Global ? m_pGlobalObjects : m_pObjects.get())->FastConsistencyCheck();
}

// ---- Objects ----------------------------------------------------------------------------------------------

template <class Operation>
ResultCode Segment::OnStoreOf(std::uint64_t nId, Operation Do) {
  if (Failed(Open())) return errOPEN_FAILED;
  ObjectDB* const pStore = Stores().OfId(nId);
  return pStore == nullptr ? errOBJECT_NOT_FOUND : Do(*pStore);
}

ResultCode Segment::FindObject(StoreChoice Choice, const ObjectQuery& Query, std::uint64_t* pnId) {
  if (Failed(Open())) return errOPEN_FAILED;
  return FindObjectByName(Stores(), Choice, Query, pnId);
}

ResultCode Segment::GetObjectName(std::uint64_t nId, void* pBuffer, std::uint32_t nBufferSize, std::uint32_t* pnNeeded,
                                  std::uint32_t nFlagsOverride, std::uint8_t* pnType) {
  if (Failed(Open())) return errOPEN_FAILED;
  return BuildObjectName(Stores(), nId, pBuffer, nBufferSize, pnNeeded, nFlagsOverride, pnType);
}

ResultCode Segment::GetObjectParent(std::uint64_t nId, std::uint64_t* pnParentId, std::uint64_t* pnHash,
                                    std::uint8_t* pnType) {
  ObjectDescription About{};
  const ResultCode nCode = OnStoreOf(nId, [&](ObjectDB& Store) { return Store.Describe(nId, &About); });
  if (Failed(nCode)) return nCode;
  if (pnParentId != nullptr) *pnParentId = About.nParentId;
  if (pnHash != nullptr) *pnHash = About.nHash;
  if (pnType != nullptr) *pnType = About.nType;
  return errOK;
}

ResultCode Segment::GetObjectData(std::uint64_t nId, void* pBuffer, std::uint32_t nBufferSize, std::uint32_t* pnSize,
                                  std::uint32_t nTag) {
  return OnStoreOf(nId, [&](ObjectDB& Store) { return Store.GetObjectData(nId, pBuffer, nBufferSize, pnSize, nTag); });
}

ResultCode Segment::SetObjectData(std::uint64_t nId, const void* pData, std::uint32_t nSize, std::uint32_t nTag) {
  return OnStoreOf(nId, [&](ObjectDB& Store) { return Store.SetObjectData(nId, pData, nSize, nTag); });
}

ResultCode Segment::RemoveAllObjectData(std::uint64_t nId) {
  return OnStoreOf(nId, [&](ObjectDB& Store) { return Store.RemoveAllObjectData(nId); });
}

ResultCode Segment::EnumObjects() {
  return Failed(Open()) ? errOPEN_FAILED : errNOT_IMPLEMENTED;
}

}  // namespace lumbra
