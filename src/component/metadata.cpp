// The module's metadata, made when it is compiled.
//
// It stands alone in a section of its own: a host finds it there in a shared object, and the build takes it from this
// file's object to make the resource of a DLL.
#include "lumbra/metadata.h"

#include <bit>
#include <span>

#include "format/md5.h"
#include "lumbra/lumbra.h"

namespace lumbra {
namespace {

consteval tMODULE_METADATA WithDigest(tMODULE_METADATA Metadata) {
  const auto Bytes = std::bit_cast<std::array<std::uint8_t, sizeof(Metadata)>>(Metadata);
  Md5 Digest;
  Digest.Update(std::span(Bytes).first(offsetof(tMODULE_METADATA, Digest)));
  Metadata.Digest = Digest.Digest();
  return Metadata;
}

#ifdef __ELF__
[[gnu::retain]]  // also by a linker that drops what nothing refers to; PE has no mark for that
#endif
[[gnu::used, gnu::section(".lumbra.metadata")]] constinit const tMODULE_METADATA kMetadata = WithDigest({
    .Signature1 = "Zelmar",
    .Signature2 = "metadata",
    .nModuleSize = sizeof(tMODULE_RECORD),
    .Module =
        {
            .nKind = kMetadataModule,
            .nReserved = {},
            .nPluginId = kLumbraPluginId,
            .nCodePage = kCodePage8Bit,
        },
    .nInterfaceSize = sizeof(tINTERFACE_RECORD),
    .Interface =
        {
            .nKind = kMetadataInterface,
            .nPluginId = kLumbraPluginId,
            .nReserved1 = 0,
            .nHostValue1 = 1,
            .nHostValue2 = 0x4F,
            .nReserved2 = {},
            .nInterfaceId = kSharedInstance,
            .nCodePage = kCodePage8Bit,
        },
    .nConstantId = propINTERFACE_CONSTANT,
    .nConstantSize = sizeof(kInterfaceConstant),
    .nConstant = kInterfaceConstant,
    .nCommentId = propINTERFACE_COMMENT,
    .nCommentSize = sizeof(tMODULE_METADATA::Comment),
    .Comment = "\"Lumbra\"",
    .Digest = {},
});

}  // namespace
}  // namespace lumbra
