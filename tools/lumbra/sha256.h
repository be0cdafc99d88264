// SHA-256 (FIPS 180-4), by a library that is kept: one source per system.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

namespace lumbra::tool {

class Sha256 {
 public:
  Sha256();
  ~Sha256();
  Sha256(const Sha256&) = delete;
  Sha256& operator=(const Sha256&) = delete;

  void Update(const void* pData, std::size_t nSize);

  // The digest of all that was fed in, as 64 hexadecimal digits. Ends the computation.
  std::string Digest();

  static constexpr std::size_t kSize = 32;  // bytes of a digest

 private:
  struct State;

  std::unique_ptr<State> m_pState;
};

// Bytes as hexadecimal digits.
std::string HexOf(const unsigned char* pBytes, std::size_t nSize);

}  // namespace lumbra::tool
