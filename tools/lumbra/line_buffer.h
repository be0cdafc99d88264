// Text on its way to standard output, put together by hand, since there may be millions of lines of it.
#pragma once

#include <array>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <span>
#include <string_view>
#include <type_traits>
#include <vector>

namespace lumbra::tool {

class LineBuffer {
 public:
  LineBuffer() : m_Bytes(kSize) {}

  void Add(std::string_view Text) {
    std::memcpy(Room(Text.size()), Text.data(), Text.size());
    m_nUsed += Text.size();
  }
  void Add(char c) {
    *Room(1) = c;
    ++m_nUsed;
  }
  void AddBlanks(std::size_t nCount) {
    std::memset(Room(nCount), ' ', nCount);
    m_nUsed += nCount;
  }
  template <class Number>
  requires(std::is_arithmetic_v<Number> && !std::is_same_v<Number, char>) void AddNumber(Number nNumber) {
    constexpr std::size_t kLongest = 64;
    char* const pAt = Room(kLongest);
    m_nUsed += static_cast<std::size_t>(std::to_chars(pAt, pAt + kLongest, nNumber).ptr - pAt);
  }
  // "0x0100000100000002"
  void AddId(std::uint64_t nId) {
    char* pAt = Room(18);
    *pAt++ = '0';
    *pAt++ = 'x';
    for (int nShift = 56; nShift >= 0; nShift -= 8, pAt += 2)
      std::memcpy(pAt, kHexPairs.data() + 2 * (nId >> nShift & 0xFF), 2);
    m_nUsed += 18;
  }
  void AddHex(std::span<const std::uint8_t> Bytes) {
    char* pAt = Room(2 * Bytes.size());
    for (const std::uint8_t nByte : Bytes) {
      std::memcpy(pAt, kHexPairs.data() + 2 * std::size_t{nByte}, 2);
      pAt += 2;
    }
    m_nUsed += 2 * Bytes.size();
  }
  // The last digits of a number, with zeros in front; at most 19.
  void AddDigits(std::uint64_t nNumber, std::uint32_t nDigits) {
    char* const pAt = Room(nDigits);
    for (std::uint32_t i = nDigits; i > 0; --i) {
      pAt[i - 1] = static_cast<char>('0' + nNumber % 10);
      nNumber /= 10;
    }
    m_nUsed += nDigits;
  }

  void TakeBack(std::size_t nBytes) { m_nUsed -= nBytes; }

  // How much there is since the last time that it was written.
  std::size_t Size() const { return m_nUsed; }
  // Puts blanks in front of what stands there from a place on, or behind it, up to a width.
  void AlignRight(std::size_t nStart, std::size_t nWidth) {
    const std::size_t nLength = m_nUsed - nStart;
    if (nLength >= nWidth) return;
    const std::size_t nBlanks = nWidth - nLength;
    Room(nBlanks);
    std::memmove(m_Bytes.data() + nStart + nBlanks, m_Bytes.data() + nStart, nLength);
    std::memset(m_Bytes.data() + nStart, ' ', nBlanks);
    m_nUsed += nBlanks;
  }
  void AlignLeft(std::size_t nStart, std::size_t nWidth) {
    if (m_nUsed - nStart < nWidth) AddBlanks(nWidth - (m_nUsed - nStart));
  }

  // To be called between lines. False when the stream takes no more.
  bool WriteIfFull(std::FILE* pTo) { return m_nUsed < kFull || Write(pTo); }
  bool Write(std::FILE* pTo) {
    const std::size_t nWritten = std::fwrite(m_Bytes.data(), 1, m_nUsed, pTo);
    const bool bAll = nWritten == m_nUsed;
    m_nUsed = 0;
    return bAll;
  }

 private:
  static constexpr std::size_t kFull = std::size_t{256} << 10;
  static constexpr std::size_t kSize = kFull + (std::size_t{64} << 10);

  static constexpr std::array<char, 512> kHexPairs = [] {
    std::array<char, 512> Pairs{};
    for (std::size_t i = 0; i < Pairs.size(); ++i) Pairs[i] = "0123456789abcdef"[i % 2 == 0 ? i / 2 / 16 : i / 2 % 16];
    return Pairs;
  }();

  char* Room(std::size_t nBytes) {
    if (m_Bytes.size() - m_nUsed < nBytes) m_Bytes.resize((m_nUsed + nBytes) * 2);
    return m_Bytes.data() + m_nUsed;
  }

  std::vector<char> m_Bytes;
  std::size_t m_nUsed = 0;
};

}  // namespace lumbra::tool
