// UTF-16 and UTF-8 as code page 65001 has them, without flags: what cannot be converted becomes U+FFFD.
#include <string>
#include <type_traits>

#include "platform/posix/posix.h"
#include "platform/upper_case_table.h"

namespace lumbra::os {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

bool IsHighSurrogate(char32_t c) {
  return c >= 0xD800 && c <= 0xDBFF;
}
bool IsLowSurrogate(char32_t c) {
  return c >= 0xDC00 && c <= 0xDFFF;
}
bool IsContinuation(char c) {
  return (static_cast<unsigned char>(c) & 0xC0u) == 0x80u;
}

// Takes one code point off the text's front.
char32_t Decode(const char16_t** ppText, const char16_t* pEnd) {
  const char32_t nFirst = *(*ppText)++;
  if (IsHighSurrogate(nFirst) && *ppText != pEnd && IsLowSurrogate(**ppText)) {
    return 0x10000 + ((nFirst - 0xD800) << 10) + (*(*ppText)++ - 0xDC00u);
  }
  return IsHighSurrogate(nFirst) || IsLowSurrogate(nFirst) ? kReplacement : nFirst;
}

// The same for UTF-8. An invalid byte is taken alone; overlong forms, surrogates and values past U+10FFFF are
// invalid.
char32_t Decode(const char** ppText, const char* pEnd) {
  const auto nFirst = static_cast<unsigned char>(*(*ppText)++);
  if (nFirst < 0x80) return nFirst;
  const int nMore = nFirst >= 0xF0 ? 3 : nFirst >= 0xE0 ? 2 : 1;
  if (nFirst < 0xC2 || nFirst > 0xF4 || pEnd - *ppText < nMore) return kReplacement;
  char32_t nPoint = nFirst & (0x3Fu >> nMore);
  for (int i = 0; i < nMore; ++i) {
    if (!IsContinuation((*ppText)[i])) return kReplacement;
    nPoint = (nPoint << 6) | (static_cast<unsigned char>((*ppText)[i]) & 0x3Fu);
  }
  constexpr char32_t kSmallest[] = {0, 0x80, 0x800, 0x10000};
  const bool bSurrogate = IsHighSurrogate(nPoint) || IsLowSurrogate(nPoint);
  if (nPoint < kSmallest[nMore] || nPoint > 0x10FFFF || bSurrogate) return kReplacement;
  *ppText += nMore;
  return nPoint;
}

// The units of a code point; their number.
std::uint32_t Encode(char32_t nPoint, char* pUnits) {
  const auto Byte = [](char32_t n) {
    return static_cast<char>(static_cast<unsigned char>(n));
  };
  if (nPoint < 0x80) {
    pUnits[0] = Byte(nPoint);
    return 1;
  }
  if (nPoint < 0x800) {
    pUnits[0] = Byte(0xC0 | (nPoint >> 6));
    pUnits[1] = Byte(0x80 | (nPoint & 0x3F));
    return 2;
  }
  if (nPoint < 0x10000) {
    pUnits[0] = Byte(0xE0 | (nPoint >> 12));
    pUnits[1] = Byte(0x80 | ((nPoint >> 6) & 0x3F));
    pUnits[2] = Byte(0x80 | (nPoint & 0x3F));
    return 3;
  }
  pUnits[0] = Byte(0xF0 | (nPoint >> 18));
  pUnits[1] = Byte(0x80 | ((nPoint >> 12) & 0x3F));
  pUnits[2] = Byte(0x80 | ((nPoint >> 6) & 0x3F));
  pUnits[3] = Byte(0x80 | (nPoint & 0x3F));
  return 4;
}

std::uint32_t Encode(char32_t nPoint, char16_t* pUnits) {
  if (nPoint < 0x10000) {
    pUnits[0] = static_cast<char16_t>(nPoint);
    return 1;
  }
  pUnits[0] = static_cast<char16_t>(0xD800 + ((nPoint - 0x10000) >> 10));
  pUnits[1] = static_cast<char16_t>(0xDC00 + ((nPoint - 0x10000) & 0x3FF));
  return 2;
}

// Names are mostly ASCII, which is the same in both forms.
template <class Unit>
bool IsAscii(const Unit* pText, std::uint32_t nText) {
  std::make_unsigned_t<Unit> nBits = 0;
  for (std::uint32_t i = 0; i < nText; ++i) nBits |= static_cast<std::make_unsigned_t<Unit>>(pText[i]);
  return nBits < 0x80;
}

template <class From, class To>
std::uint32_t ConvertAscii(const From* pText, std::uint32_t nText, To* pBuffer, std::uint32_t nCapacity) {
  if (nCapacity == 0) return nText;
  if (nText > nCapacity) return 0;
  for (std::uint32_t i = 0; i < nText; ++i) pBuffer[i] = static_cast<To>(pText[i]);
  return nText;
}

template <class From, class To>
std::uint32_t Convert(const From* pText, std::uint32_t nText, To* pBuffer, std::uint32_t nCapacity) {
  if (IsAscii(pText, nText)) return ConvertAscii(pText, nText, pBuffer, nCapacity);
  const From* const pEnd = pText + nText;
  std::uint32_t nLength = 0;
  while (pText != pEnd) {
    To Units[4];
    const std::uint32_t nUnits = Encode(Decode(&pText, pEnd), Units);
    if (nCapacity != 0) {
      if (nLength + nUnits > nCapacity) return 0;
      for (std::uint32_t i = 0; i < nUnits; ++i) pBuffer[nLength + i] = Units[i];
    }
    nLength += nUnits;
  }
  return nLength;
}

}  // namespace

std::uint32_t WideToUtf8(const char16_t* pText, std::uint32_t nUnits, char* pBuffer, std::uint32_t nSize) {
  if (pBuffer == nullptr && nSize != 0) return 0;
  return Convert(pText, nUnits, pBuffer, nSize);
}

std::uint32_t Utf8ToWide(const char* pText, std::uint32_t nBytes, char16_t* pBuffer, std::uint32_t nUnits) {
  if (pBuffer == nullptr && nUnits != 0) return 0;
  return Convert(pText, nBytes, pBuffer, nUnits);
}

std::uint32_t UpperCase(char16_t* pText, std::uint32_t nUnits) {
  for (std::uint32_t i = 0; i < nUnits; ++i) pText[i] = UpperCaseByTable(pText[i]);
  return nUnits;
}

std::string NativePath(std::u16string_view Path) {
  std::string Native(Path.size() * 3, '\0');  // no unit takes more than three bytes
  Native.resize(WideToUtf8(Path.data(), static_cast<std::uint32_t>(Path.size()), Native.data(),
                           static_cast<std::uint32_t>(Native.size())));
  for (char& c : Native) {
    if (c == '\\') c = '/';
  }
  return Native;
}

std::u16string WideName(std::string_view Name) {
  std::u16string Wide(Name.size(), u'\0');  // no byte gives more than one unit
  Wide.resize(Utf8ToWide(Name.data(), static_cast<std::uint32_t>(Name.size()), Wide.data(),
                         static_cast<std::uint32_t>(Wide.size())));
  return Wide;
}

}  // namespace lumbra::os
