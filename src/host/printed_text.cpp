#include "host/printed_text.h"

#include <utf8.h>

#include <cstdint>
#include <cstdio>
#include <iterator>

namespace lumbra::host {
namespace {

struct Range {
  char32_t cFirst;
  char32_t cLast;
};
// Controls, of which C1 ones are commands to terminals as well; marks, joiners and spaces of no width; the directions
// of text; the separators of lines and paragraphs; the mark of byte order.
constexpr Range kWrittenOut[] = {{0, 0x1F},        {0x7F, 0x9F},     {0x61C, 0x61C},
                                 {0x180E, 0x180E}, {0x200B, 0x200F}, {0x2028, 0x202E},
                                 {0x2060, 0x206F}, {0xFEFF, 0xFEFF}, {0xFFF9, 0xFFFB}};

bool IsWrittenOut(char32_t c) {
  for (const Range& One : kWrittenOut) {
    if (c >= One.cFirst && c <= One.cLast) return true;
  }
  return false;
}

std::string Format(const char* pFormat, std::uint32_t nValue) {
  char Text[16];
  std::snprintf(Text, sizeof(Text), pFormat, nValue);
  return Text;
}

// Calls Valid(character, its bytes) and Invalid(byte) for what a text is made of.
template <class OnCharacter, class OnByte>
void ForEachCharacter(std::string_view Text, OnCharacter Valid, OnByte Invalid) {
  const char* const pEnd = Text.data() + Text.size();
  for (const char* pAt = Text.data(); pAt != pEnd;) {
    const char* pNext = pAt;
    try {
      const auto c = static_cast<char32_t>(utf8::next(pNext, pEnd));
      Valid(c, std::string_view(pAt, static_cast<std::size_t>(pNext - pAt)));
      pAt = pNext;
    } catch (const utf8::exception&) {
      Invalid(static_cast<std::uint8_t>(*pAt++));
    }
  }
}

std::string WrittenOut(char32_t c) {
  const bool bByte = c < 0x80;
  return Format(bByte ? "\\x%02x" : "\\u{%x}", static_cast<std::uint32_t>(c));
}

bool NeedsQuotes(std::string_view Name) {
  bool bNeeds = false;
  ForEachCharacter(
      Name, [&](char32_t c, std::string_view) { bNeeds |= IsWrittenOut(c); }, [&](std::uint8_t) { bNeeds = true; });
  return bNeeds;
}

std::string Escaped(std::string_view Text, bool bQuoted) {
  std::string Shown;
  ForEachCharacter(
      Text,
      [&](char32_t c, std::string_view Bytes) {
        if (bQuoted && (c == U'\\' || c == U'"')) Shown += '\\';
        Shown += IsWrittenOut(c) ? WrittenOut(c) : std::string(Bytes);
      },
      [&](std::uint8_t nByte) { Shown += Format("\\x%02x", nByte); });
  return Shown;
}

// Takes hexadecimal digits off the front.
std::optional<std::uint32_t> TakeHex(std::string_view* pRest, std::size_t nMost) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::uint32_t nValue = 0;
  std::size_t nTaken = 0;
  for (; nTaken < nMost && nTaken < pRest->size(); ++nTaken) {
    const std::size_t nDigit = kDigits.find((*pRest)[nTaken]);
    if (nDigit == std::string_view::npos) break;
    nValue = nValue * 16 + static_cast<std::uint32_t>(nDigit);
  }
  pRest->remove_prefix(nTaken);
  return nTaken == 0 ? std::nullopt : std::optional(nValue);
}

bool Take(std::string_view* pRest, std::string_view Prefix) {
  if (!pRest->starts_with(Prefix)) return false;
  pRest->remove_prefix(Prefix.size());
  return true;
}

// Takes one escape, behind its '\', off the front.
bool TakeEscape(std::string_view* pRest, std::string* pName) {
  if (Take(pRest, "x")) {
    const std::size_t nBefore = pRest->size();
    const std::optional<std::uint32_t> Byte = TakeHex(pRest, 2);
    if (!Byte || nBefore - pRest->size() != 2) return false;
    *pName += static_cast<char>(*Byte);
    return true;
  }
  if (Take(pRest, "u{")) {
    constexpr std::size_t kMostDigits = 6;
    const std::optional<std::uint32_t> Character = TakeHex(pRest, kMostDigits);
    if (!Character || !Take(pRest, "}") || *Character > 0x10FFFF || (*Character >= 0xD800 && *Character < 0xE000))
      return false;
    utf8::append(static_cast<char32_t>(*Character), std::back_inserter(*pName));
    return true;
  }
  if (!pRest->starts_with('\\') && !pRest->starts_with('"')) return false;
  *pName += pRest->front();
  pRest->remove_prefix(1);
  return true;
}

}  // namespace

std::string Printable(std::string_view Name) {
  return NeedsQuotes(Name) ? '"' + Escaped(Name, true) + '"' : std::string(Name);
}

std::string PrintableSentence(std::string_view Text) {
  return Escaped(Text, false);
}

std::string PrintableJson(std::string_view Json) {
  std::string Shown;
  const auto Append = [&](char32_t c, std::string_view Bytes) {
    Shown += IsWrittenOut(c) ? Format("\\u%04x", static_cast<std::uint32_t>(c)) : std::string(Bytes);
  };
  ForEachCharacter(Json, Append, [&](std::uint8_t) { Shown += "\\ufffd"; });
  return Shown;
}

std::optional<std::string> ReadPrinted(std::string_view Text) {
  if (Text.size() >= 2 && Text.starts_with('"') && Text.ends_with('"')) Text = Text.substr(1, Text.size() - 2);
  std::string Name;
  while (!Text.empty()) {
    const char c = Text.front();
    Text.remove_prefix(1);
    if (c != '\\') {
      Name += c;
    } else if (!TakeEscape(&Text, &Name)) {
      return {};
    }
  }
  return Name;
}

}  // namespace lumbra::host
