// The object store: names with a type and a parent, found by a 64-bit hash that the caller computes, and from
// then on addressed by a 64-bit id; each with up to 255 data blocks under 32-bit keys.
//
// Three files: the tree that finds hashes (format/tree_file.h), the id records and the data file
// (format/object_files.h). Objects are never deleted. Data that outgrows its room is written new block first, then its
// entry, then zeros over the old block; an array of entries that grows, behind the block, at a new place, then the id
// record, then zeros over the old array: so that an interruption leaves the old or the new data reachable and at worst
// unreferenced bytes. A block that fits its room is rewritten in place; if that is
// interrupted, its CRC tells, where it has one. If a call fails meanwhile, a block whose size was to change is put
// back, at the cost of reading it before; one that keeps its size is not read, and what of it was written stays.
//
// Any thread may call any operation: one lock per store is held for each operation's whole run, taken by the public
// functions alone. No operation throws. A failed check writes one trace line and answers the code named in it; damage
// is answered with errDATA_CORRUPTED and never alters what is stored.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>

#include "format/data_crc.h"
#include "format/object_files.h"
#include "lumbra/result_code.h"
#include "objects/block_table.h"
#include "objects/hash_tree.h"
#include "objects/name_hashes.h"
#include "objects/object_cache.h"
#include "objects/plaindb.h"
#include "platform/os.h"
#include "platform/scratch_buffer.h"
#include "platform/storage_file.h"

namespace lumbra {

enum class TreeHead { Small, Large };  // how much of the tree the store holds in memory

// The files of a store.
struct ObjectFiles {
  std::unique_ptr<StorageFile> pTree;
  std::unique_ptr<StorageFile> pIds;
  std::unique_ptr<StorageFile> pData;
};

// What is stored of an object beside the bytes of its name and its data.
struct ObjectDescription {
  std::uint64_t nHash;
  std::uint64_t nParentId;
  std::uint32_t nNameSize;  // bytes
  std::uint8_t nFlags;
  std::uint8_t nType;
};

// A name in the form in which it is stored, and the flags that say so.
struct StoredName {
  const void* pBytes;
  std::uint32_t nSize;
  std::uint8_t nFlags;
};

// A name that is looked for below a parent. How it is hashed, and in what form it is stored, is known to who looks; the
// store asks under its lock, and for the form only where it creates the object.
class SoughtName {
 public:
  // The hash, of a parent with this one: 0 where there is none, or it cannot be read. A failure ends the search.
  virtual ResultCode HashBelow(std::uint64_t nParentHash, NameHashes* pKnown, std::uint64_t* pnHash) = 0;
  virtual ResultCode ToStored(StoredName* pStored) = 0;

 protected:
  ~SoughtName() = default;
};

class ObjectDB {
 public:
  // With bCheckData new files get every kind of CRC, and reads and writes are checked for their full byte
  // count. Files that exist keep the format they were created with.
  explicit ObjectDB(bool bCheckData);
  ~ObjectDB() { (void)Close(); }  // answers errOK always
  ObjectDB(const ObjectDB&) = delete;
  ObjectDB& operator=(const ObjectDB&) = delete;

  // Opens the store with its number (0: the shared store; otherwise the segment's). Takes the files over when
  // it succeeds; otherwise they stay with the caller. Where one of them cannot be read none is changed, and opening
  // them can be tried again; what was read and is damaged or foreign is started anew, and never a reason to fail.
  ResultCode Open(std::uint32_t nNumber, ObjectFiles& Files, TreeHead Head) EXCLUDES(m_Lock);
  ResultCode Close() EXCLUDES(m_Lock);  // always errOK
  ResultCode Flush() EXCLUDES(m_Lock);  // always errOK; failures are traced, and stay in the file objects

  bool IsFlushed() EXCLUDES(m_Lock);

  // Bytes of the three files.
  std::uint64_t GetSize() EXCLUDES(m_Lock);

  // The object with this hash; errOBJECT_NOT_FOUND when there is none.
  ResultCode FindObject(std::uint64_t nHash, tObjectId* pId) EXCLUDES(m_Lock);

  // The same, or a new object. Parent, flags, type and name are stored when the object is created, and
  // neither compared nor changed when it exists. Hash 0 without a name makes an anonymous object, found by
  // its id alone. bForce replaces an object that is there and detaches broken parts of the tree. pbExisted
  // may be null.
  ResultCode FindOrCreateObject(std::uint64_t nHash, std::uint64_t nParentId, std::uint8_t nFlags, std::uint8_t nType,
                                const void* pName, std::uint32_t nNameSize, bool bForce, tObjectId* pId,
                                bool* pbExisted) EXCLUDES(m_Lock);

  // The two by a name, below the parent of this id (0 for none).
  ResultCode FindObject(SoughtName* pName, std::uint64_t nParentId, tObjectId* pId) EXCLUDES(m_Lock);
  ResultCode FindOrCreateObject(SoughtName* pName, std::uint64_t nParentId, std::uint8_t nType, tObjectId* pId)
      EXCLUDES(m_Lock);

  ResultCode Describe(tObjectId nObjectId, ObjectDescription* pObject) EXCLUDES(m_Lock);

  // The name's bytes, as they are stored. Room that is too small receives the first ones and errBUFFER_TOO_SMALL.
  ResultCode ReadName(tObjectId nObjectId, std::span<std::uint8_t> Name) EXCLUDES(m_Lock);

  // Both at once. The name is read where Wants, shown the description under the lock, says so and Room is enough for
  // it: *pName then has the answer of that, and is left alone otherwise.
  template <class Predicate>
  ResultCode DescribeAndReadName(tObjectId nObjectId, ObjectDescription* pObject, std::span<std::uint8_t> Room,
                                 Predicate Wants, std::optional<ResultCode>* pName) EXCLUDES(m_Lock);

  // The data block under a key; errNOT_FOUND when there is none. With nBufferSize 0 only its size is told. A
  // buffer that is too small: errBUFFER_TOO_SMALL, with the size in *pnDataSize (which may be null when there
  // is a buffer).
  ResultCode GetObjectData(tObjectId nObjectId, void* pBuffer, std::uint32_t nBufferSize, std::uint32_t* pnDataSize,
                           std::uint32_t nDataType) EXCLUDES(m_Lock);

  // Stores a data block under a key, in place of the one that is there. errOUT_OF_SPACE for a 256th key. A block of no
  // bytes (pData null) under a new key is kept only where blocks have CRCs.
  ResultCode SetObjectData(tObjectId nObjectId, const void* pData, std::uint32_t nSize, std::uint32_t nDataType)
      EXCLUDES(m_Lock);

  // Forgets every data block of the object; the space stays taken until the store is compacted.
  ResultCode RemoveAllObjectData(tObjectId nObjectId) EXCLUDES(m_Lock);

  // The object's hash, 0 when it cannot be read.
  std::uint64_t GetObjectHash(tObjectId nObjectId) EXCLUDES(m_Lock);

  // Puts the objects back into a tree that knows none, as one that Open had to start anew; where the store has CRCs, or
  // always. Records that are damaged are left out, and traced. Of several with one hash the newest is found, as before.
  // After a failure (errREAD_FAILED, errWRITE_FAILED, errOUT_OF_MEMORY, errOUT_OF_SPACE) objects that are found are
  // answered; each search for another one first goes on with the refill at the record where it stopped, and as long as
  // that fails it answers the failure's code and creates nothing. A store that is closed meanwhile has its tree started
  // anew by the next Open.
  enum class Refill { WhereCrcs, Always };
  ResultCode RefillEmptyTree(Refill Which = Refill::WhereCrcs) EXCLUDES(m_Lock);

  // A cheap check of the two newest objects, where a crash leaves its marks: errOK or the code of the first
  // failed check. Newest objects that the tree does not know are put back into it.
  ResultCode FastConsistencyCheck() EXCLUDES(m_Lock);

  // Writes the store's records and the blocks that they reach into two empty files, without the holes. Every object
  // keeps its id, so the tree fits the new files as it is. Takes the id file over and closes it at the end, unless it
  // answers errOPEN_FAILED; the data file stays the caller's. The store itself is only read, under its lock.
  ResultCode Compact(std::unique_ptr<StorageFile>& pNewIds, StorageFile& NewData) EXCLUDES(m_Lock);

 private:
  class Compaction;

  using NameBuffer = ScratchBuffer<64>;
  using BlockBuffer = ScratchBuffer<64>;

  // An object's data entry array with room for one more entry, or for the CRC behind the last one.
  struct DataEntries {
    static constexpr std::uint32_t kNone = UINT32_MAX;

    // The index of the first entry under a key, or kNone.
    std::uint32_t Find(std::uint32_t nDataType) const;

    tODB_DATA_ENTRY Items[kMaxDataEntries + 1];
    std::uint32_t nCount;
  };

  struct ByteView {
    const std::uint8_t* pFirst;
    std::uint32_t nSize;
    const std::uint8_t* begin() const { return pFirst; }
    std::uint32_t size() const { return nSize; }
  };

  struct NewObject {
    std::uint64_t nHash;
    std::uint64_t nParentId;
    std::uint8_t nType;
    StoredName Name;
    SoughtName* pSought = nullptr;  // where given, the name is asked of it
  };

  // How far the refill of an empty tree has come.
  struct TreeRefill {
    enum class Step { LookAtTree, StartTreeAnew, PutBack };

    ResultCode nFailure = errOK;  // of the last attempt; errOK: nothing is left to do
    Step Next = Step::LookAtTree;
    std::uint64_t nLeft = 0;   // so many of the oldest records are still to be looked at
    bool bBegun = false;       // the tree's header says that it may not be used
    std::uint32_t nAdded = 0;  // objects put back so far
  };

  enum class TraceMiss { No, Yes };

  // Whether every read and write must move all of its bytes.
  bool ChecksByteCounts() const { return (m_nConfigFlags & featureBlockCrc) != 0; }
  bool Has(StoreFeatures Feature) const REQUIRES(m_Lock) { return (m_nDataFlags & Feature) != 0; }
  bool HasCrcs() const REQUIRES(m_Lock) { return Has(featureBlockCrc) || Has(featureArrayCrc) || Has(featureNameCrc); }

  FileContent LookAtDataFile(StorageFile& File) REQUIRES(m_Lock);
  ResultCode ChooseFeatures(const FileContent& Ids) REQUIRES(m_Lock);
  ResultCode WriteMagic(StorageFile& File) REQUIRES(m_Lock);
  bool KnowsDataSize() REQUIRES(m_Lock);
  ResultCode GetIdEntry(tObjectId id, tODB_ID_ENTRY* pEntry, TraceMiss Miss) REQUIRES(m_Lock);
  ResultCode SetIdEntry(tObjectId id, const tODB_ID_ENTRY* pEntry) REQUIRES(m_Lock);
  ResultCode Find(std::uint64_t nHash, tObjectId* pId) REQUIRES(m_Lock);
  ResultCode LookUp(std::uint64_t nHash, tObjectId* pId) REQUIRES(m_Lock);
  std::uint64_t HashOf(tObjectId nObjectId) REQUIRES(m_Lock);
  ResultCode HashBelow(std::uint64_t nParentId, SoughtName* pName, std::uint64_t* pnHash) REQUIRES(m_Lock);
  ResultCode FindOrCreate(const NewObject& Object, bool bForce, tObjectId* pId, bool* pbExisted) REQUIRES(m_Lock);
  ResultCode AddObject(const NewObject& Object, tObjectId* pId, tODB_ID_ENTRY* pEntry) REQUIRES(m_Lock);
  ResultCode AppendName(std::uint64_t nHash, const StoredName& Name, std::uint32_t* pnOffset) REQUIRES(m_Lock);
  ResultCode AppendData(const void* pData, std::uint32_t nDataSize, std::uint32_t* pnOffset) REQUIRES(m_Lock);
  ResultCode ZeroFill(std::uint64_t nOffset, std::uint32_t nCount) REQUIRES(m_Lock);
  bool WriteData(std::uint64_t nOffset, const void* pData, std::uint32_t nSize, std::uint32_t* pnWritten)
      REQUIRES(m_Lock);
  ResultCode FindOrInsert(const NewObject& Object, bool bForce, tObjectId* pId, bool* pbExisted) REQUIRES(m_Lock);
  ResultCode WalkToSlot(std::uint64_t nHash, bool bForce, HashTree::Place* pAt, tObjectId* pFound) REQUIRES(m_Lock);
  ResultCode CreateInSlot(const HashTree::Place& At, const NewObject& Object, bool bReplaces, tObjectId* pId)
      REQUIRES(m_Lock);
  ResultCode ReadEntry(tObjectId nObjectId, tODB_ID_ENTRY* pEntry) REQUIRES(m_Lock);
  static ObjectDescription DescriptionOf(const tODB_ID_ENTRY& Entry);
  ResultCode ReadNameOf(const tODB_ID_ENTRY& Entry, std::span<std::uint8_t> Name) REQUIRES(m_Lock);
  ResultCode ReadCheckedName(const tODB_ID_ENTRY& Entry, std::span<std::uint8_t> Name) REQUIRES(m_Lock);

  std::uint32_t ArraySize(std::uint32_t nCount) const REQUIRES(m_Lock);
  ResultCode ReadDataEntries(tObjectId nObjectId, const tODB_ID_ENTRY& Entry, DataEntries* pEntries) REQUIRES(m_Lock);
  void SealDataEntries(tObjectId nObjectId, DataEntries* pEntries) const REQUIRES(m_Lock);
  ResultCode CheckBlockInFile(const tODB_DATA_ENTRY* pItem, std::uint32_t nDataSize) REQUIRES(m_Lock);
  ResultCode ReadPlainBlock(const tODB_DATA_ENTRY* pItem, std::uint8_t* pBlock, std::uint32_t nDataSize)
      REQUIRES(m_Lock);
  ResultCode ReadCheckedBlock(tObjectId nObjectId, const tODB_DATA_ENTRY* pItem, std::uint32_t nDataSize, void* pBuffer)
      REQUIRES(m_Lock);
  ResultCode FindRoom(const tODB_DATA_ENTRY& Entry, std::uint32_t* pnRoom, bool* pbInFile) REQUIRES(m_Lock);
  bool BuildBlock(tObjectId nObjectId, const void* pData, std::uint32_t nSize, BlockBuffer* pScratch,
                  ByteView* pBlock) const REQUIRES(m_Lock);
  ResultCode MoveBlock(tObjectId nObjectId, const tODB_ID_ENTRY& Entry, DataEntries* pEntries, std::uint32_t nEntry,
                       ByteView Block, bool bOldInFile) REQUIRES(m_Lock);
  ResultCode RewriteBlock(tObjectId nObjectId, const tODB_ID_ENTRY& Entry, DataEntries* pEntries, std::uint32_t nEntry,
                          ByteView Block, std::uint32_t nRoom) REQUIRES(m_Lock);
  ResultCode OverwriteBlock(const tODB_DATA_ENTRY* pItem, ByteView Block) REQUIRES(m_Lock);
  ResultCode StoreDataEntry(tObjectId nObjectId, const tODB_ID_ENTRY& Entry, DataEntries* pEntries,
                            std::uint32_t nEntry) REQUIRES(m_Lock);
  ResultCode AppendDataEntries(tObjectId nObjectId, const tODB_ID_ENTRY& Entry, DataEntries* pEntries) REQUIRES(m_Lock);

  ResultCode CheckNewestObject(std::uint64_t nObjectId, bool* pbHashMissing) REQUIRES(m_Lock);
  ResultCode CheckName(const tODB_ID_ENTRY& Entry) REQUIRES(m_Lock);
  ResultCode CheckData(std::uint64_t nObjectId, const tODB_ID_ENTRY& Entry) REQUIRES(m_Lock);
  ResultCode ReadRecordForCheck(std::uint64_t nObjectId, tODB_ID_ENTRY* pEntry) REQUIRES(m_Lock);
  ResultCode CheckNamePlace(const tODB_ID_ENTRY& Entry) REQUIRES(m_Lock);
  ResultCode RepairTree(std::uint64_t nRecords) REQUIRES(m_Lock);
  ResultCode PutBack(std::uint64_t nObjectId, const tODB_ID_ENTRY& Entry, bool* pbAdded) REQUIRES(m_Lock);
  ResultCode InsertMissingHash(std::uint64_t nObjectId, const tODB_ID_ENTRY& Entry) REQUIRES(m_Lock);
  ResultCode FinishRefill() REQUIRES(m_Lock);
  ResultCode ContinueRefill() REQUIRES(m_Lock);
  ResultCode RefillRest() REQUIRES(m_Lock);
  ResultCode BeginRefill() REQUIRES(m_Lock);
  ResultCode EndRefill() REQUIRES(m_Lock);
  ResultCode RefillRecord(std::uint64_t nIndex) REQUIRES(m_Lock);
  ResultCode RefillHash(std::uint64_t nHash, std::uint32_t nShortId) REQUIRES(m_Lock);

  bool ValidDataCrc(std::uint64_t nSeed, const void* pBytes, std::size_t nSize, const void* pStoredCrc) const
      REQUIRES(m_Lock) {
    return m_Crc.Valid(nSeed, pBytes, nSize, pStoredCrc);
  }

  // The code of a read of the data file whose missing bytes begin at an offset: past the known size it is
  // damage.
  ResultCode DataReadErrorCode(std::uint64_t nMissingFrom) REQUIRES(m_Lock) {
    return KnowsDataSize() && nMissingFrom >= m_nSizeDT ? errDATA_CORRUPTED : errREAD_FAILED;
  }

  const std::uint32_t m_nConfigFlags;  // the feature set of files created now
  const bool m_bConfigNodeCrcs;        // the same for the tree
  os::CriticalSection m_Lock;
  std::uint32_t m_nNumber GUARDED_BY(m_Lock) = 0;
  std::uint32_t m_nDataFlags GUARDED_BY(m_Lock) = 0;  // the feature set of the open data file
  DataCrc m_Crc GUARDED_BY(m_Lock);
  std::unique_ptr<StorageFile> m_pFileBT GUARDED_BY(m_Lock);
  std::unique_ptr<StorageFile> m_pFileData GUARDED_BY(m_Lock);
  BlockTable m_Blocks GUARDED_BY(m_Lock){m_Lock};
  BlockFile m_Data GUARDED_BY(m_Lock){&m_Blocks, 0};  // m_pFileData
  HashTree m_Tree GUARDED_BY(m_Lock){&m_Blocks, 1};
  PlainDB m_IdDB GUARDED_BY(m_Lock){&m_Blocks, 2};
  std::uint64_t m_nSizeID GUARDED_BY(m_Lock) = 0;  // sizes of the id and data files; the tree keeps its own
  std::uint64_t m_nSizeDT GUARDED_BY(m_Lock) = 0;
  bool m_bSizeKnownDT GUARDED_BY(m_Lock) = false;
  bool m_bEndKnownDT GUARDED_BY(m_Lock) = false;  // m_nSizeDT is the end of the file: no write left a part of itself
  TreeRefill m_Refill GUARDED_BY(m_Lock);
  ObjectCache m_Cache GUARDED_BY(m_Lock);
  NameHashes m_NameHashes GUARDED_BY(m_Lock);
};

template <class Predicate>
ResultCode ObjectDB::DescribeAndReadName(tObjectId nObjectId, ObjectDescription* pObject, std::span<std::uint8_t> Room,
                                         Predicate Wants, std::optional<ResultCode>* pName) {
  const os::Hold Hold(m_Lock);
  tODB_ID_ENTRY Entry{};
  const ResultCode nCode = ReadEntry(nObjectId, &Entry);
  if (Failed(nCode)) return nCode;
  *pObject = DescriptionOf(Entry);
  if (Wants(*pObject) && Entry.nNameSize <= Room.size()) *pName = ReadNameOf(Entry, Room.first(Entry.nNameSize));
  return errOK;
}

}  // namespace lumbra
