// The object store: data blocks under keys.
#include <algorithm>
#include <cstring>

#include "objects/failed_check.h"
#include "objects/objdb.h"
#include "platform/invariant.h"

namespace lumbra {
namespace {

using objdb::FailedCheck;

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
  const os::Hold Hold(m_Lock);
  tODB_ID_ENTRY Entry{};
  ResultCode nCode = GetIdEntry(nObjectId, &Entry, TraceMiss::Yes);
  if (Failed(nCode)) return nCode;
  if (Entry.nDataEntriesCount == 0) return errNOT_FOUND;
  DataEntries Entries;
  nCode = ReadDataEntries(nObjectId, Entry, &Entries);
  if (Failed(nCode)) return nCode;
  const std::uint32_t nEntry = Entries.Find(nDataType);
  if (nEntry == DataEntries::kNone) return errNOT_FOUND;

  const tODB_DATA_ENTRY* const pItem = &Entries.Items[nEntry];
  const std::uint32_t nDataSize = DataSize::Decode(pItem->nDataSize).nStored;
  if (ChecksByteCounts() || nDataSize > kLargeBlock) {
    nCode = CheckBlockInFile(pItem, nDataSize);
    if (Failed(nCode)) return nCode;
  }
  std::uint32_t nUserSize = nDataSize;
  if (Has(featureBlockCrc)) {
    if (nUserSize < sizeof(uint32_t)) return FailedCheck("userDataSize >= sizeof(uint32_t)", errDATA_CORRUPTED);
    nUserSize -= kCrcSize;
  }
  if (pnDataSize != nullptr) *pnDataSize = nUserSize;
  if (nBufferSize > 0 && nBufferSize < nUserSize) return errBUFFER_TOO_SMALL;
  void* const pWanted = nBufferSize > 0 ? pBuffer : nullptr;
  if (Has(featureBlockCrc)) return ReadCheckedBlock(nObjectId, pItem, nDataSize, pWanted);
  return pWanted == nullptr ? errOK : ReadPlainBlock(pItem, static_cast<std::uint8_t*>(pWanted), nDataSize);
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

ResultCode ObjectDB::ReadDataEntries(tObjectId nObjectId, const tODB_ID_ENTRY& Entry, DataEntries* pEntries) {
  pEntries->nCount = Entry.nDataEntriesCount;
  const std::uint32_t nWanted = ArraySize(Entry.nDataEntriesCount);
  std::uint32_t nRead = 0;
  if (!m_Data.SeekRead(Entry.nDataEntriesOffset, pEntries->Items, nWanted, &nRead))
    return FailedCheck("m_pFileData->SeekRead(object_entry.nDataEntriesOffset, data_entries, bytesToRead, &bytesRead)",
                       DataReadErrorCode(Entry.nDataEntriesOffset));
  if (nWanted != nRead)
    return FailedCheck("bytesToRead == bytesRead", DataReadErrorCode(std::uint64_t{Entry.nDataEntriesOffset} + nRead));
  if (!Has(featureArrayCrc)) return errOK;
  if (!ValidDataCrc(nObjectId, pEntries->Items, Entry.nDataEntriesCount * sizeof(tODB_DATA_ENTRY),
                    pEntries->Items + Entry.nDataEntriesCount))
    return FailedCheck(
        "ValidDataCrc(nObjectId, data_entries, object_entry.nDataEntriesCount * sizeof(tODB_DATA_ENTRY), data_entries + object_entry.nDataEntriesCount)",
        errDATA_CORRUPTED);
  return errOK;
}

// Before any memory is taken for a block: that all of it can be there.
ResultCode ObjectDB::CheckBlockInFile(const tODB_DATA_ENTRY* pItem, std::uint32_t nDataSize) {
  std::uint64_t nFileSize = 0;
  if (!m_pFileData->GetSize(&nFileSize)) return FailedCheck("m_pFileData->GetSize(&dataFileSize)", errREAD_FAILED);
  if (nFileSize <= pItem->nDataOffset) return FailedCheck("dataFileSize > pde->nDataOffset", errDATA_CORRUPTED);
  nFileSize -= pItem->nDataOffset;
  if (nFileSize < nDataSize) return FailedCheck("dataFileSize >= nDataSize", errDATA_CORRUPTED);
  return errOK;
}

// Reads a block's stored bytes and takes the mask off.
ResultCode ObjectDB::ReadPlainBlock(const tODB_DATA_ENTRY* pItem, std::uint8_t* pBlock, std::uint32_t nDataSize) {
  std::uint32_t nRead = 0;
  if (!m_Data.SeekRead(pItem->nDataOffset, pBlock, nDataSize, &nRead))
    return FailedCheck("m_pFileData->SeekRead(pde->nDataOffset, readBuf, nDataSize, &bytesRead)",
                       DataReadErrorCode(pItem->nDataOffset));
  if (nDataSize != nRead)
    return FailedCheck("nDataSize == bytesRead", DataReadErrorCode(std::uint64_t{pItem->nDataOffset} + nRead));
  if (Has(featureMask)) MaskDataBlock(pBlock, nDataSize);
  return errOK;
}

// The same for a block with a CRC, which is checked also when nobody wants the bytes (pBuffer null).
ResultCode ObjectDB::ReadCheckedBlock(tObjectId nObjectId, const tODB_DATA_ENTRY* pItem, std::uint32_t nDataSize,
                                      void* pBuffer) {
  BlockBuffer Scratch;
  if (!Scratch.Resize(nDataSize)) return errOUT_OF_MEMORY;
  std::uint8_t* const pBlock = Scratch.Get();
  const ResultCode nCode = ReadPlainBlock(pItem, pBlock, nDataSize);
  if (Failed(nCode)) return nCode;
  const std::uint32_t nUserSize = nDataSize - kCrcSize;
  if (!ValidDataCrc(nObjectId, pBlock, nUserSize, pBlock + nUserSize))
    return FailedCheck("ValidDataCrc(nObjectId, readBuf, userDataSize, readBuf + userDataSize)", errDATA_CORRUPTED);
  if (pBuffer != nullptr && nUserSize != 0) std::memcpy(pBuffer, pBlock, nUserSize);
  return errOK;
}

// ---- Writing ----------------------------------------------------------------------------------------------

ResultCode ObjectDB::SetObjectData(tObjectId nObjectId, const void* pData, std::uint32_t nSize,
                                   std::uint32_t nDataType) {
  if (nObjectId == 0 || (pData == nullptr) != (nSize == 0)) return errPARAMETER_INVALID;
  const os::Hold Hold(m_Lock);
  if (nSize >= kSizeLimit - (Has(featureBlockCrc) ? kCrcSize : 0)) return errSIZE_INVALID;
  tODB_ID_ENTRY Entry{};
  ResultCode nCode = GetIdEntry(nObjectId, &Entry, TraceMiss::No);
  if (Failed(nCode)) return nCode;
  DataEntries Entries;
  Entries.nCount = 0;
  if (Entry.nDataEntriesCount != 0) {
    nCode = ReadDataEntries(nObjectId, Entry, &Entries);
    if (Failed(nCode)) return nCode;
    // All of it was read, so it ends inside the file; it must not begin in the magic either, for it may be rewritten.
    if (Entry.nDataEntriesOffset < sizeof(FILE_MAGIC))
      return FailedCheck("object_entry.nDataEntriesOffset >= sizeof(FILE_MAGIC)", errDATA_CORRUPTED);
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
  return Block.size() > nRoom ? MoveBlock(nObjectId, Entry, &Entries, nEntry, Block, bInFile)
                              : RewriteBlock(nObjectId, Entry, &Entries, nEntry, Block, nRoom);
}

// How much may be written over a block, and whether its stored bytes all lie in the file. An entry without a CRC may be
// damaged: if its room reaches beyond the end of the file, it counts for none. Nothing ever goes over the magic.
ResultCode ObjectDB::FindRoom(const tODB_DATA_ENTRY& Entry, std::uint32_t* pnRoom, bool* pbInFile) {
  const DataSize Old = DataSize::Decode(Entry.nDataSize);
  if (Old.nStored == 0 && Old.nCapacity == 0) return errOK;
  if (Entry.nDataOffset < sizeof(FILE_MAGIC))
    return FailedCheck("Entry.nDataOffset >= sizeof(FILE_MAGIC)", errDATA_CORRUPTED);
  if (!KnowsDataSize()) return FailedCheck("m_pFileData->GetSize(&m_nSizeDT)", errREAD_FAILED);
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
ResultCode ObjectDB::MoveBlock(tObjectId nObjectId, const tODB_ID_ENTRY& Entry, DataEntries* pEntries,
                               std::uint32_t nEntry, ByteView Block, bool bOldInFile) {
  tODB_DATA_ENTRY* const pItem = &pEntries->Items[nEntry];
  const tODB_DATA_ENTRY Old = *pItem;
  std::uint32_t nOffset = 0;
  ResultCode nCode = AppendData(Block.begin(), Block.size(), &nOffset);
  if (Failed(nCode)) return nCode;
  pItem->nDataOffset = nOffset;
  pItem->nDataSize = DataSize{Block.size(), Block.size()}.Encode();
  nCode = StoreDataEntry(nObjectId, Entry, pEntries, nEntry);
  if (Failed(nCode) || !bOldInFile) return nCode;
  return ZeroFill(Old.nDataOffset, DataSize::Decode(Old.nDataSize).nStored);
}

// Writes a block into the room of the old one. One of another size can be read only through its new entry, and the old
// one only through the old entry: when either cannot be written, the old bytes are put back.
ResultCode ObjectDB::RewriteBlock(tObjectId nObjectId, const tODB_ID_ENTRY& Entry, DataEntries* pEntries,
                                  std::uint32_t nEntry, ByteView Block, std::uint32_t nRoom) {
  tODB_DATA_ENTRY* const pItem = &pEntries->Items[nEntry];
  const std::uint32_t nOffset = pItem->nDataOffset;
  const std::uint32_t nOldStored = DataSize::Decode(pItem->nDataSize).nStored;
  if (Block.size() == nOldStored) return OverwriteBlock(pItem, Block);

  BlockBuffer Replaced;  // as much of the old block as is written over
  std::uint32_t nReplaced = 0;
  if (!Replaced.Resize(std::min(nOldStored, Block.size()))) return errOUT_OF_MEMORY;
  // A block that cannot be read may be replaced all the same; then there is nothing to put back.
  (void)m_Data.SeekRead(nOffset, Replaced.Get(), Replaced.size(), &nReplaced);
  ResultCode nCode = OverwriteBlock(pItem, Block);
  if (Succeeded(nCode)) {
    pItem->nDataSize = DataSize{Block.size(), nRoom}.Encode();
    // Only an empty block fits no room: an offset outside of the file would pass for damage in checks and compaction.
    if (nRoom == 0) pItem->nDataOffset = 0;
    nCode = StoreDataEntry(nObjectId, Entry, pEntries, nEntry);
  }
  // The answer is the first failure, also when this write fails as well.
  if (Failed(nCode)) (void)WriteData(nOffset, Replaced.Get(), nReplaced, nullptr);
  return nCode;
}

ResultCode ObjectDB::OverwriteBlock(const tODB_DATA_ENTRY* pItem, ByteView Block) {
  std::uint32_t nWritten = 0;
  if (!WriteData(pItem->nDataOffset, Block.begin(), Block.size(), &nWritten))
    return FailedCheck(
        "m_pFileData->SeekWrite(pde->nDataOffset, dataToWrite.begin(), dataToWrite.size(), &bytesWritten)",
        errWRITE_FAILED);
  if (ChecksByteCounts() && Block.size() != nWritten)
    return FailedCheck("dataToWrite.size() == bytesWritten", errWRITE_FAILED);
  // A block that a CRC vouches for may stand where the file had been cut off.
  if (nWritten != 0) m_nSizeDT = std::max(m_nSizeDT, std::uint64_t{pItem->nDataOffset} + nWritten);
  return errOK;
}

// Brings one changed or added entry to the disk.
ResultCode ObjectDB::StoreDataEntry(tObjectId nObjectId, const tODB_ID_ENTRY& Entry, DataEntries* pEntries,
                                    std::uint32_t nEntry) {
  LUMBRA_INVARIANT(nEntry < pEntries->nCount && pEntries->nCount <= kMaxDataEntries);
  if (pEntries->nCount != Entry.nDataEntriesCount) {
    return AppendDataEntries(nObjectId, Entry, pEntries);
  }
  std::uint32_t nWritten = 0;
  if (Has(featureArrayCrc)) {
    SealDataEntries(nObjectId, pEntries);
    const std::uint32_t nSize = ArraySize(pEntries->nCount);
    if (!WriteData(Entry.nDataEntriesOffset, pEntries->Items, nSize, &nWritten))
      return FailedCheck(
          "m_pFileData->SeekWrite(object_entry.nDataEntriesOffset, data_entries, sizeToWrite, &bytesWritten)",
          errWRITE_FAILED);
    if (ChecksByteCounts() && nSize != nWritten) return FailedCheck("sizeToWrite == bytesWritten", errWRITE_FAILED);
    return errOK;
  }
  const tODB_DATA_ENTRY* const pItem = &pEntries->Items[nEntry];
  if (!WriteData(Entry.nDataEntriesOffset + nEntry * sizeof(tODB_DATA_ENTRY), pItem, sizeof(tODB_DATA_ENTRY),
                 &nWritten))
    return FailedCheck(
        "m_pFileData->SeekWrite(object_entry.nDataEntriesOffset+nEntry*sizeof(tODB_DATA_ENTRY), pde, sizeof(tODB_DATA_ENTRY), &bytesWritten)",
        errWRITE_FAILED);
  if (ChecksByteCounts() && sizeof(tODB_DATA_ENTRY) != nWritten)
    return FailedCheck("sizeof(tODB_DATA_ENTRY) == bytesWritten", errWRITE_FAILED);
  return errOK;
}

// A longer array goes to the end of the file; the record is led to it; then the old array is wiped.
ResultCode ObjectDB::AppendDataEntries(tObjectId nObjectId, const tODB_ID_ENTRY& Entry, DataEntries* pEntries) {
  LUMBRA_INVARIANT(pEntries->nCount <= kMaxDataEntries);
  SealDataEntries(nObjectId, pEntries);
  std::uint32_t nOffset = 0;
  ResultCode nCode = AppendData(pEntries->Items, ArraySize(pEntries->nCount), &nOffset);
  if (Failed(nCode)) return nCode;
  tODB_ID_ENTRY NewEntry = Entry;
  NewEntry.nDataEntriesOffset = nOffset;
  NewEntry.nDataEntriesCount = static_cast<std::uint8_t>(pEntries->nCount);
  nCode = SetIdEntry(nObjectId, &NewEntry);
  if (Failed(nCode)) return nCode;
  const bool bHadArray = Entry.nDataEntriesOffset != 0 && Entry.nDataEntriesCount >= 1;
  if (!bHadArray) return errOK;
  return ZeroFill(Entry.nDataEntriesOffset, ArraySize(Entry.nDataEntriesCount));
}

// Puts the CRC behind the last entry, when the feature set has one there.
void ObjectDB::SealDataEntries(tObjectId nObjectId, DataEntries* pEntries) const {
  if (!Has(featureArrayCrc)) return;
  const std::uint32_t nCrc = m_Crc.Of(nObjectId, pEntries->Items, pEntries->nCount * sizeof(tODB_DATA_ENTRY));
  std::memcpy(pEntries->Items + pEntries->nCount, &nCrc, sizeof(nCrc));
}

ResultCode ObjectDB::ZeroFill(std::uint64_t nOffset, std::uint32_t nCount) {
  constexpr std::uint32_t kPiece = 512;
  constexpr std::uint8_t kZeros[kPiece] = {};
  while (nCount > 0) {
    const std::uint32_t n = nCount < kPiece ? nCount : kPiece;
    if (!WriteData(nOffset, kZeros, n, nullptr))
      return FailedCheck("pFile->SeekWrite(nOffset, zeroes, n, NULL)", errWRITE_FAILED);
    nOffset += n;
    nCount -= n;
  }
  return errOK;
}

ResultCode ObjectDB::RemoveAllObjectData(tObjectId nObjectId) {
  if (nObjectId == 0) return errPARAMETER_INVALID;
  const os::Hold Hold(m_Lock);
  tODB_ID_ENTRY Entry{};
  const ResultCode nCode = GetIdEntry(nObjectId, &Entry, TraceMiss::No);
  if (Failed(nCode)) return nCode;
  Entry.nDataEntriesOffset = 0;
  Entry.nDataEntriesCount = 0;
  return SetIdEntry(nObjectId, &Entry);
}

}  // namespace lumbra
