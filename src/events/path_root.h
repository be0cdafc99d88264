// The roots that a path can start with. A root is kept as one object, and makes the whole path
// case-insensitive.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace lumbra {

struct PathRoot {
  std::uint8_t nType;   // typeDriveRoot, typeVolumeRoot, typeRegistryRoot or typeServerRoot
  std::size_t nStart;   // where the root starts: behind a long-path prefix, otherwise 0
  std::size_t nLength;  // its units; 0 when the path has no root
};

// The root of a path of an object type. Registry types (key, value) know registry roots only, all others
// volume names, servers and drives, the latter two also behind a long-path prefix. bHalfUnit: one more byte follows the
// path's units, so that it is not the name that these alone would be.
PathRoot FindPathRoot(std::uint8_t nObjectType, std::u16string_view Path, bool bHalfUnit = false);

}  // namespace lumbra
