// The CRCs of an object store's files, with the store's rule for their seeds.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "format/crc32.h"

namespace lumbra {

class DataCrc {
 public:
  DataCrc() = default;

  // With bSeeded every CRC starts at the low 32 bits of the seed that its place has; otherwise all start at
  // 0. Seeds tie a block to its owner, so that a block which was copied to another place fails its check
  // there.
  explicit DataCrc(bool bSeeded) : m_bSeeded(bSeeded) {}

  std::uint32_t Of(std::uint64_t nSeed, const void* pBytes, std::size_t nSize) const {
    return Crc32(m_bSeeded ? static_cast<std::uint32_t>(nSeed) : 0, pBytes, nSize);
  }

  bool Valid(std::uint64_t nSeed, const void* pBytes, std::size_t nSize, const void* pStoredCrc) const {
    std::uint32_t nStored = 0;
    std::memcpy(&nStored, pStoredCrc, sizeof(nStored));
    return Of(nSeed, pBytes, nSize) == nStored;
  }

 private:
  bool m_bSeeded = false;
};

}  // namespace lumbra
