#include "format/crc32.h"

#include <array>

namespace lumbra {
namespace {

constexpr std::array<std::uint32_t, 256> MakeTable() {
  std::array<std::uint32_t, 256> Table{};
  for (std::uint32_t nByte = 0; nByte < 256; ++nByte) {
    std::uint32_t nValue = nByte;
    for (int nBit = 0; nBit < 8; ++nBit) nValue = (nValue >> 1) ^ ((nValue & 1) != 0 ? 0xEDB88320u : 0u);
    Table[nByte] = nValue;
  }
  return Table;
}

constexpr std::array<std::uint32_t, 256> kTable = MakeTable();
static_assert(kTable[1] == 0x77073096u && kTable[255] == 0x2D02EF8Du);

}  // namespace

std::uint32_t Crc32(std::uint32_t nSeed, const void* pData, std::size_t nSize) {
  const auto* pByte = static_cast<const std::uint8_t*>(pData);
  std::uint32_t nValue = nSeed;
  for (const std::uint8_t* const pEnd = pByte + nSize; pByte != pEnd; ++pByte) {
    nValue = (nValue >> 8) ^ kTable[(nValue ^ *pByte) & 0xFFu];
  }
  return nValue;
}

}  // namespace lumbra
