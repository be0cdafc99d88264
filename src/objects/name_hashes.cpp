#include "objects/name_hashes.h"

#include <cstring>
#include <new>
#include <utility>

namespace lumbra {
namespace {

template <class Number>
std::uint64_t Load(const std::uint8_t* pBytes) {
  Number nValue = 0;
  std::memcpy(&nValue, pBytes, sizeof(nValue));
  return nValue;
}

std::uint64_t Mix(std::uint64_t nSum, std::uint64_t nWord) {
  constexpr std::uint64_t kOdd = 0x9E3779B97F4A7C15;  // 2^64 divided by the golden ratio
  nSum = (nSum ^ nWord) * kOdd;
  return nSum ^ (nSum >> 32);  // the product spreads a difference upwards alone
}

}  // namespace

// Where a name has its place. All that matters of it is that names spread. The last bytes are taken together with some
// that were taken before.
std::uint32_t NameHashes::Spread(const Name& Of) {
  constexpr std::uint32_t kWord = sizeof(std::uint64_t);
  const auto* const pBytes = static_cast<const std::uint8_t*>(Of.pBytes);
  std::uint64_t nSum = Mix(Of.nParentHash, Of.nSize << 9 | std::uint32_t{Of.nType} << 1 | (Of.bNoCase ? 1u : 0u));
  if (Of.nSize >= kWord) {
    for (std::uint32_t i = 0; i < Of.nSize - kWord; i += kWord) nSum = Mix(nSum, Load<std::uint64_t>(pBytes + i));
    nSum = Mix(nSum, Load<std::uint64_t>(pBytes + Of.nSize - kWord));
  } else if (Of.nSize >= kWord / 2) {
    nSum = Mix(nSum, Load<std::uint32_t>(pBytes) << 32 | Load<std::uint32_t>(pBytes + Of.nSize - kWord / 2));
  } else {
    const std::uint32_t nFirst = pBytes[0], nMiddle = pBytes[Of.nSize / 2], nLast = pBytes[Of.nSize - 1];
    nSum = Mix(nSum, nFirst | nMiddle << 8 | nLast << 16);
  }
  return static_cast<std::uint32_t>(nSum);
}

bool NameHashes::Entry::Is(const Name& Sought) const {
  return nParentHash == Sought.nParentHash && nSize == Sought.nSize && nType == Sought.nType &&
         bNoCase == Sought.bNoCase && std::memcmp(Bytes, Sought.pBytes, Sought.nSize) == 0;
}

const std::uint64_t* NameHashes::Find(const Name& Sought, std::uint32_t nSpread) const {
  if (m_nSets == 0) return nullptr;
  for (const Entry& Candidate : m_pSets[nSpread & (m_nSets - 1)].Ways) {
    if (Candidate.Is(Sought)) return &Candidate.nHash;
  }
  return nullptr;
}

// In a free place of its set, or in that of another one, each in its turn.
void NameHashes::Keep(const Name& New, std::uint32_t nSpread, std::uint64_t nHash) {
  if (m_nKept >= m_nSets * kWays) Grow();
  if (m_nSets == 0) return;
  Set& Place = m_pSets[nSpread & (m_nSets - 1)];
  Entry* pEntry = &Place.Ways[m_nKept++ % kWays];
  for (Entry& Candidate : Place.Ways) {
    if (Candidate.nSize == 0) pEntry = &Candidate;
  }
  *pEntry = {New.nParentHash, nHash, New.nType, New.bNoCase, static_cast<std::uint16_t>(New.nSize)};
  std::memcpy(pEntry->Bytes, New.pBytes, New.nSize);
}

void NameHashes::Grow() {
  if (m_nSets == kMaxSets) return;
  const std::uint32_t nSets = m_nSets == 0 ? kFirstSets : m_nSets * kGrowth;
  m_nKept = 0;
  std::unique_ptr<Set[]> pGrown(new (std::nothrow) Set[nSets]);
  if (pGrown == nullptr) return;
  m_pSets = std::move(pGrown);
  m_nSets = nSets;
}

}  // namespace lumbra
