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

bool IsUtf8(std::string_view Bytes) {
  return utf8::is_valid(Bytes.begin(), Bytes.end());
}

namespace {

constexpr char16_t kFirstByteUnit = 0xDC80;
constexpr char16_t kLastByteUnit = 0xDCFF;

bool IsByteUnit(char16_t c) {
  return c >= kFirstByteUnit && c <= kLastByteUnit;
}

}  // namespace

std::u16string NameToUtf16(std::string_view Bytes) {
  std::u16string Name;
  for (auto At = Bytes.begin(); At != Bytes.end();) {
    const auto Invalid = utf8::find_invalid(At, Bytes.end());
    utf8::utf8to16(At, Invalid, std::back_inserter(Name));
    At = Invalid;
    if (At != Bytes.end()) Name += static_cast<char16_t>(0xDC00 | static_cast<unsigned char>(*At++));
  }
  return Name;
}

std::string NameToBytes(std::u16string_view Name) {
  std::string Bytes;
  std::size_t nFrom = 0;
  for (std::size_t i = 0; i < Name.size(); ++i) {
    if (IsHighSurrogate(Name[i]) && i + 1 < Name.size() && IsLowSurrogate(Name[i + 1])) {
      ++i;
    } else if (IsByteUnit(Name[i])) {
      Bytes += ToUtf8(Name.substr(nFrom, i - nFrom));
      Bytes += static_cast<char>(Name[i] & 0xFF);
      nFrom = i + 1;
    }
  }
  return Bytes + ToUtf8(Name.substr(nFrom));
}

}  // namespace lumbra::host
