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
// Controls, of which C1 ones are commands to terminals as well; the separators of lines and paragraphs; the directions
// of text; the marks of annotations; and what Unicode calls ignorable by default, which is shown as nothing: joiners,
// fillers, spaces of no width, selectors of variants, tags.
constexpr Range kWrittenOut[] = {
    {0, 0x1F},        {0x7F, 0x9F},       {0xAD, 0xAD},       {0x34F, 0x34F},     {0x61C, 0x61C},
    {0x115F, 0x1160}, {0x17B4, 0x17B5},   {0x180B, 0x180F},   {0x200B, 0x200F},   {0x2028, 0x202E},
    {0x2060, 0x206F}, {0x3164, 0x3164},   {0xFE00, 0xFE0F},   {0xFEFF, 0xFEFF},   {0xFFA0, 0xFFA0},
    {0xFFF0, 0xFFFB}, {0x1BCA0, 0x1BCA3}, {0x1D173, 0x1D17A}, {0xE0000, 0xE0FFF},
};

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

// A name that begins with a quote would pass for one in quotes.
bool NeedsQuotes(std::string_view Name) {
  bool bNeeds = Name.starts_with('"');
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

namespace {

// Above U+FFFF a pair of surrogates.
std::string JsonEscape(char32_t c) {
  const auto nCharacter = static_cast<std::uint32_t>(c);
  if (nCharacter < 0x10000) return Format("\\u%04x", nCharacter);
  return Format("\\u%04x", 0xD7C0 + (nCharacter >> 10)) + Format("\\u%04x", 0xDC00 + (nCharacter & 0x3FF));
}

}  // namespace

std::string PrintableJson(std::string_view Json) {
  std::string Shown;
  const auto Append = [&](char32_t c, std::string_view Bytes) {
    Shown += IsWrittenOut(c) ? JsonEscape(c) : std::string(Bytes);
  };
  ForEachCharacter(Json, Append, [&](std::uint8_t) { Shown += "\\ufffd"; });
  return Shown;
}

std::optional<std::string> ReadPrinted(std::string_view Printed) {
  const bool bQuoted = Printed.size() >= 2 && Printed.starts_with('"') && Printed.ends_with('"');
  if (!bQuoted) return Printable(Printed) == Printed ? std::optional(std::string(Printed)) : std::nullopt;
  std::string_view Text = Printed.substr(1, Printed.size() - 2);
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
  return Printable(Name) == Printed ? std::optional(Name) : std::nullopt;
}

}  // namespace lumbra::host
