#include "ids.h"

#include <charconv>
#include <cstdio>

#include "lumbra/lumbra.h"

namespace lumbra::tool {
namespace {

struct NamedType {
  std::string_view Name;
  std::uint32_t nType;
};
constexpr NamedType kNamedTypes[] = {{"file", typeFile},           {"folder", typeFolder},     {"key", typeRegistryKey},
                                     {"value", typeRegistryValue}, {"volume", typeVolumeRoot}, {"name", typeName}};

bool TakeHexPrefix(std::string_view* pText) {
  if (!pText->starts_with("0x") && !pText->starts_with("0X")) return false;
  pText->remove_prefix(2);
  return true;
}

std::optional<std::uint64_t> ParseDigits(std::string_view Digits, int nBase) {
  std::uint64_t nValue = 0;
  const char* const pEnd = Digits.data() + Digits.size();
  const auto [pStopped, Error] = std::from_chars(Digits.data(), pEnd, nValue, nBase);
  return Error == std::errc() && pStopped == pEnd ? std::optional(nValue) : std::nullopt;
}

}  // namespace

std::string FormatId(std::uint64_t nId) {
  char Text[24];
  std::snprintf(Text, sizeof(Text), "0x%016llx", static_cast<unsigned long long>(nId));
  return Text;
}

std::optional<std::uint64_t> ParseId(std::string_view Text) {
  TakeHexPrefix(&Text);
  return ParseDigits(Text, 16);
}

std::optional<std::uint64_t> ParseNumber(std::string_view Text, std::uint64_t nMax) {
  const int nBase = TakeHexPrefix(&Text) ? 16 : 10;
  const std::optional<std::uint64_t> Number = ParseDigits(Text, nBase);
  return Number && *Number <= nMax ? Number : std::nullopt;
}

std::optional<std::uint32_t> TypeOfName(std::string_view Text) {
  for (const NamedType& Known : kNamedTypes) {
    if (Known.Name == Text) return Known.nType;
  }
  return {};
}

std::string FormatType(std::uint32_t nType) {
  for (const NamedType& Known : kNamedTypes) {
    if (Known.nType == nType) return std::string(Known.Name);
  }
  return std::to_string(nType);
}

}  // namespace lumbra::tool
