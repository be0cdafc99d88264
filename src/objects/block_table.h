// Blocks of files in memory, so that what was read lately costs no call of the system.
//
// Each owner of files (an object store, a segment's events) has a table of its own, under its own lock: a block that is
// there is found without another lock. All tables of the process share one budget, which is asked at a miss, and told
// of what is given back. When it is used up, a table that misses takes a block from another one that has not been read
// from lately, where that one's lock is free, or the one of its own that was not used for longest. From then on no
// block is allocated.
//
// Writes go to the file first, and then into the blocks that are there. What a write may have left half done is
// forgotten, and read again. A block is a copy of what the system gave: bytes that somebody else changes in an open
// store may be seen later.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "platform/os.h"
#include "platform/storage_file.h"

namespace lumbra {

class BlockTable;

struct FileBlock {
  // Measured: with memory for all of them, blocks of 512 to 4,096 bytes cost the same; with memory for a third, those
  // of 4,096 a fifth more, since most of what is copied is not what was asked for.
  static constexpr std::uint32_t kSize = 1024;

  std::uint8_t Bytes[kSize];
};

// What the tables of a process may take together.
class BlockBudget {
 public:
  static constexpr std::uint32_t kUsualKib = 16384;  // propCACHE_SIZE

  // The last one counts, for the process; 0 keeps nothing. Tables that are in use come down to it at the next miss of
  // any.
  static void SetLimit(std::uint64_t nBytes);

 private:
  friend class BlockTable;
  struct Known;

  static Known& All();
  static FileBlock* Take(BlockTable& For);
  static FileBlock* TakeFromOthers(Known& Now, const BlockTable& For);
  static void GiveBack(BlockTable& From, FileBlock* pBlock);
};

// Its owner's lock is held in every call.
//
// An open hash table with linear probing, so that a block that is there costs a look at one place and one at its bytes.
// The table is the clock as well that chooses the block to be given up: the first behind the hand that was not read
// since the hand passed it.
class BlockTable {
 public:
  static constexpr std::uint32_t kMaxFiles = 4;  // a store has three
  static constexpr std::uint64_t kMaxBlocks = std::uint64_t{1}
                                              << 29;  // of a file: 512 GiB; what lies beyond is not held

  struct Entry {
    FileBlock* pBlock;     // null: no entry
    std::uint32_t nKey;    // the block's number in its file, and the file
    std::uint16_t nValid;  // bytes; fewer than kSize where the file ended when it was read
    bool bRead;            // since the hand passed
  };

  explicit BlockTable(os::CriticalSection& Owner) : m_Owner(Owner) {}
  ~BlockTable() { Clear(); }
  BlockTable(const BlockTable&) = delete;
  BlockTable& operator=(const BlockTable&) = delete;

  // Null where it is not there. An entry stands where it is until the next Add or Drop.
  Entry* Find(std::uint32_t nFile, std::uint64_t nNumber) {
    if (m_nBlocks == 0 || nNumber >= kMaxBlocks) return nullptr;
    Entry& Found = EntryOf(KeyOf(nFile, nNumber));
    return Found.pBlock != nullptr ? &Found : nullptr;
  }

  // A block to read into, which holds nothing yet; null where there is none to be had.
  Entry* Add(std::uint32_t nFile, std::uint64_t nNumber);

  void NoteRead(Entry* pEntry) { pEntry->bRead = m_bRead = true; }
  void Drop(Entry* pEntry);
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

  static std::uint32_t KeyOf(std::uint32_t nFile, std::uint64_t nNumber) {
    return static_cast<std::uint32_t>(nNumber) * kMaxFiles + nFile;
  }
  std::size_t HomeOf(std::uint32_t nKey) const {
    return static_cast<std::size_t>(nKey * std::uint64_t{0x9E3779B97F4A7C15} >> 32) & (m_Entries.size() - 1);
  }
  std::size_t Next(std::size_t nAt) const { return (nAt + 1) & (m_Entries.size() - 1); }

  // The entry with a key, or the free one where it would stand.
  Entry& EntryOf(std::uint32_t nKey) {
    std::size_t nAt = HomeOf(nKey);
    while (m_Entries[nAt].pBlock != nullptr && m_Entries[nAt].nKey != nKey) nAt = Next(nAt);
    return m_Entries[nAt];
  }

  FileBlock* TakeOldest();
  FileBlock* Remove(std::size_t nAt);
  bool Widen();

  os::CriticalSection& m_Owner;
  std::vector<Entry> m_Entries;  // a power of two, at least twice the blocks; or none
  std::size_t m_nBlocks = 0;
  std::size_t m_nHand = 0;
  std::uint32_t m_nPassing = 0;
  bool m_bRead = false;           // since the budget has looked at it
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
  [[nodiscard]] bool SeekRead(std::uint64_t nOffset, void* pBuffer, std::uint32_t nSize, std::uint32_t* pnRead) {
    const std::uint8_t* const pHeld = Held(nOffset, nSize);
    if (pHeld == nullptr) return Read(nOffset, pBuffer, nSize, pnRead);
    std::memcpy(pBuffer, pHeld, nSize);
    if (pnRead != nullptr) *pnRead = nSize;
    return true;
  }
  [[nodiscard]] bool SeekWrite(std::uint64_t nOffset, const void* pData, std::uint32_t nSize, std::uint32_t* pnWritten);
  [[nodiscard]] bool SetSize(std::uint64_t nSize);

 private:
  // Bytes that one block in memory holds; null for others.
  const std::uint8_t* Held(std::uint64_t nOffset, std::uint32_t nSize) const {
    if (m_pTable == nullptr) return nullptr;
    BlockTable::Entry* const pEntry = m_pTable->Find(m_nNumber, nOffset / FileBlock::kSize);
    const auto nStart = static_cast<std::uint32_t>(nOffset % FileBlock::kSize);
    if (pEntry == nullptr || pEntry->nValid < nStart || pEntry->nValid - nStart < nSize) return nullptr;
    m_pTable->NoteRead(pEntry);
    return pEntry->pBlock->Bytes + nStart;
  }

  bool Read(std::uint64_t nOffset, void* pBuffer, std::uint32_t nSize, std::uint32_t* pnRead);
  bool ReadBlocks(std::uint64_t nOffset, std::uint8_t* pBuffer, std::uint32_t nSize, std::uint32_t* pnRead);
  const BlockTable::Entry* HoldBlock(std::uint64_t nNumber, std::uint32_t nEnd, bool* pbFailed);
  bool Fill(BlockTable::Entry* pEntry, std::uint64_t nNumber, std::uint32_t nEnd);
  void UpdateBlocks(std::uint64_t nOffset, const std::uint8_t* pData, std::uint32_t nSize);

  StorageFile* m_pFile = nullptr;
  std::uint64_t m_nEnd = UINT64_MAX;  // of the file, as far as is known: a block is read up to it
  BlockTable* const m_pTable;
  const std::uint32_t m_nNumber;
};

}  // namespace lumbra
