#include "format/file_names.h"

namespace lumbra {
namespace {

constexpr std::u16string_view kDigits = u"0123456789ABCDEF";

}  // namespace

std::u16string NumberedFolder(std::uint32_t nDatabase) {
  return {kDigits[(nDatabase >> 4) & 0xFu], kDigits[nDatabase & 0xFu]};
}

std::u16string SegmentPrefix(std::uint32_t nSegment) {
  std::u16string Prefix;
  for (int nShift = 28; nShift >= 0; nShift -= 4) Prefix += kDigits[(nSegment >> nShift) & 0xFu];
  return Prefix + u'_';
}

std::u16string SegmentFileName(std::uint32_t nSegment, std::u16string_view Name) {
  return SegmentPrefix(nSegment).append(Name);
}

namespace {

// What stands behind a segment's number; nothing where there is none.
std::u16string_view WithoutNumber(std::u16string_view Name) {
  constexpr std::size_t kDigitCount = kSegmentPrefixLength - 1;
  if (Name.find_first_not_of(kDigits) != kDigitCount || Name[kDigitCount] != u'_') return {};
  return Name.substr(kSegmentPrefixLength);
}

}  // namespace

std::uint32_t NumberOfSegmentFile(std::u16string_view Name) {
  if (WithoutNumber(Name).empty()) return 0;
  std::uint32_t nNumber = 0;
  for (const char16_t c : Name.substr(0, kSegmentPrefixLength - 1))
    nNumber = nNumber * 16 + static_cast<std::uint32_t>(kDigits.find(c));
  return nNumber;
}

bool IsEventsFileName(std::u16string_view Name) {
  return WithoutNumber(Name) == kEventsFile;
}

bool IsFileOfDatabase(std::u16string_view Name) {
  if (Name.ends_with(kHealingEnding)) Name.remove_suffix(kHealingEnding.size());
  if (Name == kSegmentsFile || Name == kIdentityFile) return true;
  const std::u16string_view OfSegment = WithoutNumber(Name);
  return OfSegment == kEventsFile || OfSegment == kTreeFile || OfSegment == kIdsFile || OfSegment == kDataFile;
}

}  // namespace lumbra
