// What the naming layer knows of an object's type.
#pragma once

#include <cstdint>

#include "lumbra/lumbra.h"

namespace lumbra {

// The flags of an operation on a type: the type's defaults, changed by the caller's override.
constexpr std::uint32_t EffectiveFlags(std::uint8_t nType, std::uint32_t nOverride) {
  std::uint32_t nFlags = 0;
  switch (nType) {
    case typeFile:
    case typeFolder:
      nFlags = 0x1B01;
      break;
    case typeDriveRoot:
      nFlags = 0x1901;
      break;
    case typeRegistryKey:
      nFlags = 0x0301;
      break;
    case typeRegistryValue:
    case 21:
    case typeVolumeRoot:
    case typeServerRoot:
    case typeName:
      nFlags = 0x0101;
      break;
    default:
      break;
  }
  return (nFlags | (nOverride & 0xFFFFu)) & ~(nOverride >> 16);
}

// The type of the components before a path's last one.
constexpr std::uint8_t ContainerType(std::uint8_t nType) {
  switch (nType) {
    case typeFile:
      return typeFolder;
    case typeRegistryValue:
      return typeRegistryKey;
    default:
      return nType;
  }
}

// Whether the root of a path, looked up with these flags, leads on to what it links to, which has this type.
constexpr bool FollowsLinkTo(std::uint8_t nType, std::uint32_t nFlags) {
  switch (nType) {
    case typeFolder:
    case typeRegistryKey:
      return (nFlags & fObjFollowLinks) != 0;
    case typeVolumeRoot:
      return (nFlags & fObjFollowVolumeLinks) != 0;
    case typeRegistryRoot:
      return true;
    default:
      return false;
  }
}

}  // namespace lumbra
