// One line into the host's trace.
//
// The host formats the line, in a printf dialect of its own that no compiler checks ("%terr", "%I64X", "%S").
// Trace therefore takes its format as a TraceFormat, whose construction at compile time matches every
// conversion with the type of its argument; a mismatch does not compile.
#pragma once

#include <concepts>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "lumbra/result_code.h"

namespace lumbra {

struct HostObject;

// What a line reports.
enum TraceLevel : std::uint32_t {
  traceFailure = 300,  // a failed check, file operation or registration; a wrong size that is then rewritten
  traceDamage = 350,   // damage that was found and handled
  traceNotable = 400,  // a notable but expected condition
  traceRoutine = 500,  // outcomes and details of routine operations
  traceDetail = 600,   // per-call detail of the event path
};

// The object of lines that no instance writes: the host's root.
inline constexpr HostObject* kHostRoot = nullptr;

// Where lines go; null (at first) drops them. Set when a host loads the component, cleared when it unloads
// it.
using TraceSink = void (*)(HostObject* pObject, std::uint32_t nLevel, const char* pFormat, std::va_list Arguments);
void SetTraceSink(TraceSink pSink) noexcept;

// The unchecked form behind Trace.
void TraceLine(HostObject* pObject, std::uint32_t nLevel, const char* pFormat, ...) noexcept;

namespace trace_detail {

enum class Kind { Number32, Number64, Text8, Text16, Pointer };

template <class T>
constexpr Kind KindOf() {
  if constexpr (std::same_as<T, const char16_t*>) {
    return Kind::Text16;
  } else if constexpr (std::same_as<T, const char*>) {
    return Kind::Text8;
  } else if constexpr (std::is_pointer_v<T>) {
    return Kind::Pointer;
  } else {
    static_assert(std::is_integral_v<T> || std::is_enum_v<T>);
    static_assert(sizeof(T) == 4 || sizeof(T) == 8, "a shorter number would be promoted: pass a 32-bit one");
    return sizeof(T) == 4 ? Kind::Number32 : Kind::Number64;
  }
}

// Reached only while a format that does not fit its arguments is checked, and not constexpr: so it does not
// compile.
void FormatDoesNotMatchArguments();

struct Conversion {
  std::size_t nLength;
  Kind nKind;
};

constexpr bool StartsWith(const char* pText, const char* pPrefix) {
  for (; *pPrefix != 0; ++pText, ++pPrefix) {
    if (*pText != *pPrefix) return false;
  }
  return true;
}

constexpr Conversion ParseConversion(const char* pText) {
  struct Known {
    const char* pText;
    std::size_t nLength;
    Kind nKind;
  };
  constexpr Known kKnown[] = {
      {"I64X", 4, Kind::Number64}, {"I64u", 4, Kind::Number64}, {"I64d", 4, Kind::Number64},
      {"terr", 4, Kind::Number32}, {"lu", 2, Kind::Number32},   {"ws", 2, Kind::Text16},
      {"X", 1, Kind::Number32},    {"u", 1, Kind::Number32},    {"d", 1, Kind::Number32},
      {"S", 1, Kind::Text16},      {"s", 1, Kind::Text8},       {"p", 1, Kind::Pointer},
  };
  for (const Known& Candidate : kKnown) {
    if (StartsWith(pText, Candidate.pText)) return {Candidate.nLength, Candidate.nKind};
  }
  FormatDoesNotMatchArguments();
  return {};
}

template <class... Arguments>
constexpr void CheckFormat(const char* pText) {
  constexpr std::size_t kCount = sizeof...(Arguments);
  const Kind Kinds[kCount + 1] = {KindOf<Arguments>()...};
  std::size_t nNext = 0;
  const auto Take = [&](Kind nKind) {
    if (nNext == kCount || Kinds[nNext] != nKind) FormatDoesNotMatchArguments();
    ++nNext;
  };
  while (*pText != 0) {
    if (*pText++ != '%') continue;
    for (; *pText == '*' || *pText == '.' || (*pText >= '0' && *pText <= '9'); ++pText) {
      if (*pText == '*') Take(Kind::Number32);
    }
    const Conversion Found = ParseConversion(pText);
    Take(Found.nKind);
    pText += Found.nLength;
  }
  if (nNext != kCount) FormatDoesNotMatchArguments();
}

}  // namespace trace_detail

template <class... Arguments>
struct TraceFormat {
  // Implicit, so that a call of Trace takes a plain literal.
  consteval TraceFormat(const char* pFormat) : pText(pFormat) { trace_detail::CheckFormat<Arguments...>(pFormat); }
  const char* pText;
};

// Writes one line on behalf of pObject (kHostRoot, or an instance for the lines of its operations). From any
// thread, at any time; a line that cannot be written is lost, and nothing else.
template <class... Arguments>
void Trace(HostObject* pObject, TraceLevel nLevel, TraceFormat<std::type_identity_t<Arguments>...> Format,
           Arguments... Values) noexcept {
  TraceLine(pObject, nLevel, Format.pText, Values...);
}

}  // namespace lumbra
