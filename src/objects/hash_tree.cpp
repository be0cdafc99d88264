#include "objects/hash_tree.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <new>
#include <utility>

#include "objects/failed_check.h"
#include "platform/failed_step.h"

namespace lumbra {
namespace {

using objdb::FailedCheck;

// How much of the file the large head holds beyond the root: room for some hundred nodes of the next levels.
constexpr std::uint32_t kLargeHeadPlain = 16384;
constexpr std::uint32_t kLargeHeadChecked = 17408;

}  // namespace

// ---- Opening ----------------------------------------------------------------------------------------------

FileContent HashTree::Look(StorageFile* pFile, const Options& Use) {
  Close();
  m_pFile = pFile;
  m_File.Use(pFile);
  m_Use = Use;
  m_Crc = DataCrc(Use.bSeededCrcs);
  const FileContent Header = LookAtHeader();
  return Header.IsOurs() && m_bNodeCrcs ? LookAtRoot() : Header;
}

// Memory first: where there is none for the head, the file stays as it is.
ResultCode HashTree::Take(const FileContent& Found) {
  ResultCode nCode = errOK;
  if (Found.IsOurs()) {
    nCode = PrepareHead() ? StoreHeader() : errOUT_OF_MEMORY;
  } else {
    nCode = Found.OrStartAnew([this] {
      m_bNodeCrcs = m_Use.bNodeCrcsIfCreated;
      return PrepareHead() ? StartAnew() : errOUT_OF_MEMORY;
    });
  }
  if (Failed(nCode)) Close();
  return nCode;
}

void HashTree::Close() {
  m_pFile = nullptr;
  m_File.Use(nullptr);
  m_nSizeBT = 0;
  m_btHead.clear();
  m_nodeChecked.clear();
}

// Tells whether the header is that of a tree which can be used, and mends its size in memory.
FileContent HashTree::LookAtHeader() {
  tODB_BT_HEADER& Header = m_Header;
  std::uint32_t nRead = 0;
  if (!m_pFile->SeekRead(0, &Header, sizeof(Header), &nRead))
    return FileContent::Unread(FailedCheck("pFileBT->SeekRead(0, &hdr, sizeof(hdr), &bytes)", errREAD_FAILED));
  if (nRead != sizeof(Header) || Header.nFirstNodeOffset != FirstNodeOffset) return FileContent::Foreign();
  m_bNodeCrcs = std::memcmp(Header.Magic, kCheckedTreeMagic, sizeof(Header.Magic)) == 0;
  if (!m_bNodeCrcs && std::memcmp(Header.Magic, kTreeMagic, sizeof(Header.Magic)) != 0) return FileContent::Foreign();

  std::uint64_t nActualSize = 0;
  if (!m_pFile->GetSize(&nActualSize))
    return FileContent::Unread(FailedCheck("pFileBT->GetSize(&actualSize)", errREAD_FAILED));
  m_nActualSize = nActualSize;
  m_bHeaderMended = false;
  if (Header.nDBSize != nActualSize) {
    Trace(kHostRoot, traceFailure, "lmb\tWrong BT size in header, actual: %I64X, from header: %I64X", nActualSize,
          Header.nDBSize);
    Header.nDBSize = nActualSize;
    m_bHeaderMended = true;
  }
  const std::uint64_t nMinimalSize = RootEnd();
  if (Header.nDBSize < nMinimalSize) {
    Trace(kHostRoot, traceFailure, "lmb\tToo small BT size, rewrite it it. BT size: %I64X, minimal size: %I64X",
          Header.nDBSize, nMinimalSize);
    return FileContent::Foreign();
  }
  if (const std::uint64_t nUnaligned = Header.nDBSize; nUnaligned % sizeof(tODB_BT_OFFSET) != 0) {
    Header.nDBSize += sizeof(tODB_BT_OFFSET) - nUnaligned % sizeof(tODB_BT_OFFSET);
    m_bHeaderMended = true;
    Trace(kHostRoot, traceFailure, "lmb\tBT file size unaligned: %I64X, after align: %I64X", nUnaligned,
          Header.nDBSize);
  }
  return FileContent::Ours();
}

FileContent HashTree::LookAtRoot() {
  constexpr std::uint32_t kRootSize = kRootSlots * sizeof(tODB_BT_OFFSET);
  constexpr std::uint32_t nCrcOffset = FirstNodeOffset + kRootSize;
  tODB_BT_OFFSET Slots[kRootSlots];
  std::uint32_t nCrc = 0;
  std::uint32_t nRead = 0;
  if (!m_pFile->SeekRead(FirstNodeOffset, Slots, kRootSize, &nRead))
    return FileContent::Unread(
        FailedCheck("pFileBT->SeekRead(FirstNodeOffset, offsets, OffsetsSize, &bytes)", errREAD_FAILED));
  if (nRead != kRootSize) return FileContent::Unread(FailedCheck("bytes == OffsetsSize", errREAD_FAILED));
  if (!m_pFile->SeekRead(nCrcOffset, &nCrc, sizeof(nCrc), &nRead))
    return FileContent::Unread(
        FailedCheck("pFileBT->SeekRead(nCrcOffset, &crc32, sizeof(crc32), &bytes)", errREAD_FAILED));
  if (nRead != sizeof(nCrc)) return FileContent::Unread(FailedCheck("bytes == sizeof(crc32)", errREAD_FAILED));
  return ValidDataCrc(0, Slots, kRootSize, &nCrc) ? FileContent::Ours() : FileContent::Foreign();
}

// Brings a mended size into the header, and the file to that size.
ResultCode HashTree::StoreHeader() {
  if (m_bHeaderMended && !m_pFile->SeekWrite(0, &m_Header, sizeof(m_Header), nullptr))
    return FailedCheck("pFileBT->SeekWrite(0, &newHdr, sizeof(newHdr), NULL)", errWRITE_FAILED);
  if (m_Header.nDBSize != m_nActualSize && !m_File.SetSize(m_Header.nDBSize))
    return FailedCheck("pFileBT->SetSize(hdr.nDBSize)", errWRITE_FAILED);
  m_nSizeBT = m_Header.nDBSize;
  m_File.Use(m_pFile, m_nSizeBT);
  return errOK;
}

bool HashTree::PrepareHead() {
  m_nBtHeadSize = RootEnd();
  if (m_Use.bLargeHead) m_nBtHeadSize += m_bNodeCrcs ? kLargeHeadChecked : kLargeHeadPlain;
  try {
    m_btHead.reserve(m_nBtHeadSize);  // so that no later growth of it can fail
    m_nodeChecked.assign(m_nBtHeadSize, 0);
  } catch (const std::bad_alloc&) {
    return false;
  }
  m_nodeChecked[FirstNodeOffset] = 1;  // the root was checked, or is about to be written
  return true;
}

ResultCode HashTree::StartAnew() {
  if (!m_File.SetSize(0)) return FailedCheck("pFileBT->SetSize(0)", errWRITE_FAILED);
  m_btHead.clear();
  std::fill(m_nodeChecked.begin() + FirstNodeOffset + 1, m_nodeChecked.end(), std::uint8_t{0});
  tODB_BT_HEADER Header{{}, FirstNodeOffset, FirstNodeOffset};
  std::memcpy(Header.Magic, m_bNodeCrcs ? kCheckedTreeMagic : kTreeMagic, sizeof(Header.Magic));
  if (!m_pFile->SeekWrite(0, &Header, sizeof(Header), nullptr))
    return FailedCheck("pFileBT->SeekWrite(0, &hdr, sizeof(hdr), 0)", errWRITE_FAILED);
  // All that the file holds is known: the root is added without reading it back.
  m_nSizeBT = Header.nDBSize;
  const auto* const pHeader = reinterpret_cast<const std::uint8_t*>(&Header);
  m_btHead.assign(pHeader, pHeader + sizeof(Header));
  std::uint32_t nRoot = 0;
  return BT_AddNode(0, 0, &nRoot);
}

// ---- Walks ------------------------------------------------------------------------------------------------

ResultCode HashTree::IsEmpty(bool* pbEmpty) {
  bool bEmpty = true;
  for (std::uint64_t nDigit = 0; nDigit < kRootSlots && bEmpty; ++nDigit) {
    tODB_BT_OFFSET nEntry = 0;
    const ResultCode nCode = ReadSlot(Place(), nDigit, &nEntry);
    if (Failed(nCode)) return nCode;
    bEmpty = nEntry == 0;
  }
  *pbEmpty = bEmpty;
  return errOK;
}

ResultCode HashTree::SetUsable(bool bUsable) {
  const std::uint32_t nFirstNodeOffset = bUsable ? FirstNodeOffset : 0;
  if (bUsable) Sync();
  if (!BT_SeekWrite(offsetof(tODB_BT_HEADER, nFirstNodeOffset), &nFirstNodeOffset, sizeof(nFirstNodeOffset), nullptr))
    return FailedCheck(
        "BT_SeekWrite(offsetof(tODB_BT_HEADER, nFirstNodeOffset), &nFirstNodeOffset, sizeof(nFirstNodeOffset), NULL)",
        errWRITE_FAILED);
  if (!bUsable) Sync();
  return errOK;
}

void HashTree::Sync() {
  if (!m_pFile->Flush()) TraceFailedStep(errWRITE_FAILED);
}

ResultCode HashTree::Find(std::uint64_t nHash, std::uint32_t* pnShortId) {
  for (Place At; At.nLevel <= kMaxTreeLevel;) {
    tODB_BT_OFFSET nEntry = 0;
    const ResultCode nCode = ReadSlot(At, nHash, &nEntry);
    if (Failed(nCode)) return nCode;
    if (nEntry == 0) return errOBJECT_NOT_FOUND;
    if (!IsChild(nEntry)) {
      *pnShortId = nEntry;
      return errOK;
    }
    Descend(&At, nEntry);
  }
  return errDATA_CORRUPTED;
}

ResultCode HashTree::ReadSlot(const Place& At, std::uint64_t nHash, tODB_BT_OFFSET* pnEntry) {
  return BT_GetNodeEntry(At.nNode, At.nParent, At.nLevel, GetHashDigit(nHash, At.nLevel), pnEntry);
}

ResultCode HashTree::WriteSlot(const Place& At, std::uint64_t nHash, tODB_BT_OFFSET nEntry) {
  return BT_SetNodeEntry(At.nNode, At.nParent, At.nLevel, GetHashDigit(nHash, At.nLevel), nEntry);
}

// All new nodes in one write, the object in the last of them, and then the slot that leads there: at no time does the
// tree lose the object.
ResultCode HashTree::Split(Place* pAt, std::uint64_t nHash, std::uint64_t nOtherHash, std::uint32_t nOtherShortId) {
  std::uint32_t nLast = pAt->nLevel + 1;
  std::uint32_t nSize = NodeSize(nLast);
  while (nLast < kMaxTreeLevel && GetHashDigit(nHash, nLast) == GetHashDigit(nOtherHash, nLast)) {
    nSize += NodeSize(++nLast);
  }
  std::uint64_t nFirst = 0;
  ResultCode nCode = BT_ExtendDB(nSize, &nFirst);
  if (Failed(nCode)) return nCode;
  const auto nRun = static_cast<std::uint32_t>(nFirst);
  std::uint8_t Run[kMaxRunSize] = {};
  const Place End = BuildRun(*pAt, nLast, nRun, nOtherHash, nOtherShortId, Run);
  std::uint32_t nWritten = 0;
  if (!BT_SeekWrite(nRun, Run, nSize, &nWritten))
    return FailedCheck("BT_SeekWrite(nNodeOffset, offsets, write_size, &bytesWritten)", errWRITE_FAILED);
  if (nWritten != nSize) return FailedCheck("(bytesWritten == write_size)", errWRITE_FAILED);
  nCode = WriteSlot(*pAt, nHash, nRun | kChildBit);
  if (Succeeded(nCode)) *pAt = End;
  return nCode;
}

// The nodes below a place down to a level, each behind its parent, with one object in the last. Answers its place.
HashTree::Place HashTree::BuildRun(Place At, std::uint32_t nLast, std::uint32_t nNode, std::uint64_t nObjectHash,
                                   std::uint32_t nShortId, std::uint8_t* pRun) const {
  while (At.nLevel < nLast) {
    const std::uint32_t nLevel = At.nLevel + 1;
    const std::uint32_t nNext = nNode + NodeSize(nLevel);
    const tODB_BT_OFFSET nEntry = nLevel == nLast ? nShortId : nNext | kChildBit;
    std::memcpy(pRun + GetHashDigit(nObjectHash, nLevel) * sizeof(nEntry), &nEntry, sizeof(nEntry));
    if (m_bNodeCrcs) {
      const std::uint32_t nCrc = m_Crc.Of(At.nNode, pRun, SlotsSize(nLevel));
      std::memcpy(pRun + SlotsSize(nLevel), &nCrc, sizeof(nCrc));
    }
    Descend(&At, nNode);
    pRun += NodeSize(nLevel);
    nNode = nNext;
  }
  return At;
}

ResultCode HashTree::Detach(const Place& At, std::uint64_t nHash) {
  const std::uint32_t nParentLevel = At.nLevel == 0 ? 0 : At.nLevel - 1;
  return BT_SetNodeEntry(At.nParent, At.nGrandparent, nParentLevel, GetHashDigit(nHash, nParentLevel), 0);
}

// ---- Nodes ------------------------------------------------------------------------------------------------

ResultCode HashTree::BT_GetNodeEntry(std::uint32_t nNodeOffset, std::uint32_t nPreviousOffset, std::uint32_t nLevel,
                                     std::uint32_t nEntryNo, tODB_BT_OFFSET* pOffset) {
  nNodeOffset &= ~kChildBit;
  nPreviousOffset &= ~kChildBit;
  if (nNodeOffset < FirstNodeOffset) return errDATA_CORRUPTED;
  const bool bInHead = nNodeOffset < m_nodeChecked.size();
  const std::uint32_t nMark = nLevel + 1;
  if (!m_bNodeCrcs || (bInHead && m_nodeChecked[nNodeOffset] == nMark)) {
    return ReadEntry(nNodeOffset, nEntryNo, pOffset);
  }

  const std::uint32_t nSlotsSize = SlotsSize(nLevel);
  const std::uint32_t nCrcOffset = nNodeOffset + nSlotsSize;
  tODB_BT_OFFSET Slots[kRootSlots];
  const ResultCode nCode = ReadEntries(nNodeOffset, nSlotsSize, Slots);
  if (Failed(nCode)) return nCode;
  std::uint32_t nCrc = 0;
  std::uint32_t nRead = 0;
  if (!BT_SeekRead(nCrcOffset, &nCrc, sizeof(nCrc), &nRead))
    return FailedCheck("BT_SeekRead(nCrcOffset, &crc32, sizeof(crc32), &bytes)", ReadErrorCode(nNodeOffset));
  if (nRead != sizeof(nCrc)) return FailedCheck("bytes == sizeof(crc32)", ReadErrorCode(nCrcOffset + nRead));
  if (!ValidDataCrc(nPreviousOffset, Slots, nSlotsSize, &nCrc))
    return FailedCheck("ValidDataCrc(nPreviousOffset, offsets, offsetsSize, &crc32)", errDATA_CORRUPTED);
  *pOffset = Slots[nEntryNo];
  if (bInHead && nMark < 255) m_nodeChecked[nNodeOffset] = static_cast<std::uint8_t>(nMark);
  return errOK;
}

ResultCode HashTree::ReadEntry(std::uint32_t nNodeOffset, std::uint32_t nEntryNo, tODB_BT_OFFSET* pOffset) {
  const std::uint64_t nPosition = nNodeOffset + std::uint64_t{nEntryNo} * sizeof(tODB_BT_OFFSET);
  std::uint32_t nRead = 0;
  if (!BT_SeekRead(nNodeOffset + nEntryNo * sizeof(tODB_BT_OFFSET), pOffset, sizeof(tODB_BT_OFFSET), &nRead))
    return FailedCheck(
        "BT_SeekRead(nNodeOffset+nEntryNo*sizeof(tODB_BT_OFFSET), pOffset, sizeof(tODB_BT_OFFSET), &bytes)",
        ReadErrorCode(nNodeOffset));
  if (nRead != sizeof(tODB_BT_OFFSET))
    return FailedCheck("bytes == sizeof(tODB_BT_OFFSET)", ReadErrorCode(nPosition + nRead));
  return errOK;
}

ResultCode HashTree::ReadEntries(std::uint32_t nNodeOffset, std::uint32_t nSlotsSize, tODB_BT_OFFSET* Slots) {
  std::uint32_t nRead = 0;
  if (!BT_SeekRead(nNodeOffset, Slots, nSlotsSize, &nRead))
    return FailedCheck("BT_SeekRead(nNodeOffset, offsets, offsetsSize, &bytes)", ReadErrorCode(nNodeOffset));
  if (nRead != nSlotsSize)
    return FailedCheck("bytes == offsetsSize", ReadErrorCode(std::uint64_t{nNodeOffset} + nRead));
  return errOK;
}

ResultCode HashTree::BT_SetNodeEntry(std::uint32_t nNodeOffset, std::uint32_t nPreviousOffset, std::uint32_t nLevel,
                                     std::uint32_t nEntryNo, tODB_BT_OFFSET nOffset) {
  nNodeOffset &= ~kChildBit;
  nPreviousOffset &= ~kChildBit;
  if (nNodeOffset < FirstNodeOffset) return errPARAMETER_INVALID;
  if (!m_bNodeCrcs) return WriteEntry(nNodeOffset, nEntryNo, nOffset);
  tODB_BT_OFFSET Node[kRootSlots + 1];  // with the CRC behind the slots
  ResultCode nCode = ReadEntries(nNodeOffset, SlotsSize(nLevel), Node);
  if (Failed(nCode)) return nCode;
  const auto Seal = [&] {
    Node[SlotsOnLevel(nLevel)] = m_Crc.Of(nPreviousOffset, Node, SlotsSize(nLevel));
  };
  const tODB_BT_OFFSET nOldOffset = std::exchange(Node[nEntryNo], nOffset);
  Seal();
  nCode = WriteChecked(nNodeOffset, nLevel, nEntryNo, Node);
  if (Succeeded(nCode)) return errOK;
  // The slot and the CRC that were there, as far as they can be written: otherwise one failed call costs the whole
  // node.
  Node[nEntryNo] = nOldOffset;
  Seal();
  std::uint32_t nWritten = 0;
  BT_SeekWrite(nNodeOffset + nEntryNo * sizeof(tODB_BT_OFFSET), Node + nEntryNo,
               NodeSize(nLevel) - nEntryNo * static_cast<std::uint32_t>(sizeof(tODB_BT_OFFSET)), &nWritten);
  return nCode;
}

// The CRC first, and the slot. Below the root, whose slots fill a KiB, both are close together and go in one write.
ResultCode HashTree::WriteChecked(std::uint32_t nNodeOffset, std::uint32_t nLevel, std::uint32_t nEntryNo,
                                  const tODB_BT_OFFSET* Node) {
  const std::uint32_t nFirst = nLevel == 0 ? SlotsOnLevel(0) : nEntryNo;
  const std::uint32_t nAt = nFirst * static_cast<std::uint32_t>(sizeof(tODB_BT_OFFSET));
  std::uint32_t nWritten = 0;
  if (!BT_SeekWrite(nNodeOffset + nAt, Node + nFirst, NodeSize(nLevel) - nAt, &nWritten))
    return FailedCheck("BT_SeekWrite(nNodeOffset+offsetsSize, &crc32, sizeof(crc32), &bytes)", errWRITE_FAILED);
  if (nWritten != NodeSize(nLevel) - nAt) return FailedCheck("bytes == sizeof(crc32)", errWRITE_FAILED);
  return nLevel == 0 ? WriteEntry(nNodeOffset, nEntryNo, Node[nEntryNo]) : errOK;
}

ResultCode HashTree::WriteEntry(std::uint32_t nNodeOffset, std::uint32_t nEntryNo, tODB_BT_OFFSET nOffset) {
  std::uint32_t nRead = 0;
  if (!BT_SeekWrite(nNodeOffset + nEntryNo * sizeof(tODB_BT_OFFSET), &nOffset, sizeof(nOffset), &nRead))
    return FailedCheck("BT_SeekWrite(nNodeOffset+nEntryNo*sizeof(tODB_BT_OFFSET), &nOffset, sizeof(nOffset), &bytes)",
                       errWRITE_FAILED);
  if (nRead != sizeof(tODB_BT_OFFSET)) return FailedCheck("bytes == sizeof(tODB_BT_OFFSET)", errWRITE_FAILED);
  return errOK;
}

ResultCode HashTree::BT_AddNode(std::uint32_t nLevel, std::uint32_t nPreviousOffset, std::uint32_t* pnNodeOffset) {
  const std::uint32_t nSlotsSize = SlotsSize(nLevel);
  std::uint64_t nOldSize = 0;
  const ResultCode nCode = BT_ExtendDB(NodeSize(nLevel), &nOldSize);
  if (Failed(nCode)) return nCode;
  auto nNodeOffset = static_cast<std::uint32_t>(nOldSize);
  *pnNodeOffset = nNodeOffset;

  constexpr tODB_BT_OFFSET Slots[kRootSlots] = {};
  std::uint32_t nWritten = 0;
  if (!BT_SeekWrite(nNodeOffset, Slots, nSlotsSize, &nWritten))
    return FailedCheck("BT_SeekWrite(nNodeOffset, offsets, write_size, &bytesWritten)", errWRITE_FAILED);
  if (nWritten != nSlotsSize) return FailedCheck("(bytesWritten == write_size)", errWRITE_FAILED);
  if (!m_bNodeCrcs) return errOK;
  const std::uint32_t nCrc = m_Crc.Of(nPreviousOffset, Slots, nSlotsSize);
  nNodeOffset += nSlotsSize;
  if (!BT_SeekWrite(nNodeOffset, &nCrc, sizeof(nCrc), &nWritten))
    return FailedCheck("BT_SeekWrite(nNodeOffset, &crc32, sizeof(crc32), &bytesWritten)", errWRITE_FAILED);
  if (nWritten != sizeof(nCrc)) return FailedCheck("(bytesWritten == sizeof(crc32))", errWRITE_FAILED);
  return errOK;
}

ResultCode HashTree::BT_ExtendDB(std::uint32_t nAdded, std::uint64_t* pnOldSize) {
  tODB_BT_HEADER Header{};
  std::uint32_t nRead = 0;
  if (!BT_SeekRead(0, &Header, sizeof(Header), &nRead))
    return FailedCheck("BT_SeekRead(0, &hdr, sizeof(hdr), &bytesRead)", ReadErrorCode(0));
  if (sizeof(Header) != nRead) return FailedCheck("(sizeof(hdr) == bytesRead)", ReadErrorCode(nRead));
  if (Header.nDBSize + nAdded > kChildBit) return errOUT_OF_SPACE;  // a slot has no bits for a higher offset
  *pnOldSize = Header.nDBSize;
  Header.nDBSize += nAdded;
  m_nSizeBT = Header.nDBSize;
  // Before the node itself: a crash in between leaves a size that the next Open finds wrong and mends.
  if (!BT_SeekWrite(0, &Header, sizeof(Header), nullptr))
    return FailedCheck("BT_SeekWrite(0, &hdr, sizeof(hdr), NULL)", errWRITE_FAILED);
  return errOK;
}

// ---- The head in memory -----------------------------------------------------------------------------------

bool HashTree::ReadHead(std::uint64_t nOffset, void* pBuffer, std::uint32_t nSize, std::uint32_t* pnRead) {
  if (m_btHead.empty()) {
    m_btHead.resize(m_nBtHeadSize);
    std::uint32_t nHeld = 0;
    if (!m_pFile->SeekRead(0, m_btHead.data(), m_nBtHeadSize, &nHeld)) {
      m_btHead.clear();
      return false;
    }
    m_btHead.resize(nHeld);
  }
  const std::uint64_t nHeld = m_btHead.size();
  *pnRead = nOffset >= nHeld ? 0 : static_cast<std::uint32_t>(std::min<std::uint64_t>(nSize, nHeld - nOffset));
  if (*pnRead != 0) std::memcpy(pBuffer, m_btHead.data() + nOffset, *pnRead);
  return true;
}

bool HashTree::BT_SeekWrite(std::uint64_t nOffset, const void* pData, std::uint32_t nSize, std::uint32_t* pnWritten) {
  if (!m_File.SeekWrite(nOffset, pData, nSize, pnWritten)) return false;
  if (nOffset >= m_nBtHeadSize || m_btHead.empty()) return true;  // an unread head stays so: the next read fills it
  const auto nStart = static_cast<std::size_t>(nOffset);
  const auto nEnd = static_cast<std::size_t>(std::min<std::uint64_t>(nOffset + nSize, m_nBtHeadSize));
  if (m_btHead.size() < nEnd) m_btHead.resize(nEnd);
  std::memcpy(m_btHead.data() + nStart, pData, nEnd - nStart);
  return true;
}

}  // namespace lumbra
