// The tree of an object store: each node once, each slot leads to a record of its digits, and each record is found.
#include <cstring>
#include <utility>

#include "format/data_crc.h"
#include "format/object_files.h"
#include "format/tree_file.h"
#include "inspect/paged.h"
#include "inspect/verify_parts.h"

namespace lumbra::inspect {
namespace {

// The bytes of a tree as they were read first: what is reached of it, without pages of zeros. Nodes behind the end of
// what was read are read anew.
class TreePages {
 public:
  explicit TreePages(const File& From) : m_File(From) {}

  // False where the file ends before that, or the system refuses.
  bool Read(std::uint64_t nOffset, void* pTo, std::uint32_t nSize) {
    auto* pOut = static_cast<std::uint8_t*>(pTo);
    while (nSize != 0) {
      const auto nStart = static_cast<std::uint32_t>(nOffset % kPage);
      const std::uint32_t nPiece = std::min(nSize, kPage - nStart);
      const Page* const pPage = Hold(nOffset / kPage, nStart + nPiece);
      if (pPage == nullptr) return false;
      if (pPage->pBytes != nullptr) {
        std::memcpy(pOut, pPage->pBytes.get() + nStart, nPiece);
      } else {
        std::memset(pOut, 0, nPiece);
      }
      pOut += nPiece;
      nOffset += nPiece;
      nSize -= nPiece;
    }
    return true;
  }

  // The bytes as they are now.
  void Forget(std::uint64_t nOffset, std::uint32_t nSize) {
    for (std::uint64_t nPage = nOffset / kPage; nPage * kPage < nOffset + nSize && nPage < m_Pages.size(); ++nPage)
      m_Pages[static_cast<std::size_t>(nPage)] = {};
  }

  std::uint64_t BytesRead() const { return m_nRead; }

 private:
  static constexpr std::uint32_t kPage = 16 * 1024;
  struct Page {
    std::uint32_t nValid = 0;
    std::unique_ptr<std::uint8_t[]> pBytes;  // null: zeros
  };

  const Page* Hold(std::uint64_t nPage, std::uint32_t nWanted) {
    const auto nIndex = static_cast<std::size_t>(nPage);  // offsets in a tree have 31 bits
    if (nIndex < m_Pages.size() && m_Pages[nIndex].nValid >= nWanted) return &m_Pages[nIndex];
    std::uint8_t Bytes[kPage];
    std::uint32_t nRead = 0;
    if (m_File.Read(nPage * kPage, Bytes, kPage, &nRead) != os::kSuccess || nRead < nWanted) return nullptr;
    m_nRead += nRead;
    if (nIndex >= m_Pages.size()) m_Pages.resize(nIndex + 1);
    Page& Held = m_Pages[nIndex];
    Held.nValid = nRead;
    if (std::all_of(Bytes, Bytes + nRead, [](std::uint8_t nByte) { return nByte == 0; })) {
      Held.pBytes.reset();
    } else {
      Held.pBytes.reset(new std::uint8_t[nRead]);
      std::memcpy(Held.pBytes.get(), Bytes, nRead);
    }
    return &Held;
  }

  const File& m_File;
  std::vector<Page> m_Pages;
  std::uint64_t m_nRead = 0;
};

// The bits of a hash that the levels above one have taken.
constexpr std::uint32_t BitsAbove(std::uint32_t nLevel) {
  return nLevel < 3 ? (nLevel == 0 ? 0 : 4 * nLevel + 4) : nLevel + 11;
}
static_assert(BitsAbove(1) == 8 && BitsAbove(2) == 12 && BitsAbove(3) == 14 && BitsAbove(4) == 15);

class TreeLook {
 public:
  TreeLook(const FileOf& What, const File& From, HashedRecords& Records, bool bShared, bool bSeeded, Examiner* pTell)
      : m_What(What),
        m_From(From),
        m_Records(Records),
        m_bShared(bShared),
        m_Crc(bSeeded),
        m_pTell(pTell),
        m_Pages(From) {}

  void Look() {
    if (!ReadHead()) return;
    m_Open.push_back({FirstNodeOffset, 0, 0, 0});
    while (!m_Open.empty() && !m_pTell->Stopped()) {
      const Node Next = m_Open.back();
      m_Open.pop_back();
      LookAt(Next);
      Count();
    }
    if (m_pTell->Stopped()) return;
    TellUnreachedNodes();
    TellUnreachedRecords();
  }

 private:
  struct Node {
    std::uint32_t nOffset;
    std::uint32_t nParent;
    std::uint32_t nLevel;
    std::uint64_t nDigits;  // that lead to it
  };

  std::uint32_t CrcSize() const { return m_bCrcs ? kCrcSize : 0; }

  bool ReadHead() {
    tODB_BT_HEADER Head{};
    os::FileLook Found{};
    const bool bLooked = m_From.Look(&Found) == os::kSuccess;
    m_nSize = Found.nSize;
    if (bLooked && m_nSize < sizeof(Head)) return TellShort("it ends within its header", sizeof(Head));
    if (!bLooked || !m_Pages.Read(0, &Head, sizeof(Head))) {
      m_pTell->Suspect(m_What, 0, "the system refuses to read it");
      return false;
    }
    m_bCrcs = std::memcmp(Head.Magic, kCheckedTreeMagic, sizeof(Head.Magic)) == 0;
    if (!m_bCrcs && std::memcmp(Head.Magic, kTreeMagic, sizeof(Head.Magic)) != 0) {
      m_pTell->Suspect(m_What, 0, "it has no magic of a tree");
      return false;
    }
    if (Head.nFirstNodeOffset == 0 && m_bShared && m_bCrcs) {
      m_pTell->Leftover(m_What, 4, "it is being filled anew, and is not used before that is done");
      return false;
    }
    if (Head.nFirstNodeOffset != FirstNodeOffset) {
      m_pTell->Suspect(m_What, 4, "its root stands elsewhere", "16", std::to_string(Head.nFirstNodeOffset));
      return false;
    }
    const std::uint64_t nRootEnd = FirstNodeOffset + kRootSlots * sizeof(tODB_BT_OFFSET) + CrcSize();
    if (m_nSize < nRootEnd) return TellShort("it ends within its root", nRootEnd);
    if (Head.nDBSize != m_nSize && IsSizeOf(m_nSize))
      m_pTell->Leftover(m_What, 8, "it tells another size than it has, which is mended when it is opened",
                        std::to_string(m_nSize), std::to_string(Head.nDBSize));
    return true;
  }

  // A fresh file, or a part of what was there.
  bool TellShort(const char* pWhat, std::uint64_t nWanted) {
    const std::string Expected = std::to_string(nWanted) + " bytes";
    if (m_Records.CountAtHorizon() == 0) {
      m_pTell->Leftover(m_What, m_nSize, "it was only begun", Expected, std::to_string(m_nSize));
    } else {
      m_pTell->Suspect(m_What, m_nSize, pWhat, Expected, std::to_string(m_nSize));
    }
    return false;
  }

  // Whether it has not grown since.
  bool IsSizeOf(std::uint64_t nSize) const {
    os::FileLook Now{};
    return m_From.Look(&Now) == os::kSuccess && Now.nSize == nSize;
  }

  void LookAt(const Node& At) {
    const std::uint32_t nSlots = SlotsOnLevel(At.nLevel);
    const auto nSlotsSize = static_cast<std::uint32_t>(nSlots * sizeof(tODB_BT_OFFSET));
    const std::uint32_t nSize = nSlotsSize + CrcSize();
    if (IsTaken(At.nOffset, nSize))
      return m_pTell->Suspect(m_What, At.nOffset, "a node lies over another one, or is its own parent");
    tODB_BT_OFFSET Slots[kRootSlots + 1];
    const auto Try = [&] {
      return m_Pages.Read(At.nOffset, Slots, nSize) &&
             (!m_bCrcs || m_Crc.Valid(At.nParent, Slots, nSlotsSize, Slots + nSlots));
    };
    bool bSound = Try();
    for (bool bLooked = false; !bSound && m_pTell->LooksAgain(&bLooked);) {
      m_Pages.Forget(At.nOffset, nSize);
      bSound = Try();
    }
    if (!bSound && At.nLevel == 0 && m_Pages.Read(At.nOffset, Slots, nSize) && IsTornRoot(Slots)) {
      m_pTell->Leftover(m_What, At.nOffset,
                        "its root has the CRC of a slot that was not written: it is refused, and started anew");
    } else if (!bSound) {
      m_bSound = false;
      const bool bRead = m_Pages.Read(At.nOffset, Slots, nSize);
      m_pTell->Suspect(m_What, At.nOffset,
                       bRead ? "the CRC of a node is wrong" : "a slot leads to a node behind the end");
      return;
    }
    m_nReached += nSize;
    for (std::uint32_t i = 0; i < nSlots; ++i) {
      if (Slots[i] != 0) LookAtSlot(At, i, Slots[i]);
    }
  }

  // The CRC of the root is written before the slot that it counts already: that of the newest object, or one that leads
  // to the newest nodes, which came in one piece.
  bool IsTornRoot(const tODB_BT_OFFSET* Root) const {
    tODB_BT_OFFSET Slots[kRootSlots];
    std::copy_n(Root, kRootSlots, Slots);
    const auto Fits = [&](std::uint32_t nSlot, tODB_BT_OFFSET nEntry) {
      const tODB_BT_OFFSET nBefore = std::exchange(Slots[nSlot], nEntry);
      const bool bFits = m_Crc.Valid(0, Slots, sizeof(Slots), Root + kRootSlots);
      Slots[nSlot] = nBefore;
      return bFits;
    };
    const std::uint64_t nNewest = m_Records.CountAtHorizon();
    const std::uint32_t nDigit = GetHashDigit(m_Records.HashOf(nNewest), 0);
    if (nNewest <= kMaxObjects && Slots[nDigit] == 0 && Fits(nDigit, static_cast<tODB_BT_OFFSET>(nNewest))) return true;
    std::uint64_t nRun = 0;
    for (std::uint32_t nLevel = 1; nLevel <= kMaxTreeLevel; ++nLevel) {
      nRun += SlotsOnLevel(nLevel) * sizeof(tODB_BT_OFFSET) + CrcSize();
      if (nRun >= m_nSize || m_nSize - nRun >= kChildBit) continue;
      const tODB_BT_OFFSET nChild = kChildBit | static_cast<tODB_BT_OFFSET>(m_nSize - nRun);
      for (std::uint32_t i = 0; i < kRootSlots; ++i) {
        if (Slots[i] != 0 && !IsChild(Slots[i]) && Fits(i, nChild)) return true;
      }
    }
    return false;
  }

  // By its 4 bytes, so that each is looked at once, whatever leads to it.
  bool IsTaken(std::uint32_t nOffset, std::uint32_t nSize) {
    for (std::uint32_t nAt = nOffset; nAt < nOffset + nSize; nAt += sizeof(tODB_BT_OFFSET)) {
      if (m_Taken.Set(nAt / sizeof(tODB_BT_OFFSET))) return true;
    }
    return false;
  }

  void LookAtSlot(const Node& At, std::uint32_t nSlot, tODB_BT_OFFSET nEntry) {
    const std::uint32_t nBitsAbove = BitsAbove(At.nLevel);
    const std::uint64_t nDigits = At.nDigits | (nBitsAbove < 64 ? std::uint64_t{nSlot} << nBitsAbove : 0);
    const std::uint64_t nPlace = At.nOffset + std::uint64_t{nSlot} * sizeof(nEntry);
    if (!IsChild(nEntry)) return LookAtRecord(nPlace, nEntry, nDigits, BitsAbove(At.nLevel + 1));
    const std::uint32_t nChild = nEntry & ~kChildBit;
    if (nChild < FirstNodeOffset + kRootSlots * sizeof(nEntry) || nChild % sizeof(nEntry) != 0 ||
        At.nLevel == kMaxTreeLevel) {
      m_bSound = false;
      return m_pTell->Suspect(m_What, nPlace, "a slot leads to no node", "", Hex(nEntry));
    }
    m_Open.push_back({nChild, At.nOffset, At.nLevel + 1, nDigits});
  }

  // A record that came behind the horizon is not known. What compaction left nameless keeps its slot.
  void LookAtRecord(std::uint64_t nPlace, std::uint32_t nShortId, std::uint64_t nDigits, std::uint32_t nBits) {
    if (nShortId > m_Records.CountAtHorizon()) {
      if (nShortId > m_nNow) m_nNow = m_Records.CountNow();
      if (nShortId > m_nNow)
        m_pTell->Suspect(m_What, nPlace, "a slot leads to a record that is not there", "", Hex(nShortId));
      return;
    }
    m_bAny = true;
    m_Reached.Set(nShortId);
    const std::uint64_t nHash = m_Records.HashOf(nShortId);
    const std::uint64_t nMask = nBits >= 64 ? UINT64_MAX : (std::uint64_t{1} << nBits) - 1;
    if (((nHash ^ nDigits) & nMask) == 0 || nHash == UINT64_MAX || m_Records.IsDamaged(nShortId)) return;
    m_pTell->Suspect(m_What, nPlace, "a slot leads to a record of another hash",
                     "the last " + std::to_string(nBits) + " bits of " + Hex(nDigits),
                     Hex(nHash) + " of object " + std::to_string(nShortId));
  }

  void Count() {
    const std::uint64_t nRead = m_Pages.BytesRead();
    if (nRead != m_nCounted) (void)m_pTell->Count(nRead - m_nCounted);  // asked for by the loop
    m_nCounted = nRead;
  }

  void TellUnreachedNodes() {
    const std::uint64_t nUsed = FirstNodeOffset + m_nReached;
    if (m_bSound && m_nSize > nUsed && IsSizeOf(m_nSize))
      m_pTell->Leftover(m_What, FirstNodeOffset, "nothing leads to some of its nodes", "",
                        std::to_string(m_nSize - nUsed) + " bytes");
  }

  // What a hash leads to, as the file is now.
  std::uint32_t Find(TreePages* pNow, std::uint64_t nHash) const {
    std::uint32_t nNode = FirstNodeOffset;
    for (std::uint32_t nLevel = 0; nLevel <= kMaxTreeLevel; ++nLevel) {
      tODB_BT_OFFSET nEntry = 0;
      const std::uint64_t nAt = nNode + std::uint64_t{GetHashDigit(nHash, nLevel)} * sizeof(nEntry);
      if (!pNow->Read(nAt, &nEntry, sizeof(nEntry))) return 0;
      if (!IsChild(nEntry)) return nEntry;
      nNode = nEntry & ~kChildBit;
    }
    return 0;
  }

  // An object whose slot was not written. It may have been while we looked.
  void TellUnreachedRecords() {
    TreePages Now(m_From);
    std::uint64_t nMissing = 0;
    for (std::uint64_t i = 1; i <= m_Records.CountAtHorizon(); ++i) {
      const std::uint64_t nHash = m_Records.HashOf(i);
      if (nHash == 0 || nHash == UINT64_MAX || m_Reached.Test(i)) continue;
      const std::uint32_t nFound = Find(&Now, nHash);
      if (nFound == i) continue;
      ++nMissing;
      const bool bOther = nFound != 0 && nFound <= m_Records.CountAtHorizon() && m_Records.HashOf(nFound) == nHash;
      if (!m_bAny && !bOther) continue;
      m_pTell->Leftover(m_What, 0,
                        bOther ? "it leads to another object of the same name" : "an object is not reached by its name",
                        "object " + std::to_string(i), bOther ? "object " + std::to_string(nFound) : "");
    }
    // Of those that a crash leaves, one after another, there are few.
    constexpr std::uint64_t kFew = 2;
    if (m_bAny || nMissing == 0 || !m_bSound) return;
    if (nMissing > kFew) {
      m_pTell->Suspect(m_What, 0, "it leads to none of the objects", std::to_string(nMissing) + " objects", "none");
    } else {
      m_pTell->Leftover(m_What, 0, "it leads to none of the objects", std::to_string(nMissing) + " objects", "none");
    }
  }

  const FileOf& m_What;
  const File& m_From;
  HashedRecords& m_Records;
  const bool m_bShared;
  const DataCrc m_Crc;
  Examiner* const m_pTell;
  TreePages m_Pages;
  std::uint64_t m_nSize = 0;
  bool m_bCrcs = false;
  bool m_bSound = true;  // all that is reached was read
  bool m_bAny = false;   // it leads to an object
  std::vector<Node> m_Open;
  PagedBits m_Taken;    // by 4 bytes
  PagedBits m_Reached;  // by short id
  std::uint64_t m_nReached = 0;
  std::uint64_t m_nNow = 0;
  std::uint64_t m_nCounted = 0;
};

}  // namespace

void VerifyTree(const FileOf& Tree, const File& From, HashedRecords& Records, bool bShared, bool bSeeded,
                Examiner* pTell) {
  TreeLook(Tree, From, Records, bShared, bSeeded, pTell).Look();
}

}  // namespace lumbra::inspect
