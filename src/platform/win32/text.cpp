// Text on Windows: the system's own conversions and upper-casing.
#include <limits>

#include "platform/win32/win32.h"

namespace lumbra::os {
namespace {

// Lengths are int to the system; what is longer does not fit.
bool IsLength(std::uint32_t nLength) {
  return nLength <= static_cast<std::uint32_t>(std::numeric_limits<int>::max());
}

}  // namespace

std::uint32_t WideToUtf8(const char16_t* pText, std::uint32_t nUnits, char* pBuffer, std::uint32_t nSize) {
  if (!IsLength(nUnits) || !IsLength(nSize)) return 0;
  return static_cast<std::uint32_t>(WideCharToMultiByte(CP_UTF8, 0, reinterpret_cast<const wchar_t*>(pText),
                                                        static_cast<int>(nUnits), pBuffer, static_cast<int>(nSize),
                                                        nullptr, nullptr));
}

std::uint32_t Utf8ToWide(const char* pText, std::uint32_t nBytes, char16_t* pBuffer, std::uint32_t nUnits) {
  if (!IsLength(nBytes) || !IsLength(nUnits)) return 0;
  return static_cast<std::uint32_t>(MultiByteToWideChar(CP_UTF8, 0, pText, static_cast<int>(nBytes),
                                                        reinterpret_cast<wchar_t*>(pBuffer), static_cast<int>(nUnits)));
}

std::uint32_t UpperCase(char16_t* pText, std::uint32_t nUnits) {
  return CharUpperBuffW(reinterpret_cast<wchar_t*>(pText), nUnits);
}

}  // namespace lumbra::os
