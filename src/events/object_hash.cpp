#include "events/object_hash.h"

#include <algorithm>
#include <cstring>

#include "format/md5.h"
#include "lumbra/lumbra.h"
#include "platform/storage_environment.h"

namespace lumbra {
namespace {

// Only ASCII lower case and what lies beyond ASCII can change.
bool MayHaveUpperCase(char16_t c) {
  return (c >= u'a' && c <= u'z') || c >= 0x80;
}

// Feeds the name in upper case; an odd last byte as it is.
void UpdateUpperCased(Md5* pDigest, const std::uint8_t* pName, std::uint32_t nSize) {
  char16_t Piece[64];
  while (nSize >= sizeof(char16_t)) {
    const std::uint32_t nUnits = std::min<std::uint32_t>(nSize / 2, std::size(Piece));
    std::memcpy(Piece, pName, nUnits * sizeof(char16_t));
    for (char16_t& c : Piece) {
      if (&c == Piece + nUnits) break;
      if (MayHaveUpperCase(c)) StorageEnvironment::UpperCase(&c, 1);
    }
    pDigest->Update(Piece, nUnits * sizeof(char16_t));
    pName += nUnits * sizeof(char16_t);
    nSize -= nUnits * static_cast<std::uint32_t>(sizeof(char16_t));
  }
  pDigest->Update(pName, nSize);
}

}  // namespace

std::uint64_t ObjectHash(std::uint8_t nType, const void* pName, std::uint32_t nSize, std::uint64_t nParentHash,
                         std::uint32_t nFlags) {
  if (pName == nullptr || nSize == 0) return 0;
  Md5 Digest;
  const std::uint32_t nWideType = nType;
  Digest.Update(&nWideType, sizeof(nWideType));
  if (nParentHash != 0) Digest.Update(&nParentHash, sizeof(nParentHash));
  if ((nFlags & fObjNoCase) != 0) {
    UpdateUpperCased(&Digest, static_cast<const std::uint8_t*>(pName), nSize);
  } else {
    Digest.Update(pName, nSize);
  }
  std::uint64_t Halves[2];
  const auto Bytes = Digest.Digest();
  std::memcpy(Halves, Bytes.data(), sizeof(Halves));
  return Halves[0] ^ Halves[1];
}

}  // namespace lumbra
