#include <windows.h>

#include <bcrypt.h>

#include "failure.h"
#include "sha256.h"

namespace lumbra::tool {

struct Sha256::State {
  BCRYPT_ALG_HANDLE Algorithm = nullptr;
  BCRYPT_HASH_HANDLE Hash = nullptr;

  ~State() {
    if (Hash != nullptr) BCryptDestroyHash(Hash);
    if (Algorithm != nullptr) BCryptCloseAlgorithmProvider(Algorithm, 0);
  }
};

namespace {

void Require(NTSTATUS nStatus) {
  if (nStatus < 0) throw Failure("compute a SHA-256 sum", errNOT_SUPPORTED);
}

}  // namespace

Sha256::Sha256() : m_pState(new State) {
  Require(BCryptOpenAlgorithmProvider(&m_pState->Algorithm, BCRYPT_SHA256_ALGORITHM, nullptr, 0));
  Require(BCryptCreateHash(m_pState->Algorithm, &m_pState->Hash, nullptr, 0, nullptr, 0, 0));
}

Sha256::~Sha256() = default;

void Sha256::Update(const void* pData, std::size_t nSize) {
  auto* const pBytes = static_cast<unsigned char*>(const_cast<void*>(pData));  // which it does not write to
  Require(BCryptHashData(m_pState->Hash, pBytes, static_cast<ULONG>(nSize), 0));
}

std::string Sha256::Digest() {
  unsigned char Bytes[kSize];
  Require(BCryptFinishHash(m_pState->Hash, Bytes, sizeof(Bytes), 0));
  return HexOf(Bytes, sizeof(Bytes));
}

}  // namespace lumbra::tool
