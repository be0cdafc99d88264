#include "inspect/cursor.h"

#include <array>
#include <charconv>

#include "format/crc32.h"

namespace lumbra::inspect {
namespace {

constexpr std::string_view kVersion = "1";
constexpr char kBetween = '-';
constexpr std::uint32_t kSeed = 0xFFFFFFFF;  // with 0 it would not see zeros in front

std::string Hex(std::uint64_t nNumber) {
  std::array<char, 16> Digits;
  const auto [pEnd, Error] = std::to_chars(Digits.begin(), Digits.end(), nNumber, 16);
  return {Digits.begin(), pEnd};
}

// Takes a number and what stands behind it off the front.
template <class Number>
bool Take(std::string_view* pRest, Number* pnNumber) {
  const char* const pEnd = pRest->data() + pRest->size();
  const auto [pStopped, Error] = std::from_chars(pRest->data(), pEnd, *pnNumber, 16);
  if (Error != std::errc() || pStopped == pEnd || *pStopped != kBetween) return false;
  pRest->remove_prefix(static_cast<std::size_t>(pStopped - pRest->data()) + 1);
  return true;
}

}  // namespace

// "1-database-segment-next-life-birth-size-first-before-check", in hexadecimal digits.
std::string FormatCursor(const Cursor& Of) {
  std::string Text(kVersion);
  for (const std::uint64_t nNumber :
       {std::uint64_t{Of.nDatabase}, std::uint64_t{Of.nSegment}, Of.nNext, Of.nLife, Of.nBirth,
        std::uint64_t{Of.nEventSize}, std::uint64_t{Of.nFirstCrc}, std::uint64_t{Of.nBeforeCrc}})
    Text += kBetween + Hex(nNumber);
  return Text + kBetween + Hex(Crc32(kSeed, Text.data(), Text.size()));
}

// A text that is not as it would be written is none: so nothing in it goes unchecked.
std::optional<Cursor> ParseCursor(std::string_view Text) {
  std::string_view Rest = Text;
  if (!Rest.starts_with(kVersion)) return {};
  Rest.remove_prefix(kVersion.size());
  if (!Rest.starts_with(kBetween)) return {};
  Rest.remove_prefix(1);
  Cursor Read;
  const bool bAll = Take(&Rest, &Read.nDatabase) && Take(&Rest, &Read.nSegment) && Take(&Rest, &Read.nNext) &&
                    Take(&Rest, &Read.nLife) && Take(&Rest, &Read.nBirth) && Take(&Rest, &Read.nEventSize) &&
                    Take(&Rest, &Read.nFirstCrc) && Take(&Rest, &Read.nBeforeCrc);
  return bAll && FormatCursor(Read) == Text ? std::optional(Read) : std::nullopt;
}

}  // namespace lumbra::inspect
