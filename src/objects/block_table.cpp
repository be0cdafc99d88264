#include "objects/block_table.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

namespace lumbra {

// ---- The budget -------------------------------------------------------------------------------------------

// Tables hold their owner's lock when they come here; the lock here is below it. For the lock of another table's owner
// nobody waits.
struct BlockBudget::Known {
  os::CriticalSection Lock;
  std::uint64_t nLimit GUARDED_BY(Lock) = kUsualBytes;
  std::uint64_t nTaken GUARDED_BY(Lock) = 0;       // bytes
  std::size_t nTables GUARDED_BY(Lock) = 0;        // in the ring
  BlockTable* pBefore GUARDED_BY(Lock) = nullptr;  // the table in the ring whose next one is looked at next

  void Join(BlockTable& Table) REQUIRES(Lock);
  void Leave(BlockTable& Table) REQUIRES(Lock);
  void Free(FileBlock* pBlock) REQUIRES(Lock);
};

// Never destroyed: stores may be among the last to go.
BlockBudget::Known& BlockBudget::All() {
  alignas(Known) static std::byte s_Storage[sizeof(Known)];
  static Known* const s_pInstance = new (s_Storage) Known;
  return *s_pInstance;
}

void BlockBudget::Known::Join(BlockTable& Table) {
  if (Table.m_pNext != nullptr) return;
  if (pBefore == nullptr) pBefore = &Table;
  Table.m_pNext = std::exchange(pBefore->m_pNext, &Table);
  if (Table.m_pNext == nullptr) Table.m_pNext = &Table;
  ++nTables;
}

void BlockBudget::Known::Leave(BlockTable& Table) {
  if (Table.m_pNext == nullptr) return;
  while (pBefore->m_pNext != &Table) pBefore = pBefore->m_pNext;
  pBefore->m_pNext = std::exchange(Table.m_pNext, nullptr);
  if (pBefore == &Table) pBefore = nullptr;
  --nTables;
}

void BlockBudget::Known::Free(FileBlock* pBlock) {
  delete pBlock;
  nTaken -= sizeof(FileBlock);
}

void BlockBudget::SetLimit(std::uint64_t nBytes) {
  Known& Now = All();
  const os::Hold Hold(Now.Lock);
  Now.nLimit = nBytes;
  for (std::size_t nLeft = Now.nTables; nLeft != 0 && Now.nTaken > nBytes; --nLeft) {
    BlockTable& Table = *Now.pBefore->m_pNext;
    Now.pBefore = &Table;
    if (!Table.m_Owner.try_lock()) continue;
    while (Now.nTaken > nBytes && Table.m_nBlocks != 0) Now.Free(Table.TakeOldest());
    if (Table.m_nBlocks == 0) Now.Leave(Table);
    Table.m_Owner.unlock();
  }
}

// A block for a table that misses one; null where there is none.
FileBlock* BlockBudget::Take(BlockTable& For) {
  Known& Now = All();
  const os::Hold Hold(Now.Lock);
  while (Now.nTaken > Now.nLimit && For.m_nBlocks != 0) Now.Free(For.TakeOldest());
  FileBlock* pBlock = nullptr;
  if (Now.nTaken + sizeof(FileBlock) <= Now.nLimit) pBlock = new (std::nothrow) FileBlock;
  if (pBlock != nullptr) {
    Now.nTaken += sizeof(FileBlock);
  } else if (Now.nTaken <= Now.nLimit) {
    pBlock = TakeFromOthers(Now, For);
    if (pBlock == nullptr) pBlock = For.TakeOldest();
  }
  if (pBlock != nullptr) Now.Join(For);
  return pBlock;
}

// From a table that has not been read from since it was last looked at here. Or from any that has more than its part,
// if the one that asks has less: so two that are busy share evenly.
FileBlock* BlockBudget::TakeFromOthers(Known& Now, const BlockTable& For) {
  Now.Lock.AssertHeld();
  constexpr std::size_t kLooks = 4;  // a miss does not go round a ring of hundreds
  const std::size_t nPart =
      static_cast<std::size_t>(Now.nTaken / sizeof(FileBlock)) / std::max<std::size_t>(1, Now.nTables);
  for (std::size_t nLeft = std::min(kLooks, Now.nTables); nLeft != 0; --nLeft) {
    BlockTable& Table = *Now.pBefore->m_pNext;
    Now.pBefore = &Table;
    if (&Table == &For || !Table.m_Owner.try_lock()) continue;
    const bool bIdle = !std::exchange(Table.m_bRead, false);
    const bool bUneven = For.m_nBlocks < nPart && Table.m_nBlocks > nPart;
    FileBlock* const pBlock = bIdle || bUneven ? Table.TakeOldest() : nullptr;
    if (Table.m_nBlocks == 0) Now.Leave(Table);
    Table.m_Owner.unlock();
    if (pBlock != nullptr) return pBlock;
  }
  return nullptr;
}

void BlockBudget::GiveBack(BlockTable& From, FileBlock* pBlock) {
  Known& Now = All();
  const os::Hold Hold(Now.Lock);
  Now.Free(pBlock);
  if (From.m_nBlocks == 0) Now.Leave(From);
}

// ---- A table ----------------------------------------------------------------------------------------------

FileBlock* BlockTable::Add(std::uint32_t nFile, std::uint64_t nNumber) {
  if (m_nPassing != 0) return nullptr;
  FileBlock* const pBlock = BlockBudget::Take(*this);
  if (pBlock == nullptr) return nullptr;
  if (m_nBlocks >= m_Buckets.size() && !Widen()) {
    BlockBudget::GiveBack(*this, pBlock);
    return nullptr;
  }
  pBlock->nKey = KeyOf(nFile, nNumber);
  pBlock->nValid = 0;
  Insert(pBlock);
  return pBlock;
}

void BlockTable::Drop(FileBlock* pBlock) {
  Remove(pBlock);
  BlockBudget::GiveBack(*this, pBlock);
}

void BlockTable::DropFile(std::uint32_t nFile) {
  for (FileBlock* pBlock = m_pOldest; pBlock != nullptr;) {
    FileBlock* const pNewer = pBlock->pNewer;
    if (pBlock->nKey % kMaxFiles == nFile) Drop(pBlock);
    pBlock = pNewer;
  }
  if (m_nBlocks == 0) std::vector<FileBlock*>().swap(m_Buckets);
}

void BlockTable::Clear() {
  while (m_pOldest != nullptr) Drop(m_pOldest);
  std::vector<FileBlock*>().swap(m_Buckets);
}

// The block that was read first of those that were not used since the last look for one.
FileBlock* BlockTable::TakeOldest() {
  while (m_pOldest != nullptr && m_pOldest->bUsed) {
    FileBlock* const pUsed = m_pOldest;
    pUsed->bUsed = false;
    Unlink(pUsed);
    Append(pUsed);
  }
  FileBlock* const pOldest = m_pOldest;
  if (pOldest != nullptr) Remove(pOldest);
  return pOldest;
}

void BlockTable::Insert(FileBlock* pBlock) {
  FileBlock*& pBucket = m_Buckets[BucketOf(pBlock->nKey)];
  pBlock->pChain = std::exchange(pBucket, pBlock);
  Append(pBlock);
  ++m_nBlocks;
}

void BlockTable::Remove(FileBlock* pBlock) {
  FileBlock** ppAt = &m_Buckets[BucketOf(pBlock->nKey)];
  while (*ppAt != pBlock) ppAt = &(*ppAt)->pChain;
  *ppAt = pBlock->pChain;
  Unlink(pBlock);
  --m_nBlocks;
}

void BlockTable::Append(FileBlock* pBlock) {
  pBlock->pOlder = std::exchange(m_pNewest, pBlock);
  pBlock->pNewer = nullptr;
  (pBlock->pOlder != nullptr ? pBlock->pOlder->pNewer : m_pOldest) = pBlock;
}

void BlockTable::Unlink(FileBlock* pBlock) {
  (pBlock->pOlder != nullptr ? pBlock->pOlder->pNewer : m_pOldest) = pBlock->pNewer;
  (pBlock->pNewer != nullptr ? pBlock->pNewer->pOlder : m_pNewest) = pBlock->pOlder;
}

// Twice the buckets; false where there are none at all. Longer chains are no reason not to read.
bool BlockTable::Widen() {
  constexpr std::size_t kFirst = 16;
  try {
    std::vector<FileBlock*> Wider(std::max(kFirst, m_Buckets.size() * 2), nullptr);
    m_Buckets.swap(Wider);
  } catch (const std::bad_alloc&) {
    return !m_Buckets.empty();
  }
  for (FileBlock* pBlock = m_pOldest; pBlock != nullptr; pBlock = pBlock->pNewer) {
    FileBlock*& pBucket = m_Buckets[BucketOf(pBlock->nKey)];
    pBlock->pChain = std::exchange(pBucket, pBlock);
  }
  return true;
}

// ---- A file -----------------------------------------------------------------------------------------------

void BlockFile::Use(StorageFile* pFile, std::uint64_t nSize) {
  m_pFile = pFile;
  m_nEnd = nSize;
  if (m_pTable != nullptr) m_pTable->DropFile(m_nNumber);
}

// What is as long as a block goes into the caller's buffer by one read.
bool BlockFile::SeekRead(std::uint64_t nOffset, void* pBuffer, std::uint32_t nSize, std::uint32_t* pnRead) {
  if (m_pTable == nullptr || nSize >= FileBlock::kSize) return m_pFile->SeekRead(nOffset, pBuffer, nSize, pnRead);
  std::uint32_t nRead = 0;
  if (!ReadBlocks(nOffset, static_cast<std::uint8_t*>(pBuffer), nSize, &nRead)) return false;
  if (pnRead != nullptr) *pnRead = nRead;
  return true;
}

bool BlockFile::ReadBlocks(std::uint64_t nOffset, std::uint8_t* pBuffer, std::uint32_t nSize, std::uint32_t* pnRead) {
  for (std::uint32_t nLeft = nSize; nLeft != 0; nLeft = nSize - *pnRead) {
    const std::uint64_t nAt = nOffset + *pnRead;
    const auto nStart = static_cast<std::uint32_t>(nAt % FileBlock::kSize);
    const std::uint32_t nWanted = std::min(nLeft, FileBlock::kSize - nStart);
    bool bFailed = false;
    const FileBlock* const pBlock = HoldBlock(nAt / FileBlock::kSize, nStart + nWanted, &bFailed);
    if (bFailed) return false;
    if (pBlock == nullptr) {
      std::uint32_t nRest = 0;
      const bool bRead = m_pFile->SeekRead(nAt, pBuffer + *pnRead, nLeft, &nRest);
      *pnRead += nRest;
      return bRead;
    }
    const std::uint32_t nThere = pBlock->nValid > nStart ? std::min(nWanted, pBlock->nValid - nStart) : 0;
    std::memcpy(pBuffer + *pnRead, pBlock->Bytes + nStart, nThere);
    *pnRead += nThere;
    if (nThere != nWanted) return true;
  }
  return true;
}

// The block with this number, read up to nEnd or the end of the file; null where the table has no room for it.
const FileBlock* BlockFile::HoldBlock(std::uint64_t nNumber, std::uint32_t nEnd, bool* pbFailed) {
  FileBlock* pBlock = m_pTable->Find(m_nNumber, nNumber);
  // Where the file ended when the block was read there may be more by now.
  if (pBlock == nullptr || pBlock->nValid < nEnd) {
    if (pBlock == nullptr) pBlock = m_pTable->Add(m_nNumber, nNumber);
    if (pBlock == nullptr) return nullptr;
    // A read that meets the end of the file costs another call, which finds nothing.
    const std::uint64_t nFirst = nNumber * FileBlock::kSize;
    const bool bLast = nFirst + nEnd <= m_nEnd && m_nEnd < nFirst + FileBlock::kSize;
    const auto nSize = bLast ? static_cast<std::uint32_t>(m_nEnd - nFirst) : FileBlock::kSize;
    *pbFailed = !m_pFile->SeekRead(nFirst, pBlock->Bytes, nSize, &pBlock->nValid);
    if (*pbFailed) {
      m_pTable->Drop(pBlock);
      return nullptr;
    }
  }
  m_pTable->NoteRead(pBlock);
  return pBlock;
}

bool BlockFile::SeekWrite(std::uint64_t nOffset, const void* pData, std::uint32_t nSize, std::uint32_t* pnWritten) {
  std::uint32_t nWritten = 0;
  const bool bWritten = m_pFile->SeekWrite(nOffset, pData, nSize, &nWritten);
  if (bWritten && pnWritten != nullptr) *pnWritten = nWritten;
  if (m_nEnd < nOffset + nSize) m_nEnd = nOffset + nSize;
  if (m_pTable != nullptr) {
    UpdateBlocks(nOffset, bWritten && nWritten == nSize ? static_cast<const std::uint8_t*>(pData) : nullptr, nSize);
  }
  return bWritten;
}

// Brings what was written into the blocks that are there. Without data, and where a gap is left, they are dropped.
void BlockFile::UpdateBlocks(std::uint64_t nOffset, const std::uint8_t* pData, std::uint32_t nSize) {
  for (std::uint32_t nDone = 0, nPiece = 0; nDone < nSize; nDone += nPiece) {
    const std::uint64_t nAt = nOffset + nDone;
    const auto nStart = static_cast<std::uint32_t>(nAt % FileBlock::kSize);
    nPiece = std::min(nSize - nDone, FileBlock::kSize - nStart);
    FileBlock* const pBlock = m_pTable->Find(m_nNumber, nAt / FileBlock::kSize);
    if (pBlock == nullptr) continue;
    if (pData == nullptr || nStart > pBlock->nValid) {
      m_pTable->Drop(pBlock);
      continue;
    }
    std::memcpy(pBlock->Bytes + nStart, pData + nDone, nPiece);
    pBlock->nValid = std::max(pBlock->nValid, nStart + nPiece);
  }
}

bool BlockFile::SetSize(std::uint64_t nSize) {
  if (m_pTable != nullptr) m_pTable->DropFile(m_nNumber);
  m_nEnd = UINT64_MAX;
  return m_pFile->SetSize(nSize);
}

}  // namespace lumbra
