#include "events/md5.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace lumbra {
namespace {

constexpr std::uint32_t kSines[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391,
};
constexpr int kShifts[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

// One round of 16 steps: its mixing function, and the order in which it takes the words of the block.
template <int nRound, class Mix>
void Round(std::uint32_t (&State)[4], const std::uint32_t (&Words)[16], int nFirstWord, int nWordStep, Mix Mixed) {
  for (int i = 0; i < 16; ++i) {
    const std::uint32_t nWord = Words[(nFirstWord + i * nWordStep) % 16];
    const std::uint32_t nSum = State[0] + Mixed(State[1], State[2], State[3]) + kSines[nRound * 16 + i] + nWord;
    const std::uint32_t nTurned = State[1] + std::rotl(nSum, kShifts[nRound][i % 4]);
    State[0] = State[3];
    State[3] = State[2];
    State[2] = State[1];
    State[1] = nTurned;
  }
}

}  // namespace

void Md5::Transform(const std::uint8_t* pBlock) {
  std::uint32_t Words[16];
  std::memcpy(Words, pBlock, sizeof(Words));
  std::uint32_t State[4] = {m_State[0], m_State[1], m_State[2], m_State[3]};
  using Word = std::uint32_t;
  Round<0>(State, Words, 0, 1, [](Word b, Word c, Word d) { return d ^ (b & (c ^ d)); });
  Round<1>(State, Words, 1, 5, [](Word b, Word c, Word d) { return c ^ (d & (b ^ c)); });
  Round<2>(State, Words, 5, 3, [](Word b, Word c, Word d) { return b ^ c ^ d; });
  Round<3>(State, Words, 0, 7, [](Word b, Word c, Word d) { return c ^ (b | ~d); });
  for (int i = 0; i < 4; ++i) m_State[i] += State[i];
}

void Md5::Update(const void* pData, std::size_t nSize) {
  const auto* pByte = static_cast<const std::uint8_t*>(pData);
  while (nSize > 0) {
    const std::size_t nHeld = m_nLength % kBlockSize;
    const std::size_t nTaken = std::min(nSize, kBlockSize - nHeld);
    std::memcpy(m_Block + nHeld, pByte, nTaken);
    m_nLength += nTaken;
    pByte += nTaken;
    nSize -= nTaken;
    if (nHeld + nTaken == kBlockSize) Transform(m_Block);
  }
}

std::array<std::uint8_t, 16> Md5::Digest() {
  // A one bit, zeros up to the last 8 bytes of a block, and the length in bits.
  const std::uint64_t nBits = m_nLength * 8;
  static constexpr std::uint8_t kPadding[kBlockSize] = {0x80};
  constexpr std::size_t kBeforeLength = kBlockSize - sizeof(nBits);
  const std::size_t nHeld = m_nLength % kBlockSize;
  Update(kPadding, nHeld < kBeforeLength ? kBeforeLength - nHeld : kBlockSize + kBeforeLength - nHeld);
  Update(&nBits, sizeof(nBits));
  std::array<std::uint8_t, 16> Result;
  std::memcpy(Result.data(), m_State, sizeof(m_State));
  return Result;
}

}  // namespace lumbra
