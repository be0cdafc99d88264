#include "objects/block_table.h"

#include <algorithm>
#include <new>
#include <utility>

namespace lumbra {

// ---- The budget -------------------------------------------------------------------------------------------

// Tables hold their owner's lock when they come here; the lock here is below it. For the lock of another table's owner
// nobody waits.
struct BlockBudget::Known {
  os::CriticalSection Lock;
  std::uint64_t nLimit GUARDED_BY(Lock) = std::uint64_t{kUsualKib} * 1024;  // bytes
  std::uint64_t nTaken GUARDED_BY(Lock) = 0;                                // bytes
  std::size_t nTables GUARDED_BY(Lock) = 0;                                 // in the ring
  BlockTable* pBefore GUARDED_BY(Lock) = nullptr;  // the table in the ring whose next one is looked at next

  void Join(BlockTable& Table) REQUIRES(Lock);
  void Leave(BlockTable& Table) REQUIRES(Lock);
  void Free(FileBlock* pBlock) REQUIRES(Lock);
  void Shrink() REQUIRES(Lock);
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
  pBefore->m_pNext = Table.m_pNext;
  Table.m_pNext = nullptr;
  if (pBefore == &Table) pBefore = nullptr;  // it was the only one
  --nTables;
}

void BlockBudget::Known::Free(FileBlock* pBlock) {
  delete pBlock;
  nTaken -= sizeof(FileBlock);
}

// Brings the tables down to the limit, as far as nobody works with them.
void BlockBudget::Known::Shrink() {
  for (std::size_t nLeft = nTables; nLeft != 0 && nTaken > nLimit; --nLeft) {
    BlockTable& Table = *pBefore->m_pNext;
    pBefore = &Table;
    if (!Table.m_Owner.try_lock()) continue;
    while (nTaken > nLimit && Table.m_nBlocks != 0) Free(Table.TakeOldest());
    if (Table.m_nBlocks == 0) Leave(Table);
    Table.m_Owner.unlock();
  }
}

void BlockBudget::SetLimit(std::uint64_t nBytes) {
  Known& Now = All();
  const os::Hold Hold(Now.Lock);
  Now.nLimit = nBytes;
  Now.Shrink();
}

// A block for a table that misses one; null where there is none.
FileBlock* BlockBudget::Take(BlockTable& For) {
  Known& Now = All();
  const os::Hold Hold(Now.Lock);
  Now.Shrink();  // those that were at work when the limit fell
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
  const std::size_t nSharers = Now.nTables + (For.m_nBlocks == 0 ? 1 : 0);
  const auto nPart = static_cast<std::size_t>(Now.nTaken / sizeof(FileBlock) / std::max<std::size_t>(1, nSharers));
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

BlockTable::Entry* BlockTable::Add(std::uint32_t nFile, std::uint64_t nNumber) {
  if (m_nPassing != 0 || nNumber >= kMaxBlocks) return nullptr;
  FileBlock* const pBlock = BlockBudget::Take(*this);
  if (pBlock == nullptr) return nullptr;
  if (m_nBlocks >= m_Entries.size() / 2 && !Widen()) {
    BlockBudget::GiveBack(*this, pBlock);
    return nullptr;
  }
  const std::uint32_t nKey = KeyOf(nFile, nNumber);
  Entry& Added = EntryOf(nKey);
  Added = {pBlock, nKey, 0, false};
  ++m_nBlocks;
  return &Added;
}

void BlockTable::Drop(Entry* pEntry) {
  FileBlock* const pBlock = Remove(static_cast<std::size_t>(pEntry - m_Entries.data()));
  BlockBudget::GiveBack(*this, pBlock);
}

// Until a pass finds none: a removal may move an entry from before the place where the pass is to one behind it.
void BlockTable::DropFile(std::uint32_t nFile) {
  for (bool bFound = true; bFound && m_nBlocks != 0;) {
    bFound = false;
    for (Entry& At : m_Entries) {
      if (At.pBlock == nullptr || At.nKey % kMaxFiles != nFile) continue;
      Drop(&At);
      bFound = true;
    }
  }
  if (m_nBlocks == 0) std::vector<Entry>().swap(m_Entries);
}

void BlockTable::Clear() {
  for (std::uint32_t nFile = 0; nFile < kMaxFiles; ++nFile) DropFile(nFile);
}

// Null where there is none.
FileBlock* BlockTable::TakeOldest() {
  if (m_nBlocks == 0) return nullptr;
  for (;; m_nHand = Next(m_nHand)) {
    Entry& At = m_Entries[m_nHand];
    if (At.pBlock != nullptr && !std::exchange(At.bRead, false)) return Remove(m_nHand);
  }
}

// Entries behind it that would no longer be found are moved up.
FileBlock* BlockTable::Remove(std::size_t nAt) {
  FileBlock* const pBlock = std::exchange(m_Entries[nAt].pBlock, nullptr);
  --m_nBlocks;
  for (std::size_t nFrom = Next(nAt); m_Entries[nFrom].pBlock != nullptr; nFrom = Next(nFrom)) {
    const std::size_t nMask = m_Entries.size() - 1;
    const std::size_t nFromHome = (nFrom - HomeOf(m_Entries[nFrom].nKey)) & nMask;
    if (nFromHome < ((nFrom - nAt) & nMask)) continue;  // its home lies behind the gap
    m_Entries[nAt] = std::exchange(m_Entries[nFrom], Entry{});
    nAt = nFrom;
  }
  return pBlock;
}

// Twice the room; false where there is no memory for it.
bool BlockTable::Widen() {
  constexpr std::size_t kFirst = 16;
  std::vector<Entry> Old;
  try {
    Old.resize(std::max(kFirst, m_Entries.size() * 2));
  } catch (const std::bad_alloc&) {
    return false;
  }
  m_Entries.swap(Old);
  m_nHand = 0;
  for (const Entry& One : Old) {
    if (One.pBlock != nullptr) EntryOf(One.nKey) = One;
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
bool BlockFile::Read(std::uint64_t nOffset, void* pBuffer, std::uint32_t nSize, std::uint32_t* pnRead) {
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
    const BlockTable::Entry* const pHeld = HoldBlock(nAt / FileBlock::kSize, nStart + nWanted, &bFailed);
    if (bFailed) return false;
    if (pHeld == nullptr) {
      std::uint32_t nRest = 0;
      const bool bRead = m_pFile->SeekRead(nAt, pBuffer + *pnRead, nLeft, &nRest);
      *pnRead += nRest;
      return bRead;
    }
    const std::uint32_t nThere = pHeld->nValid > nStart ? std::min(nWanted, pHeld->nValid - nStart) : 0;
    std::memcpy(pBuffer + *pnRead, pHeld->pBlock->Bytes + nStart, nThere);
    *pnRead += nThere;
    if (nThere != nWanted) return true;
  }
  return true;
}

// The block with this number, read up to nEnd or the end of the file; null where the table has no room for it.
const BlockTable::Entry* BlockFile::HoldBlock(std::uint64_t nNumber, std::uint32_t nEnd, bool* pbFailed) {
  BlockTable::Entry* pEntry = m_pTable->Find(m_nNumber, nNumber);
  // Where the file ended when the block was read there may be more by now.
  if (pEntry == nullptr || pEntry->nValid < nEnd) {
    if (pEntry == nullptr) pEntry = m_pTable->Add(m_nNumber, nNumber);
    if (pEntry == nullptr) return nullptr;
    *pbFailed = !Fill(pEntry, nNumber, nEnd);
    if (*pbFailed) {
      m_pTable->Drop(pEntry);
      return nullptr;
    }
  }
  m_pTable->NoteRead(pEntry);
  return pEntry;
}

// No further than to the end of the file, where that is known and enough: to meet it costs another call.
bool BlockFile::Fill(BlockTable::Entry* pEntry, std::uint64_t nNumber, std::uint32_t nEnd) {
  const std::uint64_t nFirst = nNumber * FileBlock::kSize;
  const bool bLast = nFirst + nEnd <= m_nEnd && m_nEnd < nFirst + FileBlock::kSize;
  const auto nSize = bLast ? static_cast<std::uint32_t>(m_nEnd - nFirst) : FileBlock::kSize;
  std::uint32_t nRead = 0;
  const bool bRead = m_pFile->SeekRead(nFirst, pEntry->pBlock->Bytes, nSize, &nRead);
  pEntry->nValid = static_cast<std::uint16_t>(nRead);
  return bRead;
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
    BlockTable::Entry* const pEntry = m_pTable->Find(m_nNumber, nAt / FileBlock::kSize);
    if (pEntry == nullptr) continue;
    if (pData == nullptr || nStart > pEntry->nValid) {
      m_pTable->Drop(pEntry);
      continue;
    }
    std::memcpy(pEntry->pBlock->Bytes + nStart, pData + nDone, nPiece);
    pEntry->nValid = std::max(pEntry->nValid, static_cast<std::uint16_t>(nStart + nPiece));
  }
}

bool BlockFile::SetSize(std::uint64_t nSize) {
  if (m_pTable != nullptr) m_pTable->DropFile(m_nNumber);
  const bool bSet = m_pFile->SetSize(nSize);
  m_nEnd = bSet ? nSize : UINT64_MAX;
  return bSet;
}

}  // namespace lumbra
