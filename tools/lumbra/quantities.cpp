#include "quantities.h"

#include <span>

#include "ids.h"

namespace lumbra::tool {
namespace {

struct Unit {
  char cLetter;
  std::uint64_t nValue;
};
constexpr Unit kSizes[] = {{'K', std::uint64_t{1} << 10},
                           {'M', std::uint64_t{1} << 20},
                           {'G', std::uint64_t{1} << 30},
                           {'T', std::uint64_t{1} << 40}};
constexpr Unit kAges[] = {{'w', 7 * 86400}, {'d', 86400}, {'h', 3600}, {'m', 60}, {'s', 1}};

bool IsLetter(char c, char cLetter) {
  return (c | 0x20) == (cLetter | 0x20);
}

std::optional<std::uint64_t> Parse(std::string_view Text, std::span<const Unit> Units) {
  if (Text.starts_with("0x") || Text.starts_with("0X")) return ParseNumber(Text, UINT64_MAX);  // no letter is a unit
  std::uint64_t nUnit = 1;
  for (const Unit& Known : Units) {
    if (Text.empty() || !IsLetter(Text.back(), Known.cLetter)) continue;
    nUnit = Known.nValue;
    Text.remove_suffix(1);
    break;
  }
  const std::optional<std::uint64_t> Number = ParseNumber(Text, UINT64_MAX / nUnit);
  return Number ? std::optional(*Number * nUnit) : std::nullopt;
}

}  // namespace

std::optional<std::uint64_t> ParseSize(std::string_view Text) {
  return Parse(Text, kSizes);
}

std::optional<std::uint64_t> ParseAge(std::string_view Text) {
  return Parse(Text, kAges);
}

std::string DescribeAge(std::uint64_t nSeconds) {
  const Unit* pLargest = &kAges[0];
  while (pLargest->nValue > 1 && nSeconds < pLargest->nValue) ++pLargest;
  std::string Text = std::to_string(nSeconds / pLargest->nValue) + pLargest->cLetter;
  if (pLargest->nValue == 1) return Text;
  const Unit& Next = pLargest[1];
  const std::uint64_t nRest = nSeconds % pLargest->nValue / Next.nValue;
  if (nRest != 0) Text += ' ' + std::to_string(nRest) + Next.cLetter;
  return Text;
}

}  // namespace lumbra::tool
