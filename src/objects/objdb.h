// The object store: names with a type and a parent, found by a 64-bit hash that the caller computes, and from
// then on addressed by a 64-bit id; each with up to 255 data blocks under 32-bit keys.
//
// Three files: the tree that finds hashes (format/tree_file.h), the id records and the data file
// (format/object_files.h). Objects are never deleted. What needs more room than it had is written new block first, then
// the entry or array, then the id record, then zeros over what was replaced, so that an interruption leaves the old or
// the new data reachable and at worst unreferenced bytes. A block that fits its room is rewritten in place; if that is
// interrupted, its CRC tells, where it has one. If a call fails meanwhile, a block whose size was to change is put
// back, at the cost of reading it before; one that keeps its size is not read, and what of it was written stays.
//
// Any thread may call any operation: one lock per store is held for each operation's whole run. No operation
// throws. A failed check writes one trace line and answers the code named in it; damage is answered with
// errDATA_CORRUPTED and never alters what is stored.
#pragma once

#include <cstdint>
#include <memory>

#include "format/data_crc.h"
#include "format/object_files.h"
#include "lumbra/result_code.h"
#include "objects/hash_tree.h"
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
  ResultCode Open(std::uint32_t nNumber, ObjectFiles& Files, TreeHead Head);
  ResultCode Close();  // always errOK
  ResultCode Flush();  // always errOK; failures are traced, and stay in the file objects

  // Bytes of the three files.
  std::uint64_t GetSize();

  // The object with this hash; errOBJECT_NOT_FOUND when there is none.
  ResultCode FindObject(std::uint64_t nHash, tObjectId* pId);

  // The same, or a new object. Parent, flags, type and name are stored when the object is created, and
  // neither compared nor changed when it exists. Hash 0 without a name makes an anonymous object, found by
  // its id alone. bForce replaces an object that is there and detaches broken parts of the tree. pbExisted
  // may be null.
  ResultCode FindOrCreateObject(std::uint64_t nHash, std::uint64_t nParentId, std::uint8_t nFlags, std::uint8_t nType,
                                const void* pName, std::uint32_t nNameSize, bool bForce, tObjectId* pId,
                                bool* pbExisted);

  // What is stored of an object; every output may be null, and all but the name are set also when the name
  // fails. A buffer that is too small receives the name's first bytes and errBUFFER_TOO_SMALL.
  ResultCode GetObjectName(tObjectId nObjectId, void* pBuffer, std::uint32_t nBufferSize, std::uint32_t* pnNameSize,
                           std::uint64_t* pnParentId, std::uint8_t* pnFlags, std::uint8_t* pnType,
                           std::uint64_t* pnHash);

  // The data block under a key; errNOT_FOUND when there is none. With nBufferSize 0 only its size is told. A
  // buffer that is too small: errBUFFER_TOO_SMALL, with the size in *pnDataSize (which may be null when there
  // is a buffer).
  ResultCode GetObjectData(tObjectId nObjectId, void* pBuffer, std::uint32_t nBufferSize, std::uint32_t* pnDataSize,
                           std::uint32_t nDataType);

  // Stores a data block under a key, in place of the one that is there. errOUT_OF_SPACE for a 256th key. A block of no
  // bytes (pData null) under a new key is kept only where blocks have CRCs.
  ResultCode SetObjectData(tObjectId nObjectId, const void* pData, std::uint32_t nSize, std::uint32_t nDataType);

  // Forgets every data block of the object; the space stays taken until the store is compacted.
  ResultCode RemoveAllObjectData(tObjectId nObjectId);

  // The object's hash, 0 when it cannot be read.
  std::uint64_t GetObjectHash(tObjectId nObjectId);

  // Puts the objects back into a tree that knows none, as one that Open had to start anew; only where the store has
  // CRCs. Records that are damaged are left out, and traced. Of several with one hash the newest is found, as before.
  // After a failure (errREAD_FAILED, errWRITE_FAILED, errOUT_OF_MEMORY, errOUT_OF_SPACE) objects that are found are
  // answered; each search for another one first goes on with the refill at the record where it stopped, and as long as
  // that fails it answers the failure's code and creates nothing. A store that is closed meanwhile has its tree started
  // anew by the next Open.
  ResultCode RefillEmptyTree();

  // A cheap check of the two newest objects, where a crash leaves its marks: errOK or the code of the first
  // failed check. Newest objects that the tree does not know are put back into it.
  ResultCode FastConsistencyCheck();

  // Writes the store's records and the blocks that they reach into two empty files, without the holes. Every object
  // keeps its id, so the tree fits the new files as it is. Takes the id file over and closes it at the end, unless it
  // answers errOPEN_FAILED; the data file stays the caller's. The store itself is only read, under its lock.
  ResultCode Compact(std::unique_ptr<StorageFile>& pNewIds, StorageFile& NewData);

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
    std::uint8_t nFlags;
    std::uint8_t nType;
    const void* pName;
    std::uint32_t nNameSize;
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
  bool Has(StoreFeatures Feature) const { return (m_nDataFlags & Feature) != 0; }
  bool HasCrcs() const { return Has(featureBlockCrc) || Has(featureArrayCrc) || Has(featureNameCrc); }

  FileContent LookAtDataFile(StorageFile& File);
  ResultCode ChooseFeatures(const FileContent& Ids);
  ResultCode WriteMagic(StorageFile& File);
  bool KnowsDataSize();
  ResultCode GetIdEntry(tObjectId id, tODB_ID_ENTRY* pEntry, TraceMiss Miss);
  ResultCode SetIdEntry(tObjectId id, const tODB_ID_ENTRY* pEntry);
  ResultCode LookUp(std::uint64_t nHash, tObjectId* pId);
  ResultCode AddObject(const NewObject& Object, tObjectId* pId, tODB_ID_ENTRY* pEntry);
  ResultCode AppendName(const NewObject& Object, std::uint32_t* pnOffset);
  ResultCode AppendData(const void* pData, std::uint32_t nDataSize, std::uint32_t* pnOffset);
  ResultCode ZeroFill(StorageFile* pFile, std::uint64_t nOffset, std::uint32_t nCount);
  ResultCode FindOrInsert(const NewObject& Object, bool bForce, tObjectId* pId, bool* pbExisted);
  ResultCode WalkToSlot(std::uint64_t nHash, bool bForce, HashTree::Place* pAt, tObjectId* pFound);
  ResultCode CreateInSlot(const HashTree::Place& At, const NewObject& Object, bool bReplaces, tObjectId* pId);
  ResultCode ReadCheckedName(const tODB_ID_ENTRY& Entry, void* pBuffer, std::uint32_t nSize);

  std::uint32_t ArraySize(std::uint32_t nCount) const;
  ResultCode ReadDataEntries(tObjectId nObjectId, const tODB_ID_ENTRY& Entry, DataEntries* pEntries);
  void SealDataEntries(tObjectId nObjectId, DataEntries* pEntries) const;
  ResultCode CheckBlockInFile(const tODB_DATA_ENTRY* pItem, std::uint32_t nDataSize);
  ResultCode ReadPlainBlock(const tODB_DATA_ENTRY* pItem, std::uint8_t* pBlock, std::uint32_t nDataSize);
  ResultCode ReadCheckedBlock(tObjectId nObjectId, const tODB_DATA_ENTRY* pItem, std::uint32_t nDataSize,
                              void* pBuffer);
  ResultCode FindRoom(const tODB_DATA_ENTRY& Entry, std::uint32_t* pnRoom, bool* pbInFile);
  bool BuildBlock(tObjectId nObjectId, const void* pData, std::uint32_t nSize, BlockBuffer* pScratch,
                  ByteView* pBlock) const;
  ResultCode MoveBlock(tObjectId nObjectId, const tODB_ID_ENTRY& Entry, DataEntries* pEntries, std::uint32_t nEntry,
                       ByteView Block, bool bOldInFile);
  ResultCode RewriteBlock(tObjectId nObjectId, const tODB_ID_ENTRY& Entry, DataEntries* pEntries, std::uint32_t nEntry,
                          ByteView Block, std::uint32_t nRoom);
  ResultCode OverwriteBlock(const tODB_DATA_ENTRY* pItem, ByteView Block);
  ResultCode StoreDataEntry(tObjectId nObjectId, const tODB_ID_ENTRY& Entry, DataEntries* pEntries,
                            std::uint32_t nEntry);
  ResultCode AppendDataEntries(tObjectId nObjectId, const tODB_ID_ENTRY& Entry, DataEntries* pEntries);

  ResultCode CheckNewestObject(std::uint64_t nObjectId, bool* pbHashMissing);
  ResultCode CheckName(const tODB_ID_ENTRY& Entry);
  ResultCode CheckData(std::uint64_t nObjectId, const tODB_ID_ENTRY& Entry);
  ResultCode ReadRecordForCheck(std::uint64_t nObjectId, tODB_ID_ENTRY* pEntry);
  ResultCode CheckNamePlace(const tODB_ID_ENTRY& Entry);
  ResultCode RepairTree(std::uint64_t nRecords);
  ResultCode PutBack(std::uint64_t nObjectId, const tODB_ID_ENTRY& Entry, bool* pbAdded);
  ResultCode InsertMissingHash(std::uint64_t nObjectId, const tODB_ID_ENTRY& Entry);
  ResultCode FinishRefill();
  ResultCode ContinueRefill();
  ResultCode RefillRest();
  ResultCode BeginRefill();
  ResultCode EndRefill();
  ResultCode RefillRecord(std::uint64_t nIndex);
  ResultCode RefillHash(std::uint64_t nHash, std::uint32_t nShortId);

  bool ValidDataCrc(std::uint64_t nSeed, const void* pBytes, std::size_t nSize, const void* pStoredCrc) const {
    return m_Crc.Valid(nSeed, pBytes, nSize, pStoredCrc);
  }

  // The code of a read of the data file whose missing bytes begin at an offset: past the known size it is
  // damage.
  ResultCode DataReadErrorCode(std::uint64_t nMissingFrom) {
    return KnowsDataSize() && nMissingFrom >= m_nSizeDT ? errDATA_CORRUPTED : errREAD_FAILED;
  }

  const std::uint32_t m_nConfigFlags;  // the feature set of files created now
  const bool m_bConfigNodeCrcs;        // the same for the tree
  os::CriticalSection m_Lock;
  std::uint32_t m_nNumber = 0;
  std::uint32_t m_nDataFlags = 0;  // the feature set of the open data file
  DataCrc m_Crc;
  std::unique_ptr<StorageFile> m_pFileBT;
  std::unique_ptr<StorageFile> m_pFileData;
  HashTree m_Tree;
  PlainDB m_IdDB;
  std::uint64_t m_nSizeID = 0;  // sizes of the id and data files; the tree keeps its own
  std::uint64_t m_nSizeDT = 0;
  bool m_bSizeKnownDT = false;
  TreeRefill m_Refill;
  ObjectCache m_Cache;
};

}  // namespace lumbra
