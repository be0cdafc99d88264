// How the tool and the C++ face look names up, so that they come back as they went in.
#pragma once

#include <cstdint>
#include <string_view>

namespace lumbra::host {

// The flags override for an object of that type and name. A path that starts with '/' is one of a system where case
// counts; one that the store's way of splitting paths would change, with a backslash in a name or nothing but the root,
// is kept whole.
std::uint32_t FlagsFor(std::uint32_t nType, std::string_view Name);

}  // namespace lumbra::host
