// The object store: compaction.
//
// A block that was replaced, and the data that an object dropped, leave holes in the data file. Compaction copies what
// the records still reach into a fresh pair of files, object by object in the order of their ids: name, data blocks,
// entry array, record. What cannot be read or fails its CRC is left out, not carried over: a bad name makes an object
// nameless, bad data makes it dataless. Blocks are copied as they are stored; their own CRCs are not looked at.
#include <cstring>

#include "objects/failed_check.h"
#include "objects/objdb.h"

namespace lumbra {
namespace {

// Where no CRC protects the entries, a size above this is taken for damage rather than for a block.
constexpr std::uint32_t kMaxUnprotectedSize = 0xA00000;

}  // namespace

// One pass, under the live store's lock. An answer that is a failure ends it.
class ObjectDB::Compaction {
 public:
  Compaction(ObjectDB* pLive, PlainDB* pNewIds, StorageFile* pNewData)
      : m_Live(*pLive), m_NewIds(*pNewIds), m_NewData(*pNewData) {}

  ResultCode WriteMagic();
  ResultCode CopyObjects();
  ResultCode Flush();

 private:
  enum class Kept { No, Yes };

  ResultCode CopyObject(std::uint64_t nIndex) REQUIRES(m_Live.m_Lock);
  ResultCode CopyName(std::uint64_t nIndex, tODB_ID_ENTRY* pEntry, Kept* pName) REQUIRES(m_Live.m_Lock);
  ResultCode CopyData(std::uint64_t nIndex, tODB_ID_ENTRY* pEntry) REQUIRES(m_Live.m_Lock);
  ResultCode CopyBlocks(std::uint64_t nIndex, DataEntries* pEntries, Kept* pData) REQUIRES(m_Live.m_Lock);
  ResultCode CopyBlock(std::uint64_t nIndex, tODB_DATA_ENTRY* pEntry, Kept* pBlock) REQUIRES(m_Live.m_Lock);
  bool ReadEntries(std::uint64_t nIndex, const tODB_ID_ENTRY& Entry, DataEntries* pEntries) REQUIRES(m_Live.m_Lock);
  bool ReadLive(std::uint64_t nOffset, void* pBuffer, std::uint32_t nSize) REQUIRES(m_Live.m_Lock);
  ResultCode Append(const void* pData, std::uint32_t nSize, std::uint32_t* pnOffset) REQUIRES(m_Live.m_Lock);

  ObjectDB& m_Live;
  PlainDB& m_NewIds;
  StorageFile& m_NewData;
  std::uint64_t m_nPosition = 0;  // where the next block goes in the new data file
  BlockBuffer m_Buffer;           // for one name or block at a time: what a pass needs does not grow with the store
};

ResultCode ObjectDB::Compact(std::unique_ptr<StorageFile>& pNewIds, StorageFile& NewData) {
  const os::Hold Hold(m_Lock);
  const BlockTable::Passing Passing(m_Blocks);  // all there is, once: what is used stays
  PlainDB NewIds;
  const StorageFile* const pIds = pNewIds.get();
  if (!NewIds.Open(pNewIds, sizeof(tODB_ID_ENTRY), ChecksByteCounts())) return errOPEN_FAILED;
  Compaction Pass(this, &NewIds, &NewData);
  ResultCode nCode = Pass.WriteMagic();
  if (Succeeded(nCode)) nCode = Pass.CopyObjects();
  if (Succeeded(nCode)) nCode = Pass.Flush();
  // The record file keeps a failure to itself; a pair that may not be on the disk must not be put in place.
  return Succeeded(nCode) && pIds->Modified() ? errWRITE_FAILED : nCode;
}

ResultCode ObjectDB::Compaction::WriteMagic() {
  m_Live.m_Lock.AssertHeld();
  std::uint32_t nOffset = 0;
  return Append(MagicOf(m_Live.m_nDataFlags), sizeof(FILE_MAGIC), &nOffset);
}

ResultCode ObjectDB::Compaction::CopyObjects() {
  m_Live.m_Lock.AssertHeld();
  const std::uint64_t nRecords = m_Live.m_IdDB.GetRecordCount();
  for (std::uint64_t nIndex = 0; nIndex < nRecords; ++nIndex) {
    const ResultCode nCode = CopyObject(nIndex);
    if (Failed(nCode)) return nCode;
  }
  return errOK;
}

ResultCode ObjectDB::Compaction::Flush() {
  if (!m_NewData.Flush()) return errWRITE_FAILED;
  m_NewIds.Flush();
  return errOK;
}

// The record last: it names the places of the others.
ResultCode ObjectDB::Compaction::CopyObject(std::uint64_t nIndex) {
  tODB_ID_ENTRY Entry{};
  std::uint32_t nSize = 0;
  ResultCode nCode = m_Live.m_IdDB.GetRecord(nIndex, &Entry, sizeof(Entry), &nSize);
  if (Failed(nCode)) return nCode;
  if (nSize != sizeof(Entry)) return errREAD_FAILED;

  Kept Name = Kept::Yes;
  if (Entry.nNameSize > 0) nCode = CopyName(nIndex, &Entry, &Name);
  if (Succeeded(nCode) && Entry.nDataEntriesCount > 0 && Name == Kept::Yes) nCode = CopyData(nIndex, &Entry);
  if (Failed(nCode)) return nCode;
  if (Name == Kept::No) {
    Entry.nObjectHash = kInvalidHash;
    Entry.nName = 0;
    Entry.nNameSize = 0;
    Entry.nDataEntriesOffset = 0;
    Entry.nDataEntriesCount = 0;
  }

  std::uint64_t nNewIndex = 0;
  nCode = m_NewIds.AddRecord(&Entry, sizeof(Entry), &nNewIndex);
  if (Failed(nCode)) return nCode;
  return nNewIndex == nIndex ? errOK : errINDEX_MISMATCH;
}

ResultCode ObjectDB::Compaction::CopyName(std::uint64_t nIndex, tODB_ID_ENTRY* pEntry, Kept* pName) {
  *pName = Kept::No;
  const std::uint32_t nOffset = pEntry->nName;
  const std::uint32_t nSize = pEntry->nNameSize + (m_Live.Has(featureNameCrc) ? kCrcSize : 0);
  if (!m_Buffer.Resize(nSize)) return errOUT_OF_MEMORY;
  const std::uint8_t* const pBytes = m_Buffer.Get();
  if (!ReadLive(nOffset, m_Buffer.Get(), nSize)) {
    Trace(kHostRoot, traceDamage,
          "lmb\tCompact: could not read name, entry id: %I64X, offset: %X, the object is marked as invalid", nIndex,
          nOffset);
    return errOK;
  }
  if (m_Live.Has(featureNameCrc) &&
      !m_Live.ValidDataCrc(pEntry->nObjectHash, pBytes, pEntry->nNameSize, pBytes + pEntry->nNameSize)) {
    Trace(kHostRoot, traceDamage,
          "lmb\tCompact: name crc mismatch, entry id: %I64X, offset: %X, the object is marked as invalid", nIndex,
          nOffset);
    return errOK;
  }
  *pName = Kept::Yes;
  std::uint32_t nNewOffset = 0;
  const ResultCode nCode = Append(pBytes, nSize, &nNewOffset);
  pEntry->nName = nNewOffset;
  return nCode;
}

// Copies an object's blocks and their entries, or takes its data away when one of them cannot be had.
ResultCode ObjectDB::Compaction::CopyData(std::uint64_t nIndex, tODB_ID_ENTRY* pEntry) {
  DataEntries Entries;
  Kept Data = ReadEntries(nIndex, *pEntry, &Entries) ? Kept::Yes : Kept::No;
  std::uint32_t nNewOffset = 0;
  if (Data == Kept::Yes) {
    const ResultCode nCode = CopyBlocks(nIndex, &Entries, &Data);
    if (Failed(nCode)) return nCode;
  }
  if (Data == Kept::Yes) {
    m_Live.SealDataEntries(nIndex + 1, &Entries);
    const ResultCode nCode = Append(Entries.Items, m_Live.ArraySize(Entries.nCount), &nNewOffset);
    if (Failed(nCode)) return nCode;
  } else {
    pEntry->nDataEntriesCount = 0;
  }
  pEntry->nDataEntriesOffset = nNewOffset;
  return errOK;
}

bool ObjectDB::Compaction::ReadEntries(std::uint64_t nIndex, const tODB_ID_ENTRY& Entry, DataEntries* pEntries) {
  pEntries->nCount = Entry.nDataEntriesCount;
  if (!ReadLive(Entry.nDataEntriesOffset, pEntries->Items, m_Live.ArraySize(pEntries->nCount))) {
    Trace(kHostRoot, traceDamage,
          "lmb\tCompact: could not read entries, entry id: %I64X, offset: %X, object data is deleted", nIndex,
          std::uint32_t{Entry.nDataEntriesOffset});
    return false;
  }
  if (!m_Live.Has(featureArrayCrc)) return true;
  const std::size_t nSize = pEntries->nCount * sizeof(tODB_DATA_ENTRY);
  if (m_Live.ValidDataCrc(nIndex + 1, pEntries->Items, nSize, pEntries->Items + pEntries->nCount)) return true;
  Trace(kHostRoot, traceDamage,
        "lmb\tCompact: entries crc mismatch, entry id: %I64X, offset: %X, object data is deleted", nIndex,
        std::uint32_t{Entry.nDataEntriesOffset});
  return false;
}

ResultCode ObjectDB::Compaction::CopyBlocks(std::uint64_t nIndex, DataEntries* pEntries, Kept* pData) {
  for (std::uint32_t nEntry = 0; nEntry < pEntries->nCount; ++nEntry) {
    const ResultCode nCode = CopyBlock(nIndex, &pEntries->Items[nEntry], pData);
    if (Failed(nCode) || *pData == Kept::No) return nCode;
  }
  return errOK;
}

// With all the room that the block has, so that it can still be rewritten in place.
ResultCode ObjectDB::Compaction::CopyBlock(std::uint64_t nIndex, tODB_DATA_ENTRY* pEntry, Kept* pBlock) {
  *pBlock = Kept::No;
  const std::uint32_t nOffset = pEntry->nDataOffset;
  const std::uint32_t nSize = DataSize::Decode(pEntry->nDataSize).nCapacity;
  const bool bProtected = m_Live.Has(featureArrayCrc);
  if (!bProtected && nSize > kMaxUnprotectedSize) {
    Trace(kHostRoot, traceDamage,
          "lmb\tCompact: too big entry data size, entry id: %I64X, size: %d, object data is deleted", nIndex, nSize);
    return errOK;
  }
  // No memory is taken for what does not lie in the file, whatever the entry claims.
  const bool bInFile = !m_Live.KnowsDataSize() || std::uint64_t{nOffset} + nSize <= m_Live.m_nSizeDT;
  if (bInFile && !m_Buffer.Resize(nSize)) {
    if (bProtected) return errOUT_OF_MEMORY;
    Trace(kHostRoot, traceDamage,
          "lmb\tCompact: could not allocate buffer for data, entry id: %I64X, size: %d, object data is deleted", nIndex,
          nSize);
    return errOK;
  }
  if (!bInFile || !ReadLive(nOffset, m_Buffer.Get(), nSize)) {
    Trace(kHostRoot, traceDamage,
          "lmb\tCompact: could not read data, entry id: %I64X, offset: %X, object data is deleted", nIndex, nOffset);
    return errOK;
  }
  *pBlock = Kept::Yes;
  std::uint32_t nNewOffset = 0;
  const ResultCode nCode = Append(m_Buffer.Get(), nSize, &nNewOffset);
  pEntry->nDataOffset = nNewOffset;
  return nCode;
}

// Reads from the live data file; a short read is a failure.
bool ObjectDB::Compaction::ReadLive(std::uint64_t nOffset, void* pBuffer, std::uint32_t nSize) {
  std::uint32_t nRead = 0;
  return m_Live.m_Data.SeekRead(nOffset, pBuffer, nSize, &nRead) && nRead == nSize;
}

ResultCode ObjectDB::Compaction::Append(const void* pData, std::uint32_t nSize, std::uint32_t* pnOffset) {
  if (m_nPosition + nSize > kMaxDataFileSize) return errOUT_OF_SPACE;
  std::uint32_t nWritten = 0;
  if (!m_NewData.SeekWrite(m_nPosition, pData, nSize, &nWritten) || nWritten != nSize) return errWRITE_FAILED;
  *pnOffset = static_cast<std::uint32_t>(m_nPosition);
  m_nPosition += nSize;
  return errOK;
}

}  // namespace lumbra
