// Blocks of files in memory, so that what was read lately costs no call of the system.
//
// Each owner of files (an object store, a segment's events) has a table of its own, under its own lock: a block that is
// there is found without another lock. All tables of the process share one budget, which is asked at a miss alone. When
// it is used up, a table that misses takes a block from another one that has not been read from lately, where that
// one's lock is free, or the one of its own that was not used for longest. From then on nothing is allocated.
//
// Writes go to the file first, and then into the blocks that are there. What a write may have left half done is
// forgotten, and read again. A block is a copy of what the system gave: bytes that somebody else changes in an open
// store may be seen later.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/os.h"
#include "platform/storage_file.h"

namespace lumbra {

class BlockTable;

struct FileBlock {
  // A page: what a read of less would cost the system, too.
  static constexpr std::uint32_t kSize = 4096;

  std::uint64_t nKey;  // the block's number in its file, and the file
  FileBlock* pChain;   // the next one of the same bucket
  FileBlock* pOlder;   // in the order in which they were read
  FileBlock* pNewer;
  std::uint32_t nValid;  // bytes; fewer than kSize where the file ended when it was read
  bool bUsed;            // since it was last considered for something else
  std::uint8_t Bytes[kSize];
};

// What the tables of a process may take together.
class BlockBudget {
 public:
  static constexpr std::uint64_t kUsualBytes = std::uint64_t{16} << 20;  // propCACHE_BYTES

  // The last one counts, for the process; 0 keeps nothing. Tables that are in use come down to it at their next miss.
  static void SetLimit(std::uint64_t nBytes);

 private:
  friend class BlockTable;
  struct Known;

  static Known& All();
  static FileBlock* Take(BlockTable& For);
  static FileBlock* TakeFromOthers(Known& Now, const BlockTable& For);
  static void GiveBack(BlockTable& From, FileBlock* pBlock);
  static void Leave(BlockTable& Table);
};

// Its owner's lock is held in every call.
class BlockTable {
 public:
  explicit BlockTable(os::CriticalSection& Owner) : m_Owner(Owner) {}
  ~BlockTable() { Clear(); }
  BlockTable(const BlockTable&) = delete;
  BlockTable& operator=(const BlockTable&) = delete;

  static constexpr std::uint32_t kMaxFiles = 4;  // a store has three

  FileBlock* Find(std::uint32_t nFile, std::uint64_t nNumber) const {
    if (m_Buckets.empty()) return nullptr;
    const std::uint64_t nKey = KeyOf(nFile, nNumber);
    FileBlock* pBlock = m_Buckets[BucketOf(nKey)];
    while (pBlock != nullptr && pBlock->nKey != nKey) pBlock = pBlock->pChain;
    return pBlock;
  }

  // Says that a block was read from: others go before it.
  void NoteRead(FileBlock* pBlock) { pBlock->bUsed = m_bRead = true; }

  // A block to read into, which holds nothing yet; null where there is none to be had.
  FileBlock* Add(std::uint32_t nFile, std::uint64_t nNumber);

  void Drop(FileBlock* pBlock);
  void DropFile(std::uint32_t nFile);
  void Clear();  // gives all back

  // While one lives, what is not there is read past the table: for those who read all there is once.
  class Passing {
   public:
    explicit Passing(BlockTable& Table) : m_Table(Table) { ++m_Table.m_nPassing; }
    ~Passing() { --m_Table.m_nPassing; }
    Passing(const Passing&) = delete;
    Passing& operator=(const Passing&) = delete;

   private:
    BlockTable& m_Table;
  };

 private:
  friend class BlockBudget;  // takes blocks away, with the owner's lock

  static std::uint64_t KeyOf(std::uint32_t nFile, std::uint64_t nNumber) { return nNumber * kMaxFiles + nFile; }
  std::size_t BucketOf(std::uint64_t nKey) const {
    return static_cast<std::size_t>(nKey * 0x9E3779B97F4A7C15 >> 32) & (m_Buckets.size() - 1);
  }

  FileBlock* TakeOldest();
  void Insert(FileBlock* pBlock);
  void Remove(FileBlock* pBlock);
  void Append(FileBlock* pBlock);
  void Unlink(FileBlock* pBlock);
  bool Widen();

  os::CriticalSection& m_Owner;
  std::uint32_t m_nPassing = 0;
  bool m_bRead = false;  // since the budget has looked at it
  std::size_t m_nBlocks = 0;
  std::vector<FileBlock*> m_Buckets;  // a power of two, or none
  FileBlock* m_pOldest = nullptr;
  FileBlock* m_pNewest = nullptr;
  BlockTable* m_pNext = nullptr;  // in the ring of those that have blocks; null outside
};

// A file that is read through a table, or directly where there is none. It is the caller's, and outlives the use.
class BlockFile {
 public:
  // The number is the file's own among those of the table.
  BlockFile(BlockTable* pTable, std::uint32_t nNumber) : m_pTable(pTable), m_nNumber(nNumber) {}
  ~BlockFile() { Use(nullptr); }
  BlockFile(const BlockFile&) = delete;
  BlockFile& operator=(const BlockFile&) = delete;

  // The file that is read from now on, and its size, where it is known; nothing is left of another one. Null is none.
  void Use(StorageFile* pFile, std::uint64_t nSize = UINT64_MAX);

  // As StorageFile has them. A read that fails is one of a block around what was asked for.
  [[nodiscard]] bool SeekRead(std::uint64_t nOffset, void* pBuffer, std::uint32_t nSize, std::uint32_t* pnRead);
  [[nodiscard]] bool SeekWrite(std::uint64_t nOffset, const void* pData, std::uint32_t nSize, std::uint32_t* pnWritten);
  [[nodiscard]] bool SetSize(std::uint64_t nSize);

 private:
  bool ReadBlocks(std::uint64_t nOffset, std::uint8_t* pBuffer, std::uint32_t nSize, std::uint32_t* pnRead);
  const FileBlock* HoldBlock(std::uint64_t nNumber, std::uint32_t nEnd, bool* pbFailed);
  void UpdateBlocks(std::uint64_t nOffset, const std::uint8_t* pData, std::uint32_t nSize);

  StorageFile* m_pFile = nullptr;
  std::uint64_t m_nEnd = UINT64_MAX;  // of the file, as far as is known: a block is read up to it
  BlockTable* const m_pTable;
  const std::uint32_t m_nNumber;
};

}  // namespace lumbra
