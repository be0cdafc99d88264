// The MD5 digest (RFC 1321). Used to spread names evenly, not to keep secrets.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace lumbra {

class Md5 {
 public:
  void Update(const void* pData, std::size_t nSize);

  // The digest of all that was fed in. Ends the computation.
  std::array<std::uint8_t, 16> Digest();

 private:
  static constexpr std::size_t kBlockSize = 64;

  void Transform(const std::uint8_t* pBlock);

  std::uint32_t m_State[4] = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476};
  std::uint64_t m_nLength = 0;
  std::uint8_t m_Block[kBlockSize];  // what does not fill a block yet
};

}  // namespace lumbra
