// Sizes and ages as people write them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace lumbra::tool {

// "2G": bytes, as a plain number or with K, M, G or T behind it, each 1024 times the one before; nothing for any other
// text.
std::optional<std::uint64_t> ParseSize(std::string_view Text);

// "7d": seconds, as a plain number or with s, m, h, d or w behind it; nothing for any other text.
std::optional<std::uint64_t> ParseAge(std::string_view Text);

// The age in its two largest units: "3d 4h", "12s".
std::string DescribeAge(std::uint64_t nSeconds);

}  // namespace lumbra::tool
