#include "format/crc32.h"

#include <array>
#include <cstring>

namespace lumbra {
namespace {

// Table k holds what becomes of a byte that k zero bytes follow. So eight bytes can be taken at once, each from the
// table of its distance to the last one: the steps are linear, and what they give is put together by XOR ("slicing by
// 8").
constexpr std::size_t kSlice = 8;
using Tables = std::array<std::array<std::uint32_t, 256>, kSlice>;

constexpr Tables MakeTables() {
  Tables Made{};
  for (std::uint32_t nByte = 0; nByte < 256; ++nByte) {
    std::uint32_t nValue = nByte;
    for (int nBit = 0; nBit < 8; ++nBit) nValue = (nValue >> 1) ^ ((nValue & 1) != 0 ? 0xEDB88320u : 0u);
    Made[0][nByte] = nValue;
  }
  for (std::size_t k = 1; k < kSlice; ++k) {
    for (std::size_t nByte = 0; nByte < 256; ++nByte) {
      const std::uint32_t nBefore = Made[k - 1][nByte];
      Made[k][nByte] = (nBefore >> 8) ^ Made[0][nBefore & 0xFFu];
    }
  }
  return Made;
}

constexpr Tables kTables = MakeTables();
static_assert(kTables[0][1] == 0x77073096u && kTables[0][255] == 0x2D02EF8Du);

// Four bytes, the last of which nFollowing others follow.
std::uint32_t Advance(std::uint32_t nWord, std::size_t nFollowing) {
  return kTables[nFollowing + 3][nWord & 0xFFu] ^ kTables[nFollowing + 2][(nWord >> 8) & 0xFFu] ^
         kTables[nFollowing + 1][(nWord >> 16) & 0xFFu] ^ kTables[nFollowing][nWord >> 24];
}

}  // namespace

std::uint32_t Crc32(std::uint32_t nSeed, const void* pData, std::size_t nSize) {
  const auto* pByte = static_cast<const std::uint8_t*>(pData);
  std::uint32_t nValue = nSeed;
  for (; nSize >= kSlice; nSize -= kSlice, pByte += kSlice) {
    std::uint32_t Words[2];  // little-endian, as all that is stored
    std::memcpy(Words, pByte, sizeof(Words));
    nValue = Advance(Words[0] ^ nValue, 4) ^ Advance(Words[1], 0);
  }
  for (const std::uint8_t* const pEnd = pByte + nSize; pByte != pEnd; ++pByte) {
    nValue = (nValue >> 8) ^ kTables[0][(nValue ^ *pByte) & 0xFFu];
  }
  return nValue;
}

}  // namespace lumbra
