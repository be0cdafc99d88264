// The MD5 digest (RFC 1321). Used to spread names evenly and to notice damage, not to keep secrets. Constant
// expressions can use it, too.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <span>

namespace lumbra {

class Md5 {
 public:
  static constexpr std::size_t kBlockSize = 64;
  using Block = std::array<std::uint8_t, kBlockSize>;
  using Bytes = std::array<std::uint8_t, 16>;

  // So many bytes fit into one block with their padding and length.
  static constexpr std::size_t kMaxShort = kBlockSize - 1 - sizeof(std::uint64_t);

  // The digest of at most kMaxShort bytes, which stand at the front of a block of zeros. Names are mostly as short, and
  // nothing is copied for them.
  static constexpr Bytes OfShort(Block Front, std::size_t nSize);

  void Update(const void* pData, std::size_t nSize) { Update({static_cast<const std::uint8_t*>(pData), nSize}); }
  constexpr void Update(std::span<const std::uint8_t> Data);

  // The digest of all that was fed in. Ends the computation.
  constexpr Bytes Digest();

 private:
  using Words = std::array<std::uint32_t, 16>;
  using State = std::array<std::uint32_t, 4>;

  static constexpr std::uint32_t kSines[64] = {
      0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
      0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
      0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
      0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
      0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
      0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
      0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
      0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391,
  };
  static constexpr int kShifts[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

  template <int nRound, class Mix>
  static constexpr void Round(State& Now, const Words& Block, int nFirstWord, int nWordStep, Mix Mixed);
  static constexpr void Transform(State& Sum, const Block& Data);

  static constexpr State kStart = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476};

  State m_State = kStart;
  std::uint64_t m_nLength = 0;
  Block m_Block;  // what does not fill a block yet
};

// One round of 16 steps: its mixing function, and the order in which it takes the words of the block. Each step waits
// for the b of the one before it, so the shorter the way from b to the sum, the better.
template <int nRound, class Mix>
constexpr void Md5::Round(State& Now, const Words& Block, int nFirstWord, int nWordStep, Mix Mixed) {
  for (int i = 0; i < 16; ++i) {
    const std::uint32_t nWord = Block[static_cast<std::size_t>((nFirstWord + i * nWordStep) % 16)];
    const std::uint32_t nSum = Now[0] + Mixed(Now[1], Now[2], Now[3]) + kSines[nRound * 16 + i] + nWord;
    const std::uint32_t nTurned = Now[1] + std::rotl(nSum, kShifts[nRound][i % 4]);
    Now[0] = Now[3];
    Now[3] = Now[2];
    Now[2] = Now[1];
    Now[1] = nTurned;
  }
}

constexpr void Md5::Transform(State& Sum, const Block& Data) {
  using Word = std::uint32_t;
  const Words Block = std::bit_cast<Words>(Data);
  State Now = Sum;
  Round<0>(Now, Block, 0, 1, [](Word b, Word c, Word d) { return d ^ (b & (c ^ d)); });
  Round<1>(Now, Block, 1, 5, [](Word b, Word c, Word d) { return (b & d) + (c & ~d); });
  Round<2>(Now, Block, 5, 3, [](Word b, Word c, Word d) { return b ^ c ^ d; });
  Round<3>(Now, Block, 0, 7, [](Word b, Word c, Word d) { return c ^ (b | ~d); });
  for (std::size_t i = 0; i < Now.size(); ++i) Sum[i] += Now[i];
}

constexpr Md5::Bytes Md5::OfShort(Block Front, std::size_t nSize) {
  Front[nSize] = 0x80;
  const auto Bits = std::bit_cast<std::array<std::uint8_t, sizeof(std::uint64_t)>>(std::uint64_t{nSize} * 8);
  std::copy(Bits.begin(), Bits.end(), Front.end() - Bits.size());
  State Sum = kStart;
  Transform(Sum, Front);
  return std::bit_cast<Bytes>(Sum);
}

constexpr void Md5::Update(std::span<const std::uint8_t> Data) {
  while (!Data.empty()) {
    const std::size_t nHeld = m_nLength % kBlockSize;
    const std::size_t nTaken = std::min(Data.size(), kBlockSize - nHeld);
    std::copy_n(Data.begin(), nTaken, m_Block.begin() + nHeld);
    m_nLength += nTaken;
    Data = Data.subspan(nTaken);
    if (nHeld + nTaken == kBlockSize) Transform(m_State, m_Block);
  }
}

constexpr Md5::Bytes Md5::Digest() {
  // A one bit, zeros up to the last 8 bytes of a block, and the length in bits.
  constexpr std::array<std::uint8_t, kBlockSize> kPadding = {0x80};
  constexpr std::size_t kBeforeLength = kBlockSize - sizeof(m_nLength);
  const auto Bits = std::bit_cast<std::array<std::uint8_t, sizeof(m_nLength)>>(m_nLength * 8);
  const std::size_t nHeld = m_nLength % kBlockSize;
  Update(std::span(kPadding).first(nHeld < kBeforeLength ? kBeforeLength - nHeld : kBlockSize + kBeforeLength - nHeld));
  Update(Bits);
  return std::bit_cast<Bytes>(m_State);
}

}  // namespace lumbra
