// Hashes of names that were computed before. Most components of paths are folders, which come again and again, and the
// MD5 of each costs more than the look here.
//
// A hash is found by the whole of what it was computed from, so a name here is never taken for another one. The table
// is of 128 entries at first and at most of 8,192 (512 KiB); it starts anew with four times as many once it has taken
// in as many hashes as it has room for. Without memory for that it stays as it is.
#pragma once

#include <cstdint>
#include <memory>

namespace lumbra {

class NameHashes {
 public:
  // What a hash is computed from.
  struct Name {
    std::uint64_t nParentHash;
    std::uint8_t nType;
    bool bNoCase;
    const void* pBytes;
    std::uint32_t nSize;  // not 0
  };

  // The hash of a name, from Compute where it is not known here. Long names are always computed.
  template <class Computation>
  std::uint64_t Of(const Name& Sought, Computation Compute) {
    if (Sought.nSize > kMaxNameSize) return Compute();
    const std::uint32_t nSpread = Spread(Sought);
    if (const std::uint64_t* const pKnown = Find(Sought, nSpread)) return *pKnown;
    const std::uint64_t nHash = Compute();
    Keep(Sought, nSpread, nHash);
    return nHash;
  }

  // Forgets all and gives the memory back.
  void Clear() { *this = NameHashes(); }

 private:
  static constexpr std::uint32_t kMaxNameSize = 44;  // bytes, so that an entry has 64
  static constexpr std::uint32_t kWays = 4;
  static constexpr std::uint32_t kFirstSets = 32;
  static constexpr std::uint32_t kMaxSets = 2048;
  static constexpr std::uint32_t kGrowth = 4;

  struct Entry {
    bool Is(const Name& Sought) const;

    std::uint64_t nParentHash = 0;
    std::uint64_t nHash = 0;
    std::uint8_t nType = 0;
    bool bNoCase = false;
    std::uint16_t nSize = 0;  // 0: free
    std::uint8_t Bytes[kMaxNameSize] = {};
  };
  static_assert(sizeof(Entry) == 64);

  struct Set {
    Entry Ways[kWays];
  };

  static std::uint32_t Spread(const Name& Of);
  const std::uint64_t* Find(const Name& Sought, std::uint32_t nSpread) const;
  void Keep(const Name& New, std::uint32_t nSpread, std::uint64_t nHash);
  void Grow();

  std::unique_ptr<Set[]> m_pSets;
  std::uint32_t m_nSets = 0;  // a power of two
  std::uint32_t m_nKept = 0;  // since the table was started
};

}  // namespace lumbra
