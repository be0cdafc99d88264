// The CRC-32 of every file of the store: bit-reflected, polynomial 0xEDB88320, the caller's seed as the
// start, and no inversion at either end. So an empty range answers its seed, and zeros under seed 0 answer 0. The
// digits "123456789" have 0x2DFD2D88 with seed 0. Stored as a little-endian u32 right after the bytes it covers.
#pragma once

#include <cstddef>
#include <cstdint>

namespace lumbra {

// Bytes of a stored CRC.
inline constexpr std::uint32_t kCrcSize = sizeof(std::uint32_t);

std::uint32_t Crc32(std::uint32_t nSeed, const void* pData, std::size_t nSize);

}  // namespace lumbra
