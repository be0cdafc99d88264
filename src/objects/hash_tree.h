// The tree that finds an object by its 64-bit hash, in a file of its own (format/tree_file.h).
//
// Nodes are only ever appended and never freed. An insertion writes the new object's slot last, when everything that it
// points to exists: interrupted, it leaves at worst an object that the tree does not reach, which the repair of the
// store puts back, or a node that nothing points to.
//
// The object store's lock serialises all of this.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "format/crc32.h"
#include "format/data_crc.h"
#include "format/tree_file.h"
#include "lumbra/result_code.h"
#include "objects/block_table.h"
#include "platform/file_content.h"
#include "platform/storage_file.h"

namespace lumbra {

class HashTree {
 public:
  struct Options {
    bool bNodeCrcsIfCreated;  // an existing file keeps its own kind
    bool bSeededCrcs;
    bool bLargeHead;  // hold the first nodes after the root in memory, too
  };

  // Where a walk stands. Offsets are without the top bit; 0 is no node.
  struct Place {
    std::uint32_t nNode = FirstNodeOffset;
    std::uint32_t nParent = 0;
    std::uint32_t nGrandparent = 0;
    std::uint32_t nLevel = 0;
  };

  // With a table, whose owner's lock serialises the calls, what lies beyond the head is read through its blocks.
  explicit HashTree(BlockTable* pBlocks = nullptr, std::uint32_t nFile = 0) : m_File(pBlocks, nFile) {}

  // Opens the file, which stays the caller's and must outlive the use. A wrong recorded size is replaced by
  // the real one; a damaged header or root starts the tree anew, empty. After a failure nothing is open, and a file
  // that could not be read is as it was.
  ResultCode Open(StorageFile* pFile, const Options& Use) { return Take(Look(pFile, Use)); }
  void Close();

  // The two steps of Open, for an owner who looks at more files before any is written. Look changes nothing, and Take
  // goes on with what it found.
  FileContent Look(StorageFile* pFile, const Options& Use);
  ResultCode Take(const FileContent& Found);

  std::uint64_t Size() const { return m_nSizeBT; }

  // Whether it holds no object; *pbEmpty is stored on success only.
  ResultCode IsEmpty(bool* pbEmpty);

  // Whether the next Open takes the tree as it is, or starts it anew: so that half a tree never passes for the whole.
  // Nor when the power goes: "not usable" is on the disk before anything that is written later, and all that was
  // written before is there ahead of "usable". A sync that fails is traced, and does not end the step.
  ResultCode SetUsable(bool bUsable);

  // Empties the open tree, which keeps its kind. After a failure nothing can be read from it until this succeeds.
  ResultCode StartAnew();

  // The short id in the slot that the hash leads to; errOBJECT_NOT_FOUND for an empty one. The caller
  // compares the object's hash: another object with a hash that shares the prefix may own the slot.
  ResultCode Find(std::uint64_t nHash, std::uint32_t* pnShortId);

  // The steps of a walk that inserts: look at the slot, follow it, split it, or fill it.
  ResultCode ReadSlot(const Place& At, std::uint64_t nHash, tODB_BT_OFFSET* pnEntry);
  ResultCode WriteSlot(const Place& At, std::uint64_t nHash, tODB_BT_OFFSET nEntry);
  static void Descend(Place* pAt, tODB_BT_OFFSET nChild) {
    *pAt = {nChild & ~kChildBit, pAt->nNode, pAt->nParent, pAt->nLevel + 1};
  }

  // Moves the slot's object, of another hash, into a new child node, below so many more that the two hashes part there,
  // and descends into that.
  ResultCode Split(Place* pAt, std::uint64_t nHash, std::uint64_t nOtherHash, std::uint32_t nOtherShortId);

  // Empties the parent's slot that leads to a broken node. errPARAMETER_INVALID at the root.
  ResultCode Detach(const Place& At, std::uint64_t nHash);

 private:
  // More than all nodes below the root take that stand one below the other.
  static constexpr std::uint32_t kMaxRunSize = 1024;

  std::uint32_t CrcSize() const { return m_bNodeCrcs ? kCrcSize : 0; }
  static std::uint32_t SlotsSize(std::uint32_t nLevel) {
    return SlotsOnLevel(nLevel) * static_cast<std::uint32_t>(sizeof(tODB_BT_OFFSET));
  }
  std::uint32_t NodeSize(std::uint32_t nLevel) const { return SlotsSize(nLevel) + CrcSize(); }
  std::uint32_t RootEnd() const { return FirstNodeOffset + kRootSlots * sizeof(tODB_BT_OFFSET) + CrcSize(); }

  FileContent LookAtHeader();
  FileContent LookAtRoot();
  ResultCode StoreHeader();
  void Sync();
  bool PrepareHead();

  bool BT_SeekRead(std::uint64_t nOffset, void* pBuffer, std::uint32_t nSize, std::uint32_t* pnRead) {
    return nOffset + nSize > m_nBtHeadSize ? m_File.SeekRead(nOffset, pBuffer, nSize, pnRead)
                                           : ReadHead(nOffset, pBuffer, nSize, pnRead);
  }
  bool ReadHead(std::uint64_t nOffset, void* pBuffer, std::uint32_t nSize, std::uint32_t* pnRead);
  bool BT_SeekWrite(std::uint64_t nOffset, const void* pData, std::uint32_t nSize, std::uint32_t* pnWritten);
  ResultCode BT_GetNodeEntry(std::uint32_t nNodeOffset, std::uint32_t nPreviousOffset, std::uint32_t nLevel,
                             std::uint32_t nEntryNo, tODB_BT_OFFSET* pOffset);
  ResultCode ReadEntry(std::uint32_t nNodeOffset, std::uint32_t nEntryNo, tODB_BT_OFFSET* pOffset);
  ResultCode ReadEntries(std::uint32_t nNodeOffset, std::uint32_t nSlotsSize, tODB_BT_OFFSET* Slots);
  ResultCode BT_SetNodeEntry(std::uint32_t nNodeOffset, std::uint32_t nPreviousOffset, std::uint32_t nLevel,
                             std::uint32_t nEntryNo, tODB_BT_OFFSET nOffset);
  ResultCode WriteEntry(std::uint32_t nNodeOffset, std::uint32_t nEntryNo, tODB_BT_OFFSET nOffset);
  ResultCode WriteChecked(std::uint32_t nNodeOffset, std::uint32_t nLevel, std::uint32_t nEntryNo,
                          const tODB_BT_OFFSET* Node);
  Place BuildRun(Place At, std::uint32_t nLast, std::uint32_t nNode, std::uint64_t nObjectHash, std::uint32_t nShortId,
                 std::uint8_t* pRun) const;
  ResultCode BT_AddNode(std::uint32_t nLevel, std::uint32_t nPreviousOffset, std::uint32_t* pnNodeOffset);
  ResultCode BT_ExtendDB(std::uint32_t nAdded, std::uint64_t* pnOldSize);

  bool ValidDataCrc(std::uint64_t nSeed, const void* pBytes, std::size_t nSize, const void* pStoredCrc) const {
    return m_Crc.Valid(nSeed, pBytes, nSize, pStoredCrc);
  }

  // The code of a read whose missing bytes begin at an offset: past the file's known size it is damage.
  ResultCode ReadErrorCode(std::uint64_t nMissingFrom) const {
    return nMissingFrom >= m_nSizeBT ? errDATA_CORRUPTED : errREAD_FAILED;
  }

  StorageFile* m_pFile = nullptr;
  BlockFile m_File;  // the same
  Options m_Use{};
  tODB_BT_HEADER m_Header{};        // what Look read, with the size that it should have
  bool m_bHeaderMended = false;     // the size in the file is another one: Take writes m_Header
  std::uint64_t m_nActualSize = 0;  // bytes of the file when Look saw it
  DataCrc m_Crc;
  bool m_bNodeCrcs = false;
  std::uint64_t m_nSizeBT = 0;              // used size of the file, as nDBSize
  std::uint32_t m_nBtHeadSize = 0;          // how much of the file's head is held in memory
  std::vector<std::uint8_t> m_btHead;       // what is held of it; empty until the first read through it
  std::vector<std::uint8_t> m_nodeChecked;  // per offset in the head: level + 1 of a node whose CRC was found good
};

}  // namespace lumbra
