#include "events/object_hash.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

#include "format/md5.h"
#include "lumbra/lumbra.h"
#include "platform/storage_environment.h"

namespace lumbra {
namespace {

constexpr std::uint32_t kUnit = sizeof(char16_t);
constexpr std::uint32_t kTypeUnits = sizeof(std::uint32_t) / kUnit;  // the type counts as a u32

// Only ASCII lower case and what lies beyond ASCII can change. Names are mostly ASCII, for which nobody is asked.
void UpperCase(char16_t* pText, std::uint32_t nUnits) {
  std::uint32_t nBits = 0;
  for (char16_t* pUnit = pText; pUnit != pText + nUnits; ++pUnit) {
    nBits |= *pUnit;
    if (*pUnit >= u'a' && *pUnit <= u'z') *pUnit = static_cast<char16_t>(*pUnit - (u'a' - u'A'));
  }
  if (nBits < 0x80) return;
  for (char16_t* pUnit = pText; pUnit != pText + nUnits; ++pUnit) {
    if (*pUnit >= 0x80) StorageEnvironment::UpperCase(pUnit, 1);
  }
}

// Feeds the name in upper case; an odd last byte as it is.
void UpdateUpperCased(Md5* pDigest, const std::uint8_t* pName, std::uint32_t nSize) {
  char16_t Piece[64];
  while (nSize >= kUnit) {
    const std::uint32_t nUnits = std::min<std::uint32_t>(nSize / kUnit, std::size(Piece));
    std::memcpy(Piece, pName, nUnits * kUnit);
    UpperCase(Piece, nUnits);
    pDigest->Update(Piece, nUnits * kUnit);
    pName += nUnits * kUnit;
    nSize -= nUnits * kUnit;
  }
  pDigest->Update(pName, nSize);
}

std::uint64_t Fold(const Md5::Bytes& Digest) {
  const auto Halves = std::bit_cast<std::array<std::uint64_t, 2>>(Digest);
  return Halves[0] ^ Halves[1];
}

}  // namespace

std::uint64_t ObjectHash(std::uint8_t nType, const void* pName, std::uint32_t nSize, std::uint64_t nParentHash,
                         std::uint32_t nFlags) {
  if (pName == nullptr || nSize == 0) return 0;
  const bool bNoCase = (nFlags & fObjNoCase) != 0;
  char16_t Message[Md5::kBlockSize / kUnit] = {nType};
  std::memcpy(Message + kTypeUnits, &nParentHash, sizeof(nParentHash));
  const std::uint32_t nBefore = kTypeUnits + (nParentHash != 0 ? sizeof(nParentHash) / kUnit : 0);

  if (nSize > Md5::kMaxShort - nBefore * kUnit) {
    Md5 Digest;
    Digest.Update(Message, nBefore * kUnit);
    if (bNoCase) {
      UpdateUpperCased(&Digest, static_cast<const std::uint8_t*>(pName), nSize);
    } else {
      Digest.Update(pName, nSize);
    }
    return Fold(Digest.Digest());
  }
  std::memcpy(Message + nBefore, pName, nSize);
  if (bNoCase) UpperCase(Message + nBefore, nSize / kUnit);
  return Fold(Md5::OfShort(std::bit_cast<Md5::Block>(Message), nBefore * kUnit + nSize));
}

}  // namespace lumbra
