// The version of all that this folder describes.
#pragma once

#include <cstdint>

namespace lumbra {

// What it promises: releases with the same number read and write each other's stores, the newer those of the older and
// the other way round, and from the same operations they write the same bytes, on every system. A change of any byte
// that an older release could not take gives the next number, and a release says which numbers it reads. No file holds
// it: files of another kind have another magic.
inline constexpr std::uint32_t kFormatVersion = 1;

}  // namespace lumbra
