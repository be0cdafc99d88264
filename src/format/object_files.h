// The id and data files of an object store, field by field. (The tree file: tree_file.h.)
//
// Id file: a record file (record_file.h) of tODB_ID_ENTRY; record i describes the object with short id i + 1.
//
// Data file: a 4-byte magic that names the feature set, then blocks, each appended at what was then the end of the file
// and found only through the record or entry that points to it. A block that is replaced is overwritten with zeros and
// stays as a hole until the store is compacted. Offsets are 32 bits.
//
//   name block         the name's bytes, then with featureNameCrc a u32 CRC of them, seed: the object's hash
//   data entry array   a tODB_DATA_ENTRY per data block, then with featureArrayCrc a u32 CRC, seed: the object's id
//   data block         the user's bytes, then with featureBlockCrc a u32 CRC of them, seed: the object's id;
//                      the whole block, CRC included, masked with featureMask
#pragma once

#include <cstddef>
#include <cstdint>

#include "format/object_id.h"

namespace lumbra {

using FILE_MAGIC = char[4];

enum StoreFeatures : std::uint32_t {
  featureMask = 1,
  featureBlockCrc = 2,
  featureArrayCrc = 4,
  featureNameCrc = 8,  // and every CRC of the store, the tree's too, uses its seed
};

// What new files get: everything under data checking, masked blocks without it.
inline constexpr std::uint32_t kPlainFeatures = featureMask;
inline constexpr std::uint32_t kCheckedFeatures = featureMask | featureBlockCrc | featureArrayCrc | featureNameCrc;

struct FeatureMagic {
  FILE_MAGIC Magic;
  std::uint32_t nFeatures;
};
inline constexpr FeatureMagic kFeatureMagics[] = {
    {{'O', 'D', 'B', 'D'}, 0}, {{'O', 'D', 'B', 'O'}, 1},  {{'O', 'D', 'B', 'Q'}, 3},
    {{'O', 'D', 'B', 'R'}, 7}, {{'O', 'D', 'B', 'S'}, 15},
};

// The magic of one of the feature sets above.
constexpr const FILE_MAGIC& MagicOf(std::uint32_t nFeatures) {
  for (const FeatureMagic& Known : kFeatureMagics) {
    if (Known.nFeatures == nFeatures) return Known.Magic;
  }
  return kFeatureMagics[0].Magic;
}

// Offsets have 32 bits.
inline constexpr std::uint64_t kMaxDataFileSize = std::uint64_t{1} << 32;

#pragma pack(push, 1)

// The id record, one per object: 29 bytes, and a CRC where the file is a checked one.
struct tODB_ID_ENTRY {
  std::uint64_t nObjectHash;  //  0: 0 for an anonymous object, kInvalidHash for one that compaction left nameless
  tObjectId nParentId;        //  8: the parent's object id, 0 for none
  std::uint32_t nName;        // 16: offset of the name block, 0 without a name
  std::uint16_t nNameSize;    // 20: bytes of the name
  std::uint8_t nFlags;        // 22: bit 0: the name is UTF-8, otherwise UTF-16
  std::uint8_t nType;         // 23
  std::uint32_t nDataEntriesOffset;  // 24: offset of the data entry array, 0 for none
  std::uint8_t nDataEntriesCount;    // 28
};
static_assert(sizeof(tODB_ID_ENTRY) == 29);
static_assert(offsetof(tODB_ID_ENTRY, nParentId) == 8 && offsetof(tODB_ID_ENTRY, nName) == 16);
static_assert(offsetof(tODB_ID_ENTRY, nNameSize) == 20 && offsetof(tODB_ID_ENTRY, nFlags) == 22);
static_assert(offsetof(tODB_ID_ENTRY, nType) == 23 && offsetof(tODB_ID_ENTRY, nDataEntriesOffset) == 24);
static_assert(offsetof(tODB_ID_ENTRY, nDataEntriesCount) == 28);

struct tODB_DATA_ENTRY {
  std::uint32_t nDataType;    // 0: the key of the block within its object
  std::uint32_t nDataOffset;  // 4: offset of the data block
  std::uint32_t nDataSize;    // 8: see DataSize
};
static_assert(sizeof(tODB_DATA_ENTRY) == 12);
static_assert(offsetof(tODB_DATA_ENTRY, nDataOffset) == 4 && offsetof(tODB_DATA_ENTRY, nDataSize) == 8);

#pragma pack(pop)

// The hash of an object that compaction left nameless: the tree does not know it, and no lookup asks for it.
inline constexpr std::uint64_t kInvalidHash = UINT64_MAX;

// Whether the tree must lead to an object.
constexpr bool IsInTree(const tODB_ID_ENTRY& Entry) {
  return Entry.nObjectHash != 0 && Entry.nObjectHash != kInvalidHash;
}

// A longer name does not fit nNameSize; more entries do not fit nDataEntriesCount.
inline constexpr std::uint32_t kMaxNameSize = 65535;
inline constexpr std::uint32_t kMaxDataEntries = 255;

// So many objects at most: more would leave no room in the 31 bits of a tree slot; the limit has a digit less than
// that.
inline constexpr std::uint64_t kMaxObjects = 0x7FFFFF0;

// nDataSize tells the bytes that are stored (CRC included) and the room they have on disk. Top bit clear:
// both are the value. Top bit set: stored in bits 0 to 14, room in bits 16 to 30.
struct DataSize {
  std::uint32_t nStored;
  std::uint32_t nCapacity;

  static constexpr std::uint32_t kMaxSmall = 0x7FFF;

  static constexpr DataSize Decode(std::uint32_t nDataSize) {
    const bool bSmall = (nDataSize & 0x80000000u) != 0;
    return bSmall ? DataSize{nDataSize & kMaxSmall, (nDataSize >> 16) & kMaxSmall} : DataSize{nDataSize, nDataSize};
  }
  constexpr std::uint32_t Encode() const {
    if (nStored > kMaxSmall) return nStored;
    const std::uint32_t nRoom = nCapacity < kMaxSmall ? nCapacity : kMaxSmall;
    return 0x80000000u | (nRoom << 16) | nStored;
  }
};

// XORs a block with a fixed key, repeated from the block's start; done twice it restores the block. Keeps
// names and paths in data from standing readable in the file.
inline void MaskDataBlock(std::uint8_t* pBlock, std::uint32_t nSize) {
  constexpr std::uint8_t kKey[4] = {0x27, 0x9E, 0x5C, 0x3A};  // 0x3A5C9E27, little-endian
  for (std::uint32_t i = 0; i < nSize; ++i) pBlock[i] ^= kKey[i % 4];
}

}  // namespace lumbra
