// The two small files that tie the names of databases to their ids.
//
// "g_db_id.dat", in the store's folder: blocks of 64 bytes, padded with zeros. The first is a signature, in one of two
// forms; the block at 64 * (i + 1) holds the name of database 48 + i. Names are only ever appended.
//
// "g_db_id_val.log", in a named database's folder: the id that the folder was made for.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "lumbra/lumbra.h"

namespace lumbra {

inline constexpr std::uint32_t kIndexBlockSize = 64;
inline constexpr std::uint32_t kMaxIndexNames = kLastNamedDatabase - kFirstNamedDatabase + 1;
static_assert(kMaxIndexNames == 207);
inline constexpr std::uint32_t kMaxIndexNameLength = 63;

using IndexBlock = std::array<char, kIndexBlockSize>;

constexpr IndexBlock MakeIndexBlock(std::string_view Text) {
  IndexBlock Filled{};
  std::copy_n(Text.begin(), std::min<std::size_t>(Text.size(), kIndexBlockSize), Filled.begin());
  return Filled;
}

// The second says that damaged object data was met at some time.
inline constexpr IndexBlock kIndexSignature = MakeIndexBlock("The file contains indexes of named databases. Ver 1.0");
inline constexpr IndexBlock kCorruptedIndexSignature =
    MakeIndexBlock("The file contains indexes of named databases. Ver 1.0 Corrupted");

// The form in which a name stands in its block: the low 7 bits of each of its UTF-16 units, up to a zero.
inline std::string IndexKey(std::u16string_view Name) {
  std::string Key;
  for (const char16_t c : Name) {
    if ((c & 0x7F) == 0) break;
    Key += static_cast<char>(c & 0x7F);
  }
  return Key;
}

// The whole content of the other file: the id, in contrast to all other numbers big-endian.
using IdentityBytes = std::array<std::uint8_t, 4>;

constexpr IdentityBytes EncodeIdentity(std::uint32_t nId) {
  const auto Byte = [nId](int nShift) {
    return static_cast<std::uint8_t>(nId >> nShift);
  };
  return {Byte(24), Byte(16), Byte(8), Byte(0)};
}
constexpr std::uint32_t DecodeIdentity(const IdentityBytes& Bytes) {
  std::uint32_t nId = 0;
  for (const std::uint8_t nByte : Bytes) nId = (nId << 8) | nByte;
  return nId;
}

}  // namespace lumbra
