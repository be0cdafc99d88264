// The file of the tree that finds an object by its 64-bit hash: a radix tree over the bits of the hash.
//
// The root takes the lowest 8 bits of the hash, the next level 4 bits, the next 2, every deeper one 1. A node is an
// array of slots, one per value of its bits. In a checked file every node is followed by the CRC of its slots, seeded
// with the offset of its parent (0 for the root) where the store's CRCs are seeded. Nodes are appended and never freed.
#pragma once

#include <cstddef>
#include <cstdint>

namespace lumbra {

inline constexpr char kTreeMagic[4] = {'O', 'D', 'B', 'T'};
inline constexpr char kCheckedTreeMagic[4] = {'O', 'D', 'B', 'C'};

struct tODB_BT_HEADER {
  char Magic[4];                   // 0: kTreeMagic, or kCheckedTreeMagic where nodes have CRCs
  std::uint32_t nFirstNodeOffset;  // 4: 16, where the root stands; 0 while a tree is filled that may not be used yet
  std::uint64_t nDBSize;           // 8: used size of the file, the end of the last node
};
static_assert(sizeof(tODB_BT_HEADER) == 16);
static_assert(offsetof(tODB_BT_HEADER, nFirstNodeOffset) == 4 && offsetof(tODB_BT_HEADER, nDBSize) == 8);

inline constexpr std::uint32_t FirstNodeOffset = sizeof(tODB_BT_HEADER);

// A slot of a node: nothing (0), a child node (kChildBit | its offset), or the short id of the one object whose hash
// leads there.
using tODB_BT_OFFSET = std::uint32_t;
inline constexpr tODB_BT_OFFSET kChildBit = 0x80000000;
constexpr bool IsChild(tODB_BT_OFFSET nSlot) {
  return (nSlot & kChildBit) != 0;
}

// A walk ends at this level at the latest. The bits of a hash are used up at level 52, where any two different hashes
// have parted; what goes deeper is damage.
inline constexpr std::uint32_t kMaxTreeLevel = 64;

// The slots of a node on a level: the root, on level 0, has 256, the next ones 16 and 4.
constexpr std::uint32_t SlotsOnLevel(std::uint32_t nLevel) {
  return nLevel < 3 ? 256u >> (nLevel == 0 ? 0 : 2 * nLevel + 2) : 2;
}
static_assert(SlotsOnLevel(0) == 256 && SlotsOnLevel(1) == 16 && SlotsOnLevel(2) == 4 && SlotsOnLevel(3) == 2);
inline constexpr std::uint32_t kRootSlots = SlotsOnLevel(0);

// The bits of the hash that a level takes: the index of the slot.
constexpr std::uint32_t GetHashDigit(std::uint64_t nHash, std::uint32_t nLevel) {
  const std::uint32_t nShift = nLevel < 3 ? (nLevel == 0 ? 0 : 4 * nLevel + 4) : nLevel + 11;
  if (nShift >= 64) return 0;  // the hash is used up
  return static_cast<std::uint32_t>(nHash >> nShift) & (SlotsOnLevel(nLevel) - 1);
}

}  // namespace lumbra
