// The object store: the quick check of its newest objects, and the repair of a tree that lost some.
//
// A crash can cost the objects that were created last their slots in the tree, or leave their blocks
// unwritten. So the check looks at the newest two, and the repair walks backwards from the newest, until it
// meets a run of objects that the tree finds. Both create nothing and change no record: the repair adds slots
// and nodes alone. So does the refill, which fills a tree that was lost from all the records that are sound.
#include <algorithm>

#include "objects/failed_check.h"
#include "objects/objdb.h"

namespace lumbra {
namespace {

using objdb::FailedCheck;

constexpr std::uint64_t kCheckedObjects = 2;

// So many objects in a row that the tree finds end the repair: older ones were written long before the crash.
constexpr std::uint32_t kFoundRunEndsRepair = 6;

}  // namespace

ResultCode ObjectDB::FastConsistencyCheck() {
  // The shared store is checked while other instances may use it.
  const os::Hold Hold(m_Lock);
  if (!HasCrcs()) return errOK;
  const ResultCode nRefilled = FinishRefill();
  if (Failed(nRefilled)) return nRefilled;  // what half a tree does not find is no damage
  if (Failed(m_IdDB.FastConsistencyCheck()))
    return FailedCheck("Succeeded(m_IdDB.FastConsistencyCheck())", errDATA_CORRUPTED);
  const std::uint64_t nRecords = m_IdDB.GetRecordCount();
  std::uint32_t nMissing = 0;
  for (std::uint64_t nIndex = nRecords - std::min(nRecords, kCheckedObjects); nIndex < nRecords; ++nIndex) {
    bool bHashMissing = false;
    const ResultCode nCode = CheckNewestObject(nIndex, &bHashMissing);
    if (Failed(nCode)) return nCode;
    if (bHashMissing) ++nMissing;
  }
  if (nMissing == 0) return errOK;
  Trace(kHostRoot, traceDamage, "lmb\tHash wasn't found for %lu objects, trying to repair BT", nMissing);
  return RepairTree(nRecords);
}

// ---- The check --------------------------------------------------------------------------------------------

// nObjectId is the index of the object's record here, one less than its short id.
ResultCode ObjectDB::CheckNewestObject(std::uint64_t nObjectId, bool* pbHashMissing) {
  tODB_ID_ENTRY Entry{};
  const ResultCode nCode = ReadRecordForCheck(nObjectId, &Entry);
  if (Failed(nCode)) return nCode;
  if (IsInTree(Entry)) {
    tObjectId Found = 0;
    const ResultCode nFound = Find(Entry.nObjectHash, &Found);
    if (nFound == errOBJECT_NOT_FOUND) {
      Trace(kHostRoot, traceDamage, "lmb\tObject %lu - hash not found in BT", static_cast<std::uint32_t>(nObjectId));
      *pbHashMissing = true;
    } else {
      if (Failed(nFound)) return FailedCheck("FindObject(objectEntry.nObjectHash, &idFromBt)", errDATA_CORRUPTED);
      if (MAKE_SHORT_OBJECT_ID(Found) != nObjectId + 1)
        return FailedCheck("MAKE_SHORT_OBJECT_ID(idFromBt) == nObjectId + 1", errDATA_CORRUPTED);
    }
  }
  if (!*pbHashMissing) {
    const ResultCode nName = CheckName(Entry);
    if (Failed(nName)) return nName;
  }
  return Entry.nDataEntriesCount == 0 ? errOK : CheckData(nObjectId, Entry);
}

ResultCode ObjectDB::ReadRecordForCheck(std::uint64_t nObjectId, tODB_ID_ENTRY* pEntry) {
  std::uint32_t nRead = 0;
  if (Failed(m_IdDB.GetRecord(nObjectId, pEntry, sizeof(tODB_ID_ENTRY), &nRead)))
    return FailedCheck("m_IdDB.GetRecord(nObjectId, &objectEntry, sizeof(tODB_ID_ENTRY), &bytesRead)",
                       errDATA_CORRUPTED);
  if (nRead != sizeof(tODB_ID_ENTRY)) return FailedCheck("bytesRead == sizeof(tODB_ID_ENTRY)", errDATA_CORRUPTED);
  return CheckNamePlace(*pEntry);
}

ResultCode ObjectDB::CheckNamePlace(const tODB_ID_ENTRY& Entry) {
  if (!KnowsDataSize()) return FailedCheck("m_pFileData->GetSize(&m_nSizeDT)", errREAD_FAILED);
  if (std::uint64_t{Entry.nName} + Entry.nNameSize > m_nSizeDT)
    return FailedCheck("objectEntry.nName + objectEntry.nNameSize <= m_nSizeDT", errDATA_CORRUPTED);
  return errOK;
}

ResultCode ObjectDB::CheckName(const tODB_ID_ENTRY& Entry) {
  const bool bHasBlock = Entry.nNameSize != 0;  // an anonymous object has no name block
  if (!bHasBlock || !Has(featureNameCrc)) return errOK;
  const std::uint32_t nWanted = Entry.nNameSize + kCrcSize;
  NameBuffer Buffer;
  if (!Buffer.Resize(nWanted)) return errOUT_OF_MEMORY;
  std::uint32_t nRead = 0;
  if (!m_Data.SeekRead(Entry.nName, Buffer.Get(), nWanted, &nRead))
    return FailedCheck("m_pFileData->SeekRead(objectEntry.nName, buffer.Get(), bytesToRead, &bytesRead)",
                       DataReadErrorCode(Entry.nName));
  if (nRead != nWanted)
    return FailedCheck("bytesRead == bytesToRead", DataReadErrorCode(std::uint64_t{Entry.nName} + nRead));
  if (!ValidDataCrc(Entry.nObjectHash, Buffer.Get(), Entry.nNameSize, Buffer.Get() + Entry.nNameSize))
    return FailedCheck(
        "ValidDataCrc(objectEntry.nObjectHash, buffer.Get(), objectEntry.nNameSize, buffer.Get() + objectEntry.nNameSize)",
        errDATA_CORRUPTED);
  return errOK;
}

ResultCode ObjectDB::CheckData(std::uint64_t nObjectId, const tODB_ID_ENTRY& Entry) {
  const std::uint32_t nArraySize = ArraySize(Entry.nDataEntriesCount);
  if (std::uint64_t{Entry.nDataEntriesOffset} + nArraySize > m_nSizeDT)
    return FailedCheck("objectEntry.nDataEntriesOffset + dataEntriesBytesCount <= m_nSizeDT", errDATA_CORRUPTED);
  DataEntries Entries;
  tODB_DATA_ENTRY* const dataEntries = Entries.Items;
  std::uint32_t nRead = 0;
  if (!m_Data.SeekRead(Entry.nDataEntriesOffset, dataEntries, nArraySize, &nRead))
    return FailedCheck(
        "m_pFileData->SeekRead(objectEntry.nDataEntriesOffset, dataEntries, dataEntriesBytesCount, &bytesRead)",
        errREAD_FAILED);
  if (nRead != nArraySize) return FailedCheck("bytesRead == dataEntriesBytesCount", errREAD_FAILED);
  if (Has(featureArrayCrc)) {
    if (!ValidDataCrc(nObjectId + 1, dataEntries, Entry.nDataEntriesCount * sizeof(tODB_DATA_ENTRY),
                      dataEntries + Entry.nDataEntriesCount))
      return FailedCheck(
          "ValidDataCrc(nObjectId + 1, dataEntries, objectEntry.nDataEntriesCount * sizeof(tODB_DATA_ENTRY), dataEntries + objectEntry.nDataEntriesCount)",
          errDATA_CORRUPTED);
  }
  if (!Has(featureBlockCrc)) return errOK;
  for (std::uint32_t nEntry = 0; nEntry < Entry.nDataEntriesCount; ++nEntry) {
    const std::uint32_t nWanted = DataSize::Decode(dataEntries[nEntry].nDataSize).nStored;
    if (nWanted < kCrcSize) return errDATA_CORRUPTED;
    const std::uint64_t nOffset = dataEntries[nEntry].nDataOffset;
    // No memory for more than the file holds, whatever the entry claims: the read would come up short.
    if (nOffset + nWanted > m_nSizeDT) return FailedCheck("bytesRead == bytesToRead", errDATA_CORRUPTED);
    BlockBuffer Buffer;
    if (!Buffer.Resize(nWanted)) return errOUT_OF_MEMORY;
    if (!m_Data.SeekRead(dataEntries[nEntry].nDataOffset, Buffer.Get(), nWanted, &nRead))
      return FailedCheck(
          "m_pFileData->SeekRead(dataEntries[nEntry].nDataOffset, buffer.Get(), bytesToRead, &bytesRead)",
          DataReadErrorCode(nOffset));
    if (nRead != nWanted) return FailedCheck("bytesRead == bytesToRead", DataReadErrorCode(nOffset + nRead));
    if (Has(featureMask)) MaskDataBlock(Buffer.Get(), nWanted);
    const std::uint32_t nUserSize = nWanted - kCrcSize;
    if (!ValidDataCrc(nObjectId + 1, Buffer.Get(), nUserSize, Buffer.Get() + nUserSize))
      return FailedCheck("ValidDataCrc(nObjectId + 1, buffer.Get(), userDataSize, buffer.Get() + userDataSize)",
                         errDATA_CORRUPTED);
  }
  return errOK;
}

// ---- The repair -------------------------------------------------------------------------------------------

ResultCode ObjectDB::RepairTree(std::uint64_t nRecords) {
  std::uint32_t nAdded = 0;
  std::uint32_t nFoundRun = 0;
  for (std::uint64_t nObjectId = nRecords; nObjectId-- > 0 && nFoundRun < kFoundRunEndsRepair;) {
    tODB_ID_ENTRY Entry{};
    const ResultCode nCode = ReadRecordForCheck(nObjectId, &Entry);
    if (Failed(nCode)) return nCode;
    if (!IsInTree(Entry)) continue;
    bool bAdded = false;
    const ResultCode nPutBack = PutBack(nObjectId, Entry, &bAdded);
    if (Failed(nPutBack)) return nPutBack;
    nAdded += bAdded ? 1 : 0;
    nFoundRun = bAdded ? 0 : nFoundRun + 1;
  }
  Trace(kHostRoot, traceDamage, "lmb\tBT was repaired, %lu object hashes were added", nAdded);
  return errOK;
}

// Adds an object to the tree, unless that finds it, or a newer one of the same hash.
ResultCode ObjectDB::PutBack(std::uint64_t nObjectId, const tODB_ID_ENTRY& Entry, bool* pbAdded) {
  tObjectId Found = 0;
  const ResultCode nFound = Find(Entry.nObjectHash, &Found);
  if (Succeeded(nFound)) return errOK;
  if (nFound != errOBJECT_NOT_FOUND)
    return FailedCheck("FindObject(objectEntry.nObjectHash, &idFromBt)", errDATA_CORRUPTED);
  Trace(kHostRoot, traceDamage, "lmb\tObject %lu - hash not found in BT", static_cast<std::uint32_t>(nObjectId + 1));
  *pbAdded = true;
  return InsertMissingHash(nObjectId, Entry);
}

ResultCode ObjectDB::InsertMissingHash(std::uint64_t nObjectId, const tODB_ID_ENTRY& Entry) {
  const std::uint64_t nHash = Entry.nObjectHash;
  HashTree::Place At;
  tODB_BT_OFFSET nNext = 0;
  while (At.nLevel <= kMaxTreeLevel) {
    if (Failed(m_Tree.ReadSlot(At, nHash, &nNext)))
      return FailedCheck("Succeeded(m_Tree.ReadSlot(At, nHash, &next_offset))", errDATA_CORRUPTED);
    if (nNext == 0) break;
    if (IsChild(nNext)) {
      HashTree::Descend(&At, nNext);
      continue;
    }
    if (At.nLevel == kMaxTreeLevel) break;
    tODB_ID_ENTRY OtherEntry{};
    const tObjectId Other = MakeObjectId(m_nNumber, nNext);
    if (Failed(GetIdEntry(Other, &OtherEntry, TraceMiss::No)))
      return FailedCheck("Succeeded(GetIdEntry(Other, &object_entry, TraceMiss::No))", errDATA_CORRUPTED);
    if (OtherEntry.nObjectHash == Entry.nObjectHash)
      return FailedCheck("object_entry.nObjectHash != objectEntry.nObjectHash", errDATA_CORRUPTED);
    if (Failed(m_Tree.Split(&At, nHash, OtherEntry.nObjectHash, nNext)))
      return FailedCheck("Succeeded(m_Tree.Split(&At, nHash, object_entry.nObjectHash, next_offset))",
                         errDATA_CORRUPTED);
  }
  if (0 != nNext) return FailedCheck("0 == next_offset", errDATA_CORRUPTED);
  if (Failed(m_Tree.WriteSlot(At, nHash, static_cast<std::uint32_t>(nObjectId + 1))))
    return FailedCheck("Succeeded(m_Tree.WriteSlot(At, nHash, static_cast<std::uint32_t>(nObjectId + 1)))",
                       errDATA_CORRUPTED);
  return errOK;
}

// ---- The refill -------------------------------------------------------------------------------------------

ResultCode ObjectDB::RefillEmptyTree(Refill Which) {
  const os::Hold Hold(m_Lock);
  if ((Which == Refill::Always || HasCrcs()) && m_IdDB.GetRecordCount() != 0) m_Refill.nFailure = ContinueRefill();
  return m_Refill.nFailure;
}

// Another attempt, where the last one failed.
ResultCode ObjectDB::FinishRefill() {
  if (Failed(m_Refill.nFailure)) m_Refill.nFailure = ContinueRefill();
  return m_Refill.nFailure;
}

// Failed writes may have left a damaged node in the tree. It is then filled from the start within the same attempt: to
// the quick check the answer errDATA_CORRUPTED would mean that the store is damaged.
ResultCode ObjectDB::ContinueRefill() {
  const BlockTable::Passing Passing(m_Blocks);  // all records, once: what is used stays
  const ResultCode nCode = RefillRest();
  const bool bDamaged = nCode == errDATA_CORRUPTED && m_Refill.Next == TreeRefill::Step::StartTreeAnew;
  return bDamaged ? RefillRest() : nCode;
}

// From the newest record to the oldest. The next attempt goes on with the record that could not be read or put back.
ResultCode ObjectDB::RefillRest() {
  if (m_Refill.Next != TreeRefill::Step::PutBack) {
    const ResultCode nCode = BeginRefill();
    if (Failed(nCode)) return nCode;
  }
  for (; m_Refill.nLeft > 0; --m_Refill.nLeft) {
    const ResultCode nCode = RefillRecord(m_Refill.nLeft - 1);
    if (Failed(nCode)) return nCode;
  }
  return EndRefill();
}

// Where the tree is empty every record is to be looked at; otherwise none.
ResultCode ObjectDB::BeginRefill() {
  const bool bAnew = m_Refill.Next == TreeRefill::Step::StartTreeAnew;
  bool bEmpty = true;
  const ResultCode nCode = bAnew ? m_Tree.StartAnew() : m_Tree.IsEmpty(&bEmpty);
  if (Failed(nCode)) return nCode;
  m_Refill = TreeRefill();
  m_Refill.Next = TreeRefill::Step::PutBack;
  m_Refill.nLeft = bEmpty ? m_IdDB.GetRecordCount() : 0;
  return errOK;
}

ResultCode ObjectDB::EndRefill() {
  if (m_Refill.bBegun) {
    const ResultCode nCode = m_Tree.SetUsable(true);
    if (Failed(nCode)) return nCode;
    Trace(kHostRoot, traceDamage, "lmb\tBT was repaired, %lu object hashes were added", m_Refill.nAdded);
  }
  m_Refill = TreeRefill();
  return errOK;
}

// Puts back the object of a record. One that was read and is damaged is left out; its failed check is in the trace.
ResultCode ObjectDB::RefillRecord(std::uint64_t nIndex) {
  tODB_ID_ENTRY Entry{};
  ResultCode nCode = m_IdDB.GetRecord(nIndex, &Entry, sizeof(Entry), nullptr);
  if (Succeeded(nCode)) nCode = CheckNamePlace(Entry);
  if (nCode == errDATA_CORRUPTED) return errOK;
  if (Failed(nCode) || !IsInTree(Entry)) return nCode;
  nCode = RefillHash(Entry.nObjectHash, static_cast<std::uint32_t>(nIndex + 1));
  if (nCode == errDATA_CORRUPTED) m_Refill.Next = TreeRefill::Step::StartTreeAnew;
  return nCode;
}

ResultCode ObjectDB::RefillHash(std::uint64_t nHash, std::uint32_t nShortId) {
  HashTree::Place At;
  tObjectId Found = 0;
  ResultCode nCode = WalkToSlot(nHash, false, &At, &Found);
  if (Failed(nCode) || Found != 0) return nCode;  // a newer object has the hash
  // With the first object, and not before: a tree that is empty for good reason is left alone.
  if (!m_Refill.bBegun) nCode = m_Tree.SetUsable(false);
  if (Failed(nCode)) return nCode;
  m_Refill.bBegun = true;
  Trace(kHostRoot, traceDamage, "lmb\tObject %lu - hash not found in BT", nShortId);
  nCode = m_Tree.WriteSlot(At, nHash, nShortId);
  if (Succeeded(nCode)) ++m_Refill.nAdded;
  return nCode;
}

}  // namespace lumbra
