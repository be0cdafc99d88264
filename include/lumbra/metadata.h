// The metadata of a module: what its file says of it, for a host to read without running any of its code.
//
// In an ELF file the section ".lumbra.metadata", in a PE file the resource RCDATA (10) with the id 1 in any language.
// Numbers are little-endian.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace lumbra {

inline constexpr char kMetadataSection[] = ".lumbra.metadata";
inline constexpr std::uint32_t kMetadataResourceType = 10;  // RCDATA
inline constexpr std::uint32_t kMetadataResourceId = 1;

inline constexpr char kMetadataSignature1[] = "Zelmar";
inline constexpr char kMetadataSignature2[] = "metadata";

// Kinds of records.
inline constexpr std::uint32_t kMetadataModule = 1;
inline constexpr std::uint32_t kMetadataInterface = 2;

#pragma pack(push, 1)

struct tMODULE_RECORD {
  std::uint32_t nKind;         //  0: kMetadataModule
  std::uint32_t nReserved[2];  //  4: 0
  std::uint32_t nPluginId;     // 12
  std::uint32_t nCodePage;     // 16: of the record's 8-bit texts
};
static_assert(sizeof(tMODULE_RECORD) == 20);

struct tINTERFACE_RECORD {
  std::uint32_t nKind;          //  0: kMetadataInterface
  std::uint32_t nPluginId;      //  4
  std::uint32_t nReserved1;     //  8: 0
  std::uint32_t nHostValue1;    // 12: 1    these two mean something to hosts alone;
  std::uint32_t nHostValue2;    // 16: 0x4F   nothing in the module reads them
  std::uint32_t nReserved2[2];  // 20: 0
  std::uint32_t nInterfaceId;   // 28: the shared instance
  std::uint32_t nCodePage;      // 32: of the record's 8-bit texts
};
static_assert(sizeof(tINTERFACE_RECORD) == 36);

struct tMODULE_METADATA {
  char Signature1[sizeof(kMetadataSignature1)];  //   0: with the zero at its end
  char Signature2[sizeof(kMetadataSignature2)];  //   7: the same

  std::uint32_t nModuleSize;  //  16: bytes of the record that follows
  tMODULE_RECORD Module;      //  20

  std::uint32_t nInterfaceSize;  //  40: bytes of the record that follows
  tINTERFACE_RECORD Interface;   //  44

  std::uint32_t nConstantId;    //  80: propINTERFACE_CONSTANT
  std::uint32_t nConstantSize;  //  84: bytes of the value
  std::uint32_t nConstant;      //  88: kInterfaceConstant

  std::uint32_t nCommentId;    //  92: propINTERFACE_COMMENT
  std::uint32_t nCommentSize;  //  96: bytes of the value
  char Comment[9];             // 100: the name of the interface in quotes, with a zero at its end

  std::array<std::uint8_t, 16> Digest;  // 109: MD5 of all that stands before it
};
static_assert(sizeof(tMODULE_METADATA) == 125);
static_assert(offsetof(tMODULE_METADATA, Module) == 20 && offsetof(tMODULE_METADATA, Interface) == 44);
static_assert(offsetof(tMODULE_METADATA, nConstantId) == 80 && offsetof(tMODULE_METADATA, Comment) == 100);
static_assert(offsetof(tMODULE_METADATA, Digest) == 109);

#pragma pack(pop)

}  // namespace lumbra
