// The 64-bit hash by which the object store finds an object.
#pragma once

#include <cstdint>

namespace lumbra {

// MD5 over the type (u32), the parent's hash (u64; left out when 0, for a root) and the nSize bytes of the
// name; the two halves of the digest are folded together. With fObjNoCase each UTF-16 unit of the name counts
// as upper case. 0 for a missing name; 0 is reserved for objects without a hash.
std::uint64_t ObjectHash(std::uint8_t nType, const void* pName, std::uint32_t nSize, std::uint64_t nParentHash,
                         std::uint32_t nFlags);

}  // namespace lumbra
