// The object store: data blocks under keys.
#include <algorithm>
#include <cstring>
#include <mutex>

#include "objects/failed_check.h"
#include "objects/objdb.h"

namespace lumbra {
namespace {

// Blocks of this size and less are read without a look at the file's size, unless everything is checked.
constexpr std::uint32_t kLargeBlock = 4096;

// Sizes have 31 bits on disk, and a block's CRC counts, too.
constexpr std::uint32_t kSizeLimit = 0x80000000;

}  // namespace

// ---- Reading ----------------------------------------------------------------------------------------------

ResultCode ObjectDB::GetObjectData(tObjectId nObjectId, void* pBuffer, std::uint32_t nBufferSize,
                                   std::uint32_t* pnDataSize, std::uint32_t nDataType) {
  if (nObjectId == 0 || (nBufferSize > 0 && pBuffer == nullptr)) return errPARAMETER_INVALID;
  if (nBufferSize == 0 && pnDataSize == nullptr) return errPARAMETER_INVALID;
  if (StoreNumberOf(nObjectId) != m_nNumber) return errOBJECT_NOT_FOUND;
  const std::lock_guard Hold(m_Lock);
  tODB_ID_ENTRY object_entry{};
  ResultCode nCode = GetIdEntry(nObjectId, &object_entry, TraceMiss::Yes);
  if (Failed(nCode)) return nCode;
  if (object_entry.nDataEntriesCount == 0) return errNOT_FOUND;
  DataEntries Entries;
  nCode = ReadDataEntries(nObjectId, object_entry, &Entries);
  if (Failed(nCode)) return nCode;
  const std::uint32_t nEntry = Entries.Find(nDataType);
  if (nEntry == DataEntries::kNone) return errNOT_FOUND;

  const tODB_DATA_ENTRY* const pde = &Entries.Items[nEntry];
  const std::uint32_t nDataSize = DataSize::Decode(pde->nDataSize).nStored;
  if (ChecksByteCounts() || nDataSize > kLargeBlock) {
    nCode = CheckBlockInFile(pde, nDataSize);
    if (Failed(nCode)) return nCode;
  }
  std::uint32_t userDataSize = nDataSize;
  if (Has(featureBlockCrc)) {
    ODB_CHECK(userDataSize >= sizeof(uint32_t), errDATA_CORRUPTED);
    userDataSize -= kCrcSize;
  }
  if (pnDataSize != nullptr) *pnDataSize = userDataSize;
  if (nBufferSize > 0 && nBufferSize < userDataSize) return errBUFFER_TOO_SMALL;
  void* const pWanted = nBufferSize > 0 ? pBuffer : nullptr;
  if (Has(featureBlockCrc)) return ReadCheckedBlock(nObjectId, pde, nDataSize, pWanted);
  return pWanted == nullptr ? errOK : ReadPlainBlock(pde, static_cast<std::uint8_t*>(pWanted), nDataSize);
}

std::uint32_t ObjectDB::DataEntries::Find(std::uint32_t nDataType) const {
  for (std::uint32_t i = 0; i < nCount; ++i) {
    if (Items[i].nDataType == nDataType) return i;
  }
  return kNone;
}

// Bytes of an array on disk.
std::uint32_t ObjectDB::ArraySize(std::uint32_t nCount) const {
  return nCount * static_cast<std::uint32_t>(sizeof(tODB_DATA_ENTRY)) + (Has(featureArrayCrc) ? kCrcSize : 0);
}

ResultCode ObjectDB::ReadDataEntries(tObjectId nObjectId, const tODB_ID_ENTRY& object_entry, DataEntries* pEntries) {
  tODB_DATA_ENTRY* const data_entries = pEntries->Items;
  pEntries->nCount = object_entry.nDataEntriesCount;
  const std::uint32_t bytesToRead = ArraySize(object_entry.nDataEntriesCount);
  std::uint32_t bytesRead = 0;
  ODB_CHECK(m_pFileData->SeekRead(object_entry.nDataEntriesOffset, data_entries, bytesToRead, &bytesRead),
            DataReadErrorCode(object_entry.nDataEntriesOffset));
  ODB_CHECK(bytesToRead == bytesRead, DataReadErrorCode(std::uint64_t{object_entry.nDataEntriesOffset} + bytesRead));
  if (!Has(featureArrayCrc)) return errOK;
  // clang-format off
  ODB_CHECK(ValidDataCrc(nObjectId, data_entries, object_entry.nDataEntriesCount * sizeof(tODB_DATA_ENTRY), data_entries + object_entry.nDataEntriesCount),
            errDATA_CORRUPTED);
  // clang-format on
  return errOK;
}

// Before any memory is taken for a block: that all of it can be there.
ResultCode ObjectDB::CheckBlockInFile(const tODB_DATA_ENTRY* pde, std::uint32_t nDataSize) {
  std::uint64_t dataFileSize = 0;
  ODB_CHECK(m_pFileData->GetSize(&dataFileSize), errREAD_FAILED);
  ODB_CHECK(dataFileSize > pde->nDataOffset, errDATA_CORRUPTED);
  dataFileSize -= pde->nDataOffset;
  ODB_CHECK(dataFileSize >= nDataSize, errDATA_CORRUPTED);
  return errOK;
}

// Reads a block's stored bytes and takes the mask off.
ResultCode ObjectDB::ReadPlainBlock(const tODB_DATA_ENTRY* pde, std::uint8_t* readBuf, std::uint32_t nDataSize) {
  std::uint32_t bytesRead = 0;
  ODB_CHECK(m_pFileData->SeekRead(pde->nDataOffset, readBuf, nDataSize, &bytesRead),
            DataReadErrorCode(pde->nDataOffset));
  ODB_CHECK(nDataSize == bytesRead, DataReadErrorCode(std::uint64_t{pde->nDataOffset} + bytesRead));
  if (Has(featureMask)) MaskDataBlock(readBuf, nDataSize);
  return errOK;
}

// The same for a block with a CRC, which is checked also when nobody wants the bytes (pBuffer null).
ResultCode ObjectDB::ReadCheckedBlock(tObjectId nObjectId, const tODB_DATA_ENTRY* pde, std::uint32_t nDataSize,
                                      void* pBuffer) {
  BlockBuffer Scratch;
  if (!Scratch.Resize(nDataSize)) return errOUT_OF_MEMORY;
  std::uint8_t* const readBuf = Scratch.Get();
  const ResultCode nCode = ReadPlainBlock(pde, readBuf, nDataSize);
  if (Failed(nCode)) return nCode;
  const std::uint32_t userDataSize = nDataSize - kCrcSize;
  ODB_CHECK(ValidDataCrc(nObjectId, readBuf, userDataSize, readBuf + userDataSize), errDATA_CORRUPTED);
  if (pBuffer != nullptr && userDataSize != 0) std::memcpy(pBuffer, readBuf, userDataSize);
  return errOK;
}

// ---- Writing ----------------------------------------------------------------------------------------------

ResultCode ObjectDB::SetObjectData(tObjectId nObjectId, const void* pData, std::uint32_t nSize,
                                   std::uint32_t nDataType) {
  if (nObjectId == 0 || (pData == nullptr) != (nSize == 0)) return errPARAMETER_INVALID;
  if (nSize >= kSizeLimit - (Has(featureBlockCrc) ? kCrcSize : 0)) return errSIZE_INVALID;
  if (StoreNumberOf(nObjectId) != m_nNumber) return errOBJECT_NOT_FOUND;
  const std::lock_guard Hold(m_Lock);
  tODB_ID_ENTRY object_entry{};
  ResultCode nCode = GetIdEntry(nObjectId, &object_entry, TraceMiss::No);
  if (Failed(nCode)) return nCode;
  DataEntries Entries;
  Entries.nCount = 0;
  if (object_entry.nDataEntriesCount != 0) {
    nCode = ReadDataEntries(nObjectId, object_entry, &Entries);
    if (Failed(nCode)) return nCode;
    // All of it was read, so it ends inside the file; it must not begin in the magic either, for it may be rewritten.
    ODB_CHECK(object_entry.nDataEntriesOffset >= sizeof(FILE_MAGIC), errDATA_CORRUPTED);
  }
  std::uint32_t nEntry = Entries.Find(nDataType);
  if (nEntry == DataEntries::kNone) {
    if (Entries.nCount == kMaxDataEntries) return errOUT_OF_SPACE;
    nEntry = Entries.nCount++;
    Entries.Items[nEntry] = {nDataType, 0, 0};
  }

  std::uint32_t nRoom = 0;
  bool bInFile = false;
  nCode = FindRoom(Entries.Items[nEntry], &nRoom, &bInFile);
  if (Failed(nCode)) return nCode;
  BlockBuffer Scratch;
  ByteView Block{};
  if (!BuildBlock(nObjectId, pData, nSize, &Scratch, &Block)) return errOUT_OF_MEMORY;
  return Block.size() > nRoom ? MoveBlock(nObjectId, object_entry, &Entries, nEntry, Block, bInFile)
                              : RewriteBlock(nObjectId, object_entry, &Entries, nEntry, Block, nRoom);
}

// How much may be written over a block, and whether its stored bytes all lie in the file. An entry without a CRC may be
// damaged: if its room reaches beyond the end of the file, it counts for none. Nothing ever goes over the magic.
ResultCode ObjectDB::FindRoom(const tODB_DATA_ENTRY& Entry, std::uint32_t* pnRoom, bool* pbInFile) {
  const DataSize Old = DataSize::Decode(Entry.nDataSize);
  if (Old.nStored == 0 && Old.nCapacity == 0) return errOK;
  ODB_CHECK(Entry.nDataOffset >= sizeof(FILE_MAGIC), errDATA_CORRUPTED);
  ODB_CHECK_AS("m_pFileData->GetSize(&m_nSizeDT)", KnowsDataSize(), errREAD_FAILED);
  const std::uint64_t nOffset = Entry.nDataOffset;
  *pbInFile = nOffset + Old.nStored <= m_nSizeDT;
  *pnRoom = Has(featureArrayCrc) || nOffset + Old.nCapacity <= m_nSizeDT ? Old.nCapacity : 0;
  return errOK;
}

// The bytes to store: the caller's own, or a copy with the CRC and the mask that the feature set asks for.
bool ObjectDB::BuildBlock(tObjectId nObjectId, const void* pData, std::uint32_t nSize, BlockBuffer* pScratch,
                          ByteView* pBlock) const {
  if (!Has(featureMask) && !Has(featureBlockCrc)) {
    *pBlock = {static_cast<const std::uint8_t*>(pData), nSize};
    return true;
  }
  if (!pScratch->Resize(nSize + (Has(featureBlockCrc) ? kCrcSize : 0))) return false;
  if (nSize != 0) std::memcpy(pScratch->Get(), pData, nSize);
  if (Has(featureBlockCrc)) {
    const std::uint32_t nCrc = m_Crc.Of(nObjectId, pData, nSize);
    std::memcpy(pScratch->Get() + nSize, &nCrc, sizeof(nCrc));
  }
  if (Has(featureMask)) MaskDataBlock(pScratch->Get(), pScratch->size());
  *pBlock = {pScratch->Get(), pScratch->size()};
  return true;
}

// Appends a block that does not fit the room of the old one. That is wiped last, if it lay in the file before the new
// one was appended: otherwise the new one may lie in its place.
ResultCode ObjectDB::MoveBlock(tObjectId nObjectId, const tODB_ID_ENTRY& object_entry, DataEntries* pEntries,
                               std::uint32_t nEntry, ByteView Block, bool bOldInFile) {
  tODB_DATA_ENTRY* const pde = &pEntries->Items[nEntry];
  const tODB_DATA_ENTRY Old = *pde;
  std::uint32_t nOffset = 0;
  ResultCode nCode = AppendData(Block.begin(), Block.size(), &nOffset);
  if (Failed(nCode)) return nCode;
  pde->nDataOffset = nOffset;
  pde->nDataSize = DataSize{Block.size(), Block.size()}.Encode();
  nCode = StoreDataEntry(nObjectId, object_entry, pEntries, nEntry);
  if (Failed(nCode) || !bOldInFile) return nCode;
  return ZeroFill(m_pFileData.get(), Old.nDataOffset, DataSize::Decode(Old.nDataSize).nStored);
}

// Writes a block into the room of the old one. One of another size can be read only through its new entry, and the old
// one only through the old entry: when either cannot be written, the old bytes are put back.
ResultCode ObjectDB::RewriteBlock(tObjectId nObjectId, const tODB_ID_ENTRY& object_entry, DataEntries* pEntries,
                                  std::uint32_t nEntry, ByteView Block, std::uint32_t nRoom) {
  tODB_DATA_ENTRY* const pde = &pEntries->Items[nEntry];
  const std::uint32_t nOffset = pde->nDataOffset;
  const std::uint32_t nOldStored = DataSize::Decode(pde->nDataSize).nStored;
  if (Block.size() == nOldStored) return OverwriteBlock(pde, Block);

  BlockBuffer Replaced;  // as much of the old block as is written over
  std::uint32_t nReplaced = 0;
  if (!Replaced.Resize(std::min(nOldStored, Block.size()))) return errOUT_OF_MEMORY;
  // A block that cannot be read may be replaced all the same; then there is nothing to put back.
  (void)m_pFileData->SeekRead(nOffset, Replaced.Get(), Replaced.size(), &nReplaced);
  ResultCode nCode = OverwriteBlock(pde, Block);
  if (Succeeded(nCode)) {
    pde->nDataSize = DataSize{Block.size(), nRoom}.Encode();
    // Only an empty block fits no room: an offset outside of the file would pass for damage in checks and compaction.
    if (nRoom == 0) pde->nDataOffset = 0;
    nCode = StoreDataEntry(nObjectId, object_entry, pEntries, nEntry);
  }
  // The answer is the first failure, also when this write fails as well.
  if (Failed(nCode)) (void)m_pFileData->SeekWrite(nOffset, Replaced.Get(), nReplaced, nullptr);
  return nCode;
}

ResultCode ObjectDB::OverwriteBlock(const tODB_DATA_ENTRY* pde, ByteView dataToWrite) {
  std::uint32_t bytesWritten = 0;
  ODB_CHECK(m_pFileData->SeekWrite(pde->nDataOffset, dataToWrite.begin(), dataToWrite.size(), &bytesWritten),
            errWRITE_FAILED);
  if (ChecksByteCounts()) ODB_CHECK(dataToWrite.size() == bytesWritten, errWRITE_FAILED);
  // A block that a CRC vouches for may stand where the file had been cut off.
  if (bytesWritten != 0) m_nSizeDT = std::max(m_nSizeDT, std::uint64_t{pde->nDataOffset} + bytesWritten);
  return errOK;
}

// Brings one changed or added entry to the disk.
ResultCode ObjectDB::StoreDataEntry(tObjectId nObjectId, const tODB_ID_ENTRY& object_entry, DataEntries* pEntries,
                                    std::uint32_t nEntry) {
  if (pEntries->nCount != object_entry.nDataEntriesCount) {
    return AppendDataEntries(nObjectId, object_entry, pEntries);
  }
  std::uint32_t bytesWritten = 0;
  if (Has(featureArrayCrc)) {
    SealDataEntries(nObjectId, pEntries);
    const tODB_DATA_ENTRY* const data_entries = pEntries->Items;
    const std::uint32_t sizeToWrite = ArraySize(pEntries->nCount);
    ODB_CHECK(m_pFileData->SeekWrite(object_entry.nDataEntriesOffset, data_entries, sizeToWrite, &bytesWritten),
              errWRITE_FAILED);
    if (ChecksByteCounts()) ODB_CHECK(sizeToWrite == bytesWritten, errWRITE_FAILED);
    return errOK;
  }
  const tODB_DATA_ENTRY* const pde = &pEntries->Items[nEntry];
  // clang-format off
  ODB_CHECK(m_pFileData->SeekWrite(object_entry.nDataEntriesOffset+nEntry*sizeof(tODB_DATA_ENTRY), pde, sizeof(tODB_DATA_ENTRY), &bytesWritten),
            errWRITE_FAILED);
  // clang-format on
  if (ChecksByteCounts()) ODB_CHECK(sizeof(tODB_DATA_ENTRY) == bytesWritten, errWRITE_FAILED);
  return errOK;
}

// A longer array goes to the end of the file; the record is led to it; then the old array is wiped.
ResultCode ObjectDB::AppendDataEntries(tObjectId nObjectId, const tODB_ID_ENTRY& object_entry, DataEntries* pEntries) {
  SealDataEntries(nObjectId, pEntries);
  std::uint32_t nOffset = 0;
  ResultCode nCode = AppendData(pEntries->Items, ArraySize(pEntries->nCount), &nOffset);
  if (Failed(nCode)) return nCode;
  tODB_ID_ENTRY NewEntry = object_entry;
  NewEntry.nDataEntriesOffset = nOffset;
  NewEntry.nDataEntriesCount = static_cast<std::uint8_t>(pEntries->nCount);
  nCode = SetIdEntry(nObjectId, &NewEntry);
  if (Failed(nCode)) return nCode;
  const bool bHadArray = object_entry.nDataEntriesOffset != 0 && object_entry.nDataEntriesCount >= 1;
  if (!bHadArray) return errOK;
  return ZeroFill(m_pFileData.get(), object_entry.nDataEntriesOffset, ArraySize(object_entry.nDataEntriesCount));
}

// Puts the CRC behind the last entry, when the feature set has one there.
void ObjectDB::SealDataEntries(tObjectId nObjectId, DataEntries* pEntries) const {
  if (!Has(featureArrayCrc)) return;
  tODB_DATA_ENTRY* const data_entries = pEntries->Items;
  const std::uint32_t nCrc = m_Crc.Of(nObjectId, data_entries, pEntries->nCount * sizeof(tODB_DATA_ENTRY));
  std::memcpy(data_entries + pEntries->nCount, &nCrc, sizeof(nCrc));
}

ResultCode ObjectDB::ZeroFill(StorageFile* pFile, std::uint64_t nOffset, std::uint32_t nCount) {
  constexpr std::uint32_t kPiece = 512;
  constexpr std::uint8_t zeroes[kPiece] = {};
  while (nCount > 0) {
    const std::uint32_t n = nCount < kPiece ? nCount : kPiece;
    ODB_CHECK(pFile->SeekWrite(nOffset, zeroes, n, NULL), errWRITE_FAILED);
    nOffset += n;
    nCount -= n;
  }
  return errOK;
}

ResultCode ObjectDB::RemoveAllObjectData(tObjectId nObjectId) {
  if (nObjectId == 0) return errPARAMETER_INVALID;
  if (StoreNumberOf(nObjectId) != m_nNumber) return errOBJECT_NOT_FOUND;
  const std::lock_guard Hold(m_Lock);
  tODB_ID_ENTRY Entry{};
  const ResultCode nCode = GetIdEntry(nObjectId, &Entry, TraceMiss::No);
  if (Failed(nCode)) return nCode;
  Entry.nDataEntriesOffset = 0;
  Entry.nDataEntriesCount = 0;
  return SetIdEntry(nObjectId, &Entry);
}

}  // namespace lumbra
