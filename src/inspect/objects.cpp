#include "inspect/objects.h"

#include <algorithm>
#include <cstring>

#include "format/data_crc.h"
#include "format/file_names.h"
#include "format/record_file.h"

namespace lumbra::inspect {
namespace {

Answer AnswerOf(os::SystemError nError) {
  if (nError == os::kSuccess) return Answer::Read;
  return nError == os::kFileNotFound || nError == os::kPathNotFound ? Answer::Missing : Answer::Unreadable;
}

}  // namespace

ObjectFileNames SharedObjectFiles() {
  return {kSharedIdsFile, kSharedTreeFile, kSharedDataFile};
}

ObjectFileNames ObjectFilesOf(std::uint32_t nSegment) {
  return {SegmentFileName(nSegment, kIdsFile), SegmentFileName(nSegment, kTreeFile),
          SegmentFileName(nSegment, kDataFile)};
}

// ---- Opening ----------------------------------------------------------------------------------------------

Objects::Objects(const Store& Of, os::FolderHandle pFolder, ObjectFileNames Names, BlockCache* pCache)
    : m_Store(Of), m_pFolder(std::move(pFolder)), m_pCache(pCache) {
  m_Ids.Name = std::move(Names.Ids);
  m_Data.Name = std::move(Names.Data);
}

Answer Objects::Open(std::uint64_t nIdsBirth) {
  Answer Found = OpenHalf(&m_Ids);
  if (Found != Answer::Read) return Found;
  os::FileLook Ids{};
  if (m_Ids.pFile->Look(&Ids) != os::kSuccess) return Answer::Unreadable;
  if (nIdsBirth != 0 && Ids.nBirth != nIdsBirth) return Answer::Missing;
  Found = OpenHalf(&m_Data);
  if (Found == Answer::Unreadable) return Found;
  if (IsDeleted()) return Answer::Missing;  // the names beside it may be another life's
  Found = ReadHeads();
  if (Found == Answer::Read) Measure();
  return Found;
}

bool Objects::IsDeleted() const {
  return m_Ids.pFile == nullptr || m_Ids.pFile->IsDeleted();
}

// What is no plain file holds nothing of ours.
Answer Objects::OpenHalf(Half* pHalf) {
  const os::SystemError nError = File::Open(m_pFolder, pHalf->Name, &pHalf->pFile);
  os::FileLook Found{};
  const bool bOther = nError == os::kAccessDenied && os::LookAt(m_pFolder, pHalf->Name, &Found) == os::kSuccess;
  return bOther && !Found.bPlain ? Answer::Damaged : AnswerOf(nError);
}

// Each head tells whether the records have CRCs: where one is damaged, the other is believed.
Answer Objects::ReadHeads() {
  Measure();
  tPLAINDB_HEADER Header{};
  std::span<const std::uint8_t> Bytes;
  Answer Found = Get(m_Ids, 0, sizeof(Header), &Bytes);
  if (Found != Answer::Read) return m_Ids.nSize < sizeof(Header) ? Answer::Read : Found;  // it is being made
  m_bHeads = true;
  std::memcpy(&Header, Bytes.data(), sizeof(Header));
  FILE_MAGIC Magic{};
  Found = Get(m_Data, 0, sizeof(Magic), &Bytes);
  if (Found == Answer::Unreadable) return Found;
  if (Found == Answer::Read) std::memcpy(Magic, Bytes.data(), sizeof(Magic));
  const auto Known = std::ranges::find_if(
      kFeatureMagics, [&Magic](const FeatureMagic& One) { return std::memcmp(One.Magic, Magic, sizeof(Magic)) == 0; });
  const bool bKnown = Known != std::end(kFeatureMagics);
  for (const bool bCrcs : {false, true}) {
    const std::uint32_t nStored = sizeof(tODB_ID_ENTRY) + (bCrcs ? kCrcSize : 0);
    const auto& Expected = bCrcs ? kCheckedRecordMagic : kRecordMagic;
    const bool bHead = std::memcmp(Header.Magic, Expected, sizeof(Expected)) == 0 && Header.nRecordSize == nStored;
    if (!bHead) continue;
    m_nStored = nStored;
    m_nFeatures = bKnown ? Known->nFeatures : bCrcs ? kCheckedFeatures : kPlainFeatures;
    return Answer::Read;
  }
  if (!bKnown) return Answer::Damaged;
  m_nFeatures = Known->nFeatures;
  m_nStored = sizeof(tODB_ID_ENTRY) + ((m_nFeatures & featureNameCrc) != 0 ? kCrcSize : 0);
  return Answer::Read;
}

// The records first: what they lead to was written before them.
void Objects::Measure() {
  for (Half* const pHalf : {&m_Ids, &m_Data}) {
    os::FileLook Now{};
    if (pHalf->pFile != nullptr && pHalf->pFile->Look(&Now) == os::kSuccess) pHalf->nSize = Now.nSize;
  }
  m_nCount = static_cast<std::uint32_t>(std::min(RecordCountOfSize(m_Ids.nSize, m_nStored), kMaxObjects));
}

// ---- Bytes ------------------------------------------------------------------------------------------------

// All of these bytes: what lies behind the end is damaged, unless it has come since.
Answer Objects::Get(Half& From, std::uint64_t nOffset, std::uint32_t nSize, std::span<const std::uint8_t>* pBytes) {
  if (From.pFile == nullptr) return Answer::Missing;
  if (nOffset + nSize > From.nSize) Measure();
  if (nOffset + nSize > From.nSize) return Answer::Damaged;
  os::SystemError nError = os::kSuccess;
  *pBytes = m_pCache->Get(*From.pFile, nOffset, nSize, &nError);
  if (nError != os::kSuccess) return Answer::Unreadable;
  return pBytes->size() == nSize ? Answer::Read : Answer::Damaged;
}

void Objects::ForgetRecord(std::uint32_t nShortId) {
  const std::uint64_t nAt = sizeof(tPLAINDB_HEADER) + (nShortId - std::uint64_t{1}) * m_nStored;
  m_pCache->Forget(*m_Ids.pFile, nAt, m_nStored);
}

// What a contradiction that stays is called.
Answer Objects::Contradiction() {
  constexpr std::chrono::milliseconds kBetween{100};
  const auto Now = std::chrono::steady_clock::now();
  if (Now - m_HeldAsked >= kBetween) {
    m_bHeld = !m_Store.Holders().empty();
    m_HeldAsked = Now;
  }
  return m_bHeld ? Answer::Unsettled : Answer::Damaged;
}

// Tries until what is read does not contradict itself, or is given up. Nothing in memory is believed again.
template <class TryOnce>
Answer Objects::UntilSettled(std::uint32_t nShortId, TryOnce Try) {
  Patience Waiting;
  for (;;) {
    const Answer Found = Try();
    if (Found != Answer::Damaged) return Found;
    if (nShortId != 0) ForgetRecord(nShortId);
    if (!m_Store.MayWait()) return Contradiction();
    if (Waiting.Wait()) continue;
    m_Store.NoteWait();
    return Contradiction();
  }
}

// ---- Records and names ------------------------------------------------------------------------------------

Answer Objects::TryRecord(std::uint32_t nShortId, tODB_ID_ENTRY* pRecord) {
  if (nShortId > m_nCount && !m_bHeads) {
    if (const Answer Found = ReadHeads(); Found != Answer::Read) return Found;
  }
  if (nShortId > m_nCount) Measure();
  if (nShortId == 0 || nShortId > m_nCount) return Answer::Missing;
  std::span<const std::uint8_t> Bytes;
  const std::uint64_t nAt = sizeof(tPLAINDB_HEADER) + (nShortId - std::uint64_t{1}) * m_nStored;
  const Answer Found = Get(m_Ids, nAt, m_nStored, &Bytes);
  if (Found != Answer::Read) return Found;
  std::memcpy(pRecord, Bytes.data(), sizeof(*pRecord));
  if (!HasRecordCrcs()) return Answer::Read;
  return DataCrc().Valid(0, pRecord, sizeof(*pRecord), Bytes.data() + sizeof(*pRecord)) ? Answer::Read
                                                                                        : Answer::Damaged;
}

Answer Objects::ReadRecord(std::uint32_t nShortId, tODB_ID_ENTRY* pRecord) {
  return UntilSettled(nShortId, [&] { return TryRecord(nShortId, pRecord); });
}

Answer Objects::TryName(const tODB_ID_ENTRY& Of, std::span<const std::uint8_t>* pName) {
  *pName = {};
  if (Of.nNameSize == 0) return Answer::Read;
  const bool bCrc = (m_nFeatures & featureNameCrc) != 0;
  std::span<const std::uint8_t> Bytes;
  Answer Found = Get(m_Data, Of.nName, Of.nNameSize + (bCrc ? kCrcSize : 0), &Bytes);
  if (Found == Answer::Read && bCrc &&
      !DataCrc(true).Valid(Of.nObjectHash, Bytes.data(), Of.nNameSize, Bytes.data() + Of.nNameSize))
    Found = Answer::Damaged;
  if (Found == Answer::Read) *pName = Bytes.first(Of.nNameSize);
  if (Found == Answer::Damaged && m_Data.pFile != nullptr)
    m_pCache->Forget(*m_Data.pFile, Of.nName, Of.nNameSize + kCrcSize);
  return Found;
}

Answer Objects::ReadName(const tODB_ID_ENTRY& Of, std::span<const std::uint8_t>* pName) {
  return UntilSettled(0, [&] { return TryName(Of, pName); });
}

// ---- Data -------------------------------------------------------------------------------------------------

bool Objects::IsStill(std::uint32_t nShortId, const tODB_ID_ENTRY& Record) {
  tODB_ID_ENTRY Now{};
  ForgetRecord(nShortId);
  return TryRecord(nShortId, &Now) == Answer::Read && std::memcmp(&Now, &Record, sizeof(Now)) == 0;
}

Answer Objects::TryEntries(std::uint32_t nShortId, tODB_ID_ENTRY* pRecord, std::vector<tODB_DATA_ENTRY>* pEntries) {
  pEntries->clear();
  ForgetRecord(nShortId);  // data changes: what is in memory may be old
  Answer Found = TryRecord(nShortId, pRecord);
  if (Found != Answer::Read || pRecord->nDataEntriesOffset == 0 || pRecord->nDataEntriesCount == 0) return Found;
  const std::uint32_t nSize = pRecord->nDataEntriesCount * static_cast<std::uint32_t>(sizeof(tODB_DATA_ENTRY));
  const bool bCrc = (m_nFeatures & featureArrayCrc) != 0;
  if (m_Data.pFile != nullptr) m_pCache->Forget(*m_Data.pFile, pRecord->nDataEntriesOffset, nSize + kCrcSize);
  std::span<const std::uint8_t> Bytes;
  Found = Get(m_Data, pRecord->nDataEntriesOffset, nSize + (bCrc ? kCrcSize : 0), &Bytes);
  if (Found != Answer::Read) return Found;
  const DataCrc Crcs((m_nFeatures & featureNameCrc) != 0);
  if (bCrc && !Crcs.Valid(nShortId, Bytes.data(), nSize, Bytes.data() + nSize)) return Answer::Damaged;
  pEntries->resize(pRecord->nDataEntriesCount);
  std::memcpy(pEntries->data(), Bytes.data(), nSize);
  return IsStill(nShortId, *pRecord) ? Answer::Read : Answer::Damaged;
}

Answer Objects::ListData(std::uint32_t nShortId, std::vector<DataBlock>* pBlocks) {
  std::vector<tODB_DATA_ENTRY> Entries;
  tODB_ID_ENTRY Record{};
  const Answer Found = UntilSettled(nShortId, [&] { return TryEntries(nShortId, &Record, &Entries); });
  const std::uint32_t nCrc = (m_nFeatures & featureBlockCrc) != 0 ? kCrcSize : 0;
  pBlocks->clear();
  for (const tODB_DATA_ENTRY& One : Entries) {
    const std::uint32_t nStored = DataSize::Decode(One.nDataSize).nStored;
    pBlocks->push_back({One.nDataType, One.nDataOffset, nStored - std::min(nStored, nCrc)});
  }
  return Found;
}

Answer Objects::TryBlock(std::uint32_t nShortId, const tODB_DATA_ENTRY& Of, std::vector<std::uint8_t>* pBytes) {
  const std::uint32_t nStored = DataSize::Decode(Of.nDataSize).nStored;
  if (Of.nDataOffset + std::uint64_t{nStored} > m_Data.nSize) Measure();
  if (Of.nDataOffset + std::uint64_t{nStored} > m_Data.nSize) return Answer::Damaged;
  if (m_Data.pFile != nullptr) m_pCache->Forget(*m_Data.pFile, Of.nDataOffset, nStored);
  std::span<const std::uint8_t> Bytes;
  const Answer Found = Get(m_Data, Of.nDataOffset, nStored, &Bytes);
  if (Found != Answer::Read) return Found;
  pBytes->assign(Bytes.begin(), Bytes.end());
  if ((m_nFeatures & featureMask) != 0) MaskDataBlock(pBytes->data(), nStored);
  if ((m_nFeatures & featureBlockCrc) == 0) return Answer::Read;
  if (nStored < kCrcSize) return Answer::Damaged;
  const std::uint32_t nSize = nStored - kCrcSize;
  const DataCrc Crcs((m_nFeatures & featureNameCrc) != 0);
  if (!Crcs.Valid(nShortId, pBytes->data(), nSize, pBytes->data() + nSize)) return Answer::Damaged;
  pBytes->resize(nSize);
  return Answer::Read;
}

Answer Objects::ReadData(std::uint32_t nShortId, std::uint32_t nKey, std::vector<std::uint8_t>* pBytes,
                         std::uint32_t nMost) {
  return UntilSettled(nShortId, [&] {
    std::vector<tODB_DATA_ENTRY> Entries;
    tODB_ID_ENTRY Record{};
    Answer Found = TryEntries(nShortId, &Record, &Entries);
    if (Found != Answer::Read) return Found;
    const auto Entry = std::ranges::find(Entries, nKey, &tODB_DATA_ENTRY::nDataType);
    if (Entry == Entries.end()) return Answer::Missing;
    const std::uint64_t nLongest = std::uint64_t{nMost} + ((m_nFeatures & featureBlockCrc) != 0 ? kCrcSize : 0);
    if (DataSize::Decode(Entry->nDataSize).nStored > nLongest) return Answer::Missing;
    Found = TryBlock(nShortId, *Entry, pBytes);
    return Found == Answer::Read && !IsStill(nShortId, Record) ? Answer::Damaged : Found;
  });
}

}  // namespace lumbra::inspect
