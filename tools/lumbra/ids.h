// Ids and types of objects and events, as the command line shows and takes them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace lumbra::tool {

// "0x0100000100000002"
std::string FormatId(std::uint64_t nId);

// Up to 16 hexadecimal digits, with or without "0x" in front; nothing for any other text.
std::optional<std::uint64_t> ParseId(std::string_view Text);

// A whole number in decimal digits, or in hexadecimal ones behind "0x"; nothing for any other text or a greater number.
std::optional<std::uint64_t> ParseNumber(std::string_view Text, std::uint64_t nMax);

// The type of objects that is called file, folder, key, value, volume or name; nothing for any other text.
std::optional<std::uint32_t> TypeOfName(std::string_view Text);

// The same the other way round; the number of a type without a name.
std::string FormatType(std::uint32_t nType);

}  // namespace lumbra::tool
