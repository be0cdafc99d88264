#include <nettle/sha2.h>

#include "sha256.h"

namespace lumbra::tool {

struct Sha256::State {
  sha256_ctx Context;
};

Sha256::Sha256() : m_pState(new State) {
  sha256_init(&m_pState->Context);
}

Sha256::~Sha256() = default;

void Sha256::Update(const void* pData, std::size_t nSize) {
  sha256_update(&m_pState->Context, nSize, static_cast<const std::uint8_t*>(pData));
}

std::string Sha256::Digest() {
  unsigned char Bytes[kSize];
  sha256_digest(&m_pState->Context, sizeof(Bytes), Bytes);
  return HexOf(Bytes, sizeof(Bytes));
}

}  // namespace lumbra::tool
