// The object store: opening, finding, creating and naming objects.
#include "objects/objdb.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "objects/failed_check.h"
#include "platform/failed_step.h"

namespace lumbra {

using objdb::FailedCheck;

ObjectDB::ObjectDB(bool bCheckData)
    : m_nConfigFlags(bCheckData ? kCheckedFeatures : kPlainFeatures), m_bConfigNodeCrcs(bCheckData) {}

// ---- Opening and closing ----------------------------------------------------------------------------------

ResultCode ObjectDB::Open(std::uint32_t nNumber, ObjectFiles& Files, TreeHead Head) {
  const os::Hold Hold(m_Lock);
  if (Files.pTree == nullptr || Files.pIds == nullptr || Files.pData == nullptr) return errPARAMETER_INVALID;
  m_nNumber = nNumber;
  m_Refill = TreeRefill();

  // All three are looked at before the first one is written: where one cannot be read, none changes.
  const FileContent Data = LookAtDataFile(*Files.pData);
  const FileContent Ids = m_IdDB.Look(*Files.pIds, sizeof(tODB_ID_ENTRY));
  ResultCode nCode = Data.OrStartAnew([&] {
    m_Lock.AssertHeld();
    return ChooseFeatures(Ids);
  });
  if (Failed(nCode)) return nCode;
  m_Crc = DataCrc(Has(featureNameCrc));
  const FileContent Tree =
      m_Tree.Look(Files.pTree.get(), {m_bConfigNodeCrcs, Has(featureNameCrc), Head == TreeHead::Large});
  nCode = Tree.Failure();
  if (Succeeded(nCode) && Failed(Ids.Failure())) nCode = errOPEN_FAILED;

  if (Succeeded(nCode)) {
    nCode = Data.OrStartAnew([&] {
      m_Lock.AssertHeld();
      return WriteMagic(*Files.pData);
    });
  }
  if (Succeeded(nCode)) nCode = m_Tree.Take(Tree);
  if (Succeeded(nCode) && !m_IdDB.Take(Ids, Files.pIds, sizeof(tODB_ID_ENTRY), ChecksByteCounts())) {
    nCode = errOPEN_FAILED;
  }
  if (Failed(nCode)) {
    m_Tree.Close();
    return nCode;
  }

  m_pFileBT = std::move(Files.pTree);
  m_pFileData = std::move(Files.pData);
  m_nSizeID = m_IdDB.OpenFileSize();
  m_nSizeDT = 0;
  m_bSizeKnownDT = false;
  m_bEndKnownDT = KnowsDataSize();  // otherwise it is asked for again when it is needed
  m_Data.Use(m_pFileData.get(), m_bEndKnownDT ? m_nSizeDT : UINT64_MAX);
  return errOK;
}

// Tells the feature set by the file's magic.
FileContent ObjectDB::LookAtDataFile(StorageFile& File) {
  FILE_MAGIC Magic{};
  std::uint32_t nRead = 0;
  if (!File.SeekRead(0, Magic, sizeof(FILE_MAGIC), &nRead))
    return FileContent::Unread(
        FailedCheck("pFileData->SeekRead(0, fileMagic, sizeof(FILE_MAGIC), &bytesRead)", errREAD_FAILED));
  if (nRead != sizeof(FILE_MAGIC)) return FileContent::Foreign();
  for (const FeatureMagic& Known : kFeatureMagics) {
    if (std::memcmp(Known.Magic, Magic, sizeof(FILE_MAGIC)) != 0) continue;
    m_nDataFlags = Known.nFeatures;
    return FileContent::Ours();
  }
  return FileContent::Foreign();
}

// The feature set of a data file whose own is lost: with that of this process, the blocks that the records reach would
// be read wrong, or a CRC be missed that was never there. The id file's kind tells how they were written.
ResultCode ObjectDB::ChooseFeatures(const FileContent& Ids) {
  if (Failed(Ids.Failure())) return errOPEN_FAILED;
  m_nDataFlags = m_nConfigFlags;
  if (Ids.IsOurs() && m_IdDB.GetRecordCount() != 0) {
    m_nDataFlags = m_IdDB.IsChecked() ? kCheckedFeatures : kPlainFeatures;
  }
  return errOK;
}

ResultCode ObjectDB::WriteMagic(StorageFile& File) {
  const FILE_MAGIC& Magic = MagicOf(m_nDataFlags);
  std::uint32_t nWritten = 0;
  if (!File.SeekWrite(0, Magic, sizeof(FILE_MAGIC), &nWritten))
    return FailedCheck("pFileData->SeekWrite(0, newFileMagic, sizeof(FILE_MAGIC), &bytesWritten)", errWRITE_FAILED);
  if (ChecksByteCounts() && nWritten != sizeof(FILE_MAGIC)) return errWRITE_FAILED;
  return errOK;
}

ResultCode ObjectDB::Close() {
  const os::Hold Hold(m_Lock);
  m_Cache.Clear();
  m_NameHashes.Clear();
  m_Data.Use(nullptr);
  m_Tree.Close();
  m_pFileBT.reset();
  m_pFileData.reset();
  m_IdDB.Close();
  return errOK;
}

ResultCode ObjectDB::Flush() {
  const os::Hold Hold(m_Lock);
  for (StorageFile* const pFile : {m_pFileBT.get(), m_pFileData.get()}) {
    if (pFile != nullptr && !pFile->Flush()) TraceFailedStep(errWRITE_FAILED);
  }
  m_IdDB.Flush();
  return errOK;
}

bool ObjectDB::IsFlushed() {
  const os::Hold Hold(m_Lock);
  for (const StorageFile* const pFile : {m_pFileBT.get(), m_pFileData.get()}) {
    if (pFile != nullptr && pFile->Modified()) return false;
  }
  return m_IdDB.IsFlushed();
}

std::uint64_t ObjectDB::GetSize() {
  const os::Hold Hold(m_Lock);
  KnowsDataSize();
  return m_Tree.Size() + m_nSizeID + m_nSizeDT;
}

// Whether m_nSizeDT is known; asks for it where the question has failed so far. An unknown size makes no read damage.
bool ObjectDB::KnowsDataSize() {
  if (!m_bSizeKnownDT && m_pFileData != nullptr) m_bSizeKnownDT = m_pFileData->GetSize(&m_nSizeDT);
  return m_bSizeKnownDT;
}

// ---- Id records -------------------------------------------------------------------------------------------

ResultCode ObjectDB::GetIdEntry(tObjectId id, tODB_ID_ENTRY* pEntry, TraceMiss Miss) {
  if (pEntry == nullptr) return errPARAMETER_INVALID;
  if (StoreNumberOf(id) != m_nNumber) return errOBJECT_NOT_FOUND;
  if (const tODB_ID_ENTRY* const pCached = m_Cache.FindById(id)) {
    *pEntry = *pCached;
    return errOK;
  }
  if (Miss == TraceMiss::Yes) Trace(kHostRoot, traceRoutine, "lmb\tObject not found in cache by Id %I64X", id);
  std::uint32_t nRead = 0;
  const std::uint64_t nIndex = std::uint64_t{MAKE_SHORT_OBJECT_ID(id)} - 1;
  const ResultCode nCode = m_IdDB.GetRecord(nIndex, pEntry, sizeof(tODB_ID_ENTRY), &nRead);
  if (Failed(nCode)) return nCode;
  if (ChecksByteCounts() && sizeof(tODB_ID_ENTRY) != nRead)
    return FailedCheck("sizeof(tODB_ID_ENTRY) == bytesRead", errDATA_CORRUPTED);
  m_Cache.Insert(id, *pEntry);
  return errOK;
}

ResultCode ObjectDB::SetIdEntry(tObjectId id, const tODB_ID_ENTRY* pEntry) {
  if (id == 0 || pEntry == nullptr) return errPARAMETER_INVALID;
  if (StoreNumberOf(id) != m_nNumber) return errOBJECT_NOT_FOUND;
  const std::uint64_t nIndex = std::uint64_t{MAKE_SHORT_OBJECT_ID(id)} - 1;
  const ResultCode nCode = m_IdDB.SetRecord(nIndex, pEntry, sizeof(tODB_ID_ENTRY));
  if (Failed(nCode)) return nCode;
  m_Cache.Insert(id, *pEntry);
  return errOK;
}

// ---- Finding and creating ---------------------------------------------------------------------------------

ResultCode ObjectDB::FindObject(std::uint64_t nHash, tObjectId* pId) {
  if (nHash == 0 || pId == nullptr) return errPARAMETER_INVALID;
  const os::Hold Hold(m_Lock);
  return Find(nHash, pId);
}

ResultCode ObjectDB::Find(std::uint64_t nHash, tObjectId* pId) {
  const ResultCode nCode = LookUp(nHash, pId);
  if (Succeeded(nCode) || Succeeded(m_Refill.nFailure)) return nCode;
  // Half a tree says nothing about what is missing from it.
  const ResultCode nRefilled = FinishRefill();
  return Failed(nRefilled) ? nRefilled : LookUp(nHash, pId);
}

// An object that the cache holds without knowing whether its hash leads to it is confirmed by the tree in silence.
ResultCode ObjectDB::LookUp(std::uint64_t nHash, tObjectId* pId) {
  if (const tObjectId* const pCached = m_Cache.FindByHash(nHash)) {
    *pId = *pCached;
    return errOK;
  }
  const TraceMiss Miss = m_Cache.Holds(nHash) ? TraceMiss::No : TraceMiss::Yes;
  if (Miss == TraceMiss::Yes)
    Trace(kHostRoot, traceRoutine, "lmb\tFindObject: not found in cache by hash %I64X", nHash);
  std::uint32_t nShortId = 0;
  ResultCode nCode = m_Tree.Find(nHash, &nShortId);
  if (Failed(nCode)) return nCode;
  const tObjectId id = MakeObjectId(m_nNumber, nShortId);
  tODB_ID_ENTRY Entry{};
  nCode = GetIdEntry(id, &Entry, Miss);
  if (Failed(nCode)) return nCode;
  if (Entry.nObjectHash != nHash) return errOBJECT_NOT_FOUND;
  if ((tObjectId)(MAKE_SHORT_OBJECT_ID(id) - 1) >= m_IdDB.GetRecordCount())
    return FailedCheck("(tObjectId)(MAKE_SHORT_OBJECT_ID(id)-1) < m_IdDB.GetRecordCount()", errDATA_CORRUPTED);
  m_Cache.Vouch(id);
  *pId = id;
  return errOK;
}

ResultCode ObjectDB::FindOrCreateObject(std::uint64_t nHash, std::uint64_t nParentId, std::uint8_t nFlags,
                                        std::uint8_t nType, const void* pName, std::uint32_t nNameSize, bool bForce,
                                        tObjectId* pId, bool* pbExisted) {
  bool bExisted = false;
  bool& bReported = pbExisted != nullptr ? *pbExisted : bExisted;
  bReported = false;
  const NewObject Object{nHash, nParentId, nType, {pName, nNameSize, nFlags}};
  if (nHash == 0) {
    if (pName != nullptr || nNameSize != 0 || pId == nullptr) return errPARAMETER_INVALID;
    const os::Hold Hold(m_Lock);
    tODB_ID_ENTRY Entry{};
    return AddObject(Object, pId, &Entry);
  }
  if (pName == nullptr || nNameSize == 0 || pId == nullptr) return errPARAMETER_INVALID;
  const os::Hold Hold(m_Lock);
  return FindOrCreate(Object, bForce, pId, &bReported);
}

ResultCode ObjectDB::FindOrCreate(const NewObject& Object, bool bForce, tObjectId* pId, bool* pbExisted) {
  if (const tObjectId* const pCached = bForce ? nullptr : m_Cache.FindByHash(Object.nHash)) {
    *pId = *pCached;
    *pbExisted = true;
    return errOK;
  }
  if (Failed(m_Refill.nFailure)) {
    *pbExisted = !bForce && Succeeded(LookUp(Object.nHash, pId));
    if (*pbExisted) return errOK;
    const ResultCode nRefilled = FinishRefill();
    if (Failed(nRefilled)) return nRefilled;
  }
  return FindOrInsert(Object, bForce, pId, pbExisted);
}

ResultCode ObjectDB::FindObject(SoughtName* pName, std::uint64_t nParentId, tObjectId* pId) {
  const os::Hold Hold(m_Lock);
  std::uint64_t nHash = 0;
  const ResultCode nCode = HashBelow(nParentId, pName, &nHash);
  return Failed(nCode) ? nCode : Find(nHash, pId);
}

ResultCode ObjectDB::FindOrCreateObject(SoughtName* pName, std::uint64_t nParentId, std::uint8_t nType,
                                        tObjectId* pId) {
  const os::Hold Hold(m_Lock);
  NewObject Object{0, nParentId, nType, {}, pName};
  const ResultCode nCode = HashBelow(nParentId, pName, &Object.nHash);
  bool bExisted = false;
  return Failed(nCode) ? nCode : FindOrCreate(Object, false, pId, &bExisted);
}

ResultCode ObjectDB::HashBelow(std::uint64_t nParentId, SoughtName* pName, std::uint64_t* pnHash) {
  return pName->HashBelow(nParentId != 0 ? HashOf(nParentId) : 0, &m_NameHashes, pnHash);
}

ResultCode ObjectDB::FindOrInsert(const NewObject& Object, bool bForce, tObjectId* pId, bool* pbExisted) {
  HashTree::Place At;
  tObjectId Found = 0;
  const ResultCode nCode = WalkToSlot(Object.nHash, bForce, &At, &Found);
  if (Failed(nCode)) return nCode;
  if (Found == 0 || bForce) return CreateInSlot(At, Object, Found != 0, pId);
  m_Cache.Vouch(Found);
  *pId = Found;
  *pbExisted = true;
  return errOK;
}

// Walks down the tree to the slot of a hash, which is empty or leads to the object of that hash (0: empty). One of
// another hash that stands there moves down. With bForce broken nodes are detached.
ResultCode ObjectDB::WalkToSlot(std::uint64_t nHash, bool bForce, HashTree::Place* pAt, tObjectId* pFound) {
  std::uint32_t nDetached = 0;
  while (pAt->nLevel <= kMaxTreeLevel) {
    tODB_BT_OFFSET nEntry = 0;
    ResultCode nCode = m_Tree.ReadSlot(*pAt, nHash, &nEntry);
    if (nCode == errDATA_CORRUPTED && bForce && nDetached++ <= kMaxTreeLevel) {
      // What hangs below the broken node is left to the repair; the walk begins again at the root.
      nCode = m_Tree.Detach(*pAt, nHash);
      if (Failed(nCode)) return nCode;
      *pAt = HashTree::Place();
      continue;
    }
    if (Failed(nCode)) return nCode;
    *pFound = 0;
    if (nEntry == 0) return errOK;
    if (IsChild(nEntry)) {
      HashTree::Descend(pAt, nEntry);
      continue;
    }

    const tObjectId Candidate = MakeObjectId(m_nNumber, nEntry);
    tODB_ID_ENTRY Entry{};
    nCode = GetIdEntry(Candidate, &Entry, TraceMiss::No);
    *pFound = Candidate;
    if (nCode == errNOT_FOUND) nCode = errDATA_CORRUPTED;  // the slot names a record that is not there
    // A repairing creation takes the slot of a record that is lost: no name that leads here could be created otherwise.
    if (nCode == errDATA_CORRUPTED && bForce) return errOK;
    if (Failed(nCode)) return nCode;
    if (Entry.nObjectHash == nHash) return errOK;
    if (pAt->nLevel == kMaxTreeLevel) break;
    nCode = m_Tree.Split(pAt, nHash, Entry.nObjectHash, nEntry);
    if (Failed(nCode)) return nCode;
  }
  return errDATA_CORRUPTED;
}

// The slot last: until it is written the object is not there, and nothing points to what was begun. Nor does the cache
// know it before; then it must not go on with the object that the new one replaces.
ResultCode ObjectDB::CreateInSlot(const HashTree::Place& At, const NewObject& Object, bool bReplaces, tObjectId* pId) {
  tObjectId Created = 0;
  tODB_ID_ENTRY Entry{};
  ResultCode nCode = AddObject(Object, &Created, &Entry);
  if (Failed(nCode)) return nCode;
  nCode = m_Tree.WriteSlot(At, Object.nHash, MAKE_SHORT_OBJECT_ID(Created));
  if (Failed(nCode)) return nCode;
  if (bReplaces || m_Cache.Holds(Object.nHash)) {
    m_Cache.Insert(Created, Entry);
    m_Cache.Vouch(Created);
  }
  *pId = Created;
  return errOK;
}

// Appends an object's name and record; *pEntry is the record.
ResultCode ObjectDB::AddObject(const NewObject& Object, tObjectId* pId, tODB_ID_ENTRY* pEntry) {
  StoredName Name = Object.Name;
  if (Object.pSought != nullptr) {
    const ResultCode nCode = Object.pSought->ToStored(&Name);
    if (Failed(nCode)) return nCode;
  }
  if (Name.nSize > kMaxNameSize) return errSIZE_INVALID;
  tODB_ID_ENTRY& Entry = *pEntry;
  Entry = {};
  Entry.nObjectHash = Object.nHash;
  Entry.nParentId = Object.nParentId;
  Entry.nFlags = Name.nFlags;
  Entry.nType = Object.nType;
  Entry.nNameSize = static_cast<std::uint16_t>(Name.nSize);
  if (Name.nSize > 0) {
    std::uint32_t nName = 0;
    const ResultCode nCode = AppendName(Object.nHash, Name, &nName);
    if (Failed(nCode)) return nCode;
    Entry.nName = nName;
  }
  if (m_IdDB.GetRecordCount() > kMaxObjects) return errOUT_OF_SPACE;
  std::uint64_t nIndex = 0;
  const ResultCode nCode = m_IdDB.AddRecord(&Entry, sizeof(Entry), &nIndex);
  if (Failed(nCode)) return nCode;
  *pId = MakeObjectId(m_nNumber, static_cast<std::uint32_t>(nIndex + 1));
  m_nSizeID += m_IdDB.StoredRecordSize();
  return errOK;
}

ResultCode ObjectDB::AppendName(std::uint64_t nHash, const StoredName& Name, std::uint32_t* pnOffset) {
  if (!Has(featureNameCrc)) return AppendData(Name.pBytes, Name.nSize, pnOffset);
  const std::uint32_t nCrc = m_Crc.Of(nHash, Name.pBytes, Name.nSize);
  NameBuffer Block;
  if (!Block.Resize(Name.nSize + kCrcSize)) return errOUT_OF_MEMORY;
  std::memcpy(Block.Get(), Name.pBytes, Name.nSize);
  std::memcpy(Block.Get() + Name.nSize, &nCrc, sizeof(nCrc));
  return AppendData(Block.Get(), Block.size(), pnOffset);
}

ResultCode ObjectDB::AppendData(const void* pData, std::uint32_t nDataSize, std::uint32_t* pnOffset) {
  std::uint64_t nOffset = m_nSizeDT;
  std::uint32_t nWritten = 0;
  if (!m_bEndKnownDT && !m_pFileData->GetSize(&nOffset))
    return FailedCheck("m_pFileData->GetSize(&nOffset)", errWRITE_FAILED);
  if (nOffset + nDataSize > kMaxDataFileSize) return errOUT_OF_SPACE;
  if (!WriteData(nOffset, pData, nDataSize, &nWritten))
    return FailedCheck("m_pFileData->SeekWrite(nOffset, pData, nDataSize, &bytesWritten)", errWRITE_FAILED);
  if (ChecksByteCounts() && nDataSize != nWritten) return FailedCheck("nDataSize == bytesWritten", errWRITE_FAILED);
  m_bSizeKnownDT = true;
  m_bEndKnownDT = nWritten == nDataSize;
  m_nSizeDT = nOffset + nDataSize;  // from the file: a write that failed may have left bytes before this one
  *pnOffset = static_cast<std::uint32_t>(nOffset);
  return errOK;
}

// The file is ours alone, so its end is where our writes have put it. After one that failed or came up short the system
// is asked.
bool ObjectDB::WriteData(std::uint64_t nOffset, const void* pData, std::uint32_t nSize, std::uint32_t* pnWritten) {
  std::uint32_t nWritten = 0;
  const bool bWritten = m_Data.SeekWrite(nOffset, pData, nSize, &nWritten);
  m_bEndKnownDT = m_bEndKnownDT && bWritten && nWritten == nSize;
  if (bWritten && pnWritten != nullptr) *pnWritten = nWritten;
  return bWritten;
}

// ---- Names ------------------------------------------------------------------------------------------------

ResultCode ObjectDB::Describe(tObjectId nObjectId, ObjectDescription* pObject) {
  const os::Hold Hold(m_Lock);
  tODB_ID_ENTRY Entry{};
  const ResultCode nCode = ReadEntry(nObjectId, &Entry);
  if (Succeeded(nCode)) *pObject = DescriptionOf(Entry);
  return nCode;
}

ResultCode ObjectDB::ReadName(tObjectId nObjectId, std::span<std::uint8_t> Name) {
  if (Name.data() == nullptr && !Name.empty()) return errPARAMETER_INVALID;
  const os::Hold Hold(m_Lock);
  tODB_ID_ENTRY Entry{};
  const ResultCode nCode = ReadEntry(nObjectId, &Entry);
  return Failed(nCode) ? nCode : ReadNameOf(Entry, Name);
}

ResultCode ObjectDB::ReadEntry(tObjectId nObjectId, tODB_ID_ENTRY* pEntry) {
  return nObjectId == 0 ? errPARAMETER_INVALID : GetIdEntry(nObjectId, pEntry, TraceMiss::Yes);
}

ObjectDescription ObjectDB::DescriptionOf(const tODB_ID_ENTRY& Entry) {
  return {Entry.nObjectHash, Entry.nParentId, Entry.nNameSize, Entry.nFlags, Entry.nType};
}

ResultCode ObjectDB::ReadNameOf(const tODB_ID_ENTRY& Entry, std::span<std::uint8_t> Name) {
  const auto nSize = static_cast<std::uint32_t>(std::min<std::size_t>(Name.size(), Entry.nNameSize));
  if (nSize == 0) return errOK;
  if (Has(featureNameCrc)) {
    const ResultCode nRead = ReadCheckedName(Entry, Name.first(nSize));
    if (Failed(nRead)) return nRead;
  } else {
    std::uint32_t nRead = 0;
    const bool bRead = m_Data.SeekRead(Entry.nName, Name.data(), nSize, &nRead);
    if (!bRead || nRead != nSize) return DataReadErrorCode(std::uint64_t{Entry.nName} + nRead);
  }
  return nSize < Entry.nNameSize ? errBUFFER_TOO_SMALL : errOK;
}

// Reads the whole name and its CRC, and delivers as many bytes as are asked for, also those of a name that fails the
// CRC.
ResultCode ObjectDB::ReadCheckedName(const tODB_ID_ENTRY& Entry, std::span<std::uint8_t> Name) {
  const std::uint32_t nWanted = Entry.nNameSize + kCrcSize;
  NameBuffer Buffer;
  if (!Buffer.Resize(nWanted)) return errOUT_OF_MEMORY;
  std::uint32_t nRead = 0;
  if (!m_Data.SeekRead(Entry.nName, Buffer.Get(), nWanted, &nRead))
    return FailedCheck("m_pFileData->SeekRead(object_entry.nName, buffer.Get(), bytesToRead, &bytesRead)",
                       DataReadErrorCode(Entry.nName));
  if (nRead != nWanted)
    return FailedCheck("bytesRead == bytesToRead", DataReadErrorCode(std::uint64_t{Entry.nName} + nRead));
  std::memcpy(Name.data(), Buffer.Get(), Name.size());
  if (!ValidDataCrc(Entry.nObjectHash, Buffer.Get(), Entry.nNameSize, Buffer.Get() + Entry.nNameSize))
    return FailedCheck(
        "ValidDataCrc(object_entry.nObjectHash, buffer.Get(), object_entry.nNameSize, buffer.Get() + object_entry.nNameSize)",
        errDATA_CORRUPTED);
  return errOK;
}

std::uint64_t ObjectDB::GetObjectHash(tObjectId nObjectId) {
  const os::Hold Hold(m_Lock);
  return HashOf(nObjectId);
}

std::uint64_t ObjectDB::HashOf(tObjectId nObjectId) {
  tODB_ID_ENTRY Entry{};
  return Succeeded(GetIdEntry(nObjectId, &Entry, TraceMiss::Yes)) ? Entry.nObjectHash : 0;
}

}  // namespace lumbra
