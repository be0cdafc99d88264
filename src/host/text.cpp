#include "host/text.h"

#include <utf8.h>

#include <iterator>

namespace lumbra::host {
namespace {

bool IsHighSurrogate(char16_t c) {
  return c >= 0xD800 && c <= 0xDBFF;
}
bool IsLowSurrogate(char16_t c) {
  return c >= 0xDC00 && c <= 0xDFFF;
}

std::u16string WithoutLoneSurrogates(std::u16string_view Text) {
  std::u16string Clean(Text);
  for (std::size_t i = 0; i < Clean.size(); ++i) {
    const bool bPair = IsHighSurrogate(Clean[i]) && i + 1 < Clean.size() && IsLowSurrogate(Clean[i + 1]);
    if (bPair) {
      ++i;
    } else if (IsHighSurrogate(Clean[i]) || IsLowSurrogate(Clean[i])) {
      Clean[i] = u'\xFFFD';
    }
  }
  return Clean;
}

}  // namespace

std::string ToUtf8(std::u16string_view Text) {
  const std::u16string Clean = WithoutLoneSurrogates(Text);
  std::string Result;
  utf8::utf16to8(Clean.begin(), Clean.end(), std::back_inserter(Result));
  return Result;
}

std::u16string ToUtf16(std::string_view Text) {
  std::string Clean;
  utf8::replace_invalid(Text.begin(), Text.end(), std::back_inserter(Clean));
  std::u16string Result;
  utf8::utf8to16(Clean.begin(), Clean.end(), std::back_inserter(Result));
  return Result;
}

}  // namespace lumbra::host
