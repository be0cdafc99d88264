// What a mistyped word was to be.
#pragma once

#include <span>
#include <string>
#include <string_view>

namespace lumbra::tool {

// The one of some words that is nearest to a mistyped one, by letters that are missing, added, replaced or swapped with
// their neighbour; empty when none is near.
std::string Nearest(std::string_view Typed, std::span<const std::string> Words);

}  // namespace lumbra::tool
