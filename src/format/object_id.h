// The ids of objects as they stand on the disk. (With the database that the component adds in the top 8 bits, which are
// 0 there, and those of events: lumbra/lumbra.h.)
#pragma once

#include <cstdint>

namespace lumbra {

// An object: the number of its store (the segment's, or 0 for the shared one) in the high, its short id (record index +
// 1) in the low 32 bits. 0 is no object.
using tObjectId = std::uint64_t;
constexpr std::uint32_t MAKE_SHORT_OBJECT_ID(tObjectId id) {
  return static_cast<std::uint32_t>(id);
}
constexpr std::uint32_t StoreNumberOf(tObjectId id) {
  return static_cast<std::uint32_t>(id >> 32);
}
constexpr tObjectId MakeObjectId(std::uint32_t nNumber, std::uint32_t nShortId) {
  return (tObjectId{nNumber} << 32) | nShortId;
}

}  // namespace lumbra
