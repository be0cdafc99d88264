#include "host/trace_format.h"

#include <cstdint>
#include <cstdio>
#include <string_view>

#include "host/printed_text.h"
#include "host/text.h"

namespace lumbra::host {
namespace {

// va_list may be an array, which decays when it is passed on: a struct keeps it one thing.
struct ArgumentList {
  std::va_list Values;
};

// Flags, width and precision of a conversion; a negative precision is none.
struct Layout {
  bool bLeft = false;
  bool bZeros = false;
  int nWidth = 0;
  int nPrecision = -1;
  TraceNames Names = TraceNames::AsTheyAre;
};

int TakeNumber(std::string_view* pRest, ArgumentList* pArguments) {
  if (pRest->starts_with('*')) {
    pRest->remove_prefix(1);
    return va_arg(pArguments->Values, int);
  }
  int nNumber = 0;
  for (; !pRest->empty() && pRest->front() >= '0' && pRest->front() <= '9'; pRest->remove_prefix(1)) {
    nNumber = nNumber * 10 + (pRest->front() - '0');
  }
  return nNumber;
}

Layout TakeLayout(std::string_view* pRest, ArgumentList* pArguments, TraceNames Names) {
  Layout Taken;
  Taken.Names = Names;
  for (; pRest->starts_with('-') || pRest->starts_with('0'); pRest->remove_prefix(1)) {
    (pRest->front() == '-' ? Taken.bLeft : Taken.bZeros) = true;
  }
  Taken.nWidth = TakeNumber(pRest, pArguments);
  if (Taken.nWidth < 0) {  // a width that comes as an argument may ask for the left side
    Taken.bLeft = true;
    Taken.nWidth = -Taken.nWidth;
  }
  if (pRest->starts_with('.')) {
    pRest->remove_prefix(1);
    Taken.nPrecision = TakeNumber(pRest, pArguments);
  }
  return Taken;
}

void AppendPadded(std::string* pLine, std::string_view Text, std::size_t nLength, const Layout& Use) {
  const auto nWidth = static_cast<std::size_t>(Use.nWidth);
  const std::string Padding(nWidth > nLength ? nWidth - nLength : 0, Use.bZeros && !Use.bLeft ? '0' : ' ');
  if (!Use.bLeft) *pLine += Padding;
  *pLine += Text;
  if (Use.bLeft) *pLine += Padding;
}

void AppendNumber(std::string* pLine, const char* pFormat, auto nValue, const Layout& Use) {
  char Digits[32];
  const int nLength = std::snprintf(Digits, sizeof(Digits), pFormat, nValue);
  AppendPadded(pLine, Digits, static_cast<std::size_t>(nLength), Use);
}

// Counted in characters of the text, not in bytes of the line.
template <class Character>
std::basic_string_view<Character> Cut(const Character* pText, const Layout& Use) {
  if (Use.nPrecision < 0) return pText;
  std::size_t nLength = 0;
  while (nLength < static_cast<std::size_t>(Use.nPrecision) && pText[nLength] != 0) ++nLength;
  return {pText, nLength};
}

void AppendWide(std::string* pLine, const char16_t* pText, const Layout& Use) {
  if (pText == nullptr) return AppendPadded(pLine, "(null)", 6, Use);
  const std::u16string_view Text = Cut(pText, Use);
  const bool bPrintable = Use.Names == TraceNames::Printable;
  AppendPadded(pLine, bPrintable ? Printable(NameToBytes(Text)) : ToUtf8(Text), Text.size(), Use);
}

void AppendNarrow(std::string* pLine, const char* pText, const Layout& Use) {
  const std::string_view Text = pText == nullptr ? "(null)" : Cut(pText, Use);
  AppendPadded(pLine, Use.Names == TraceNames::Printable ? Printable(Text) : std::string(Text), Text.size(), Use);
}

bool TakePrefix(std::string_view* pRest, std::string_view Prefix) {
  if (!pRest->starts_with(Prefix)) return false;
  pRest->remove_prefix(Prefix.size());
  return true;
}

// Appends the conversion that the rest starts with; false for one that the dialect does not have.
bool AppendConversion(std::string* pLine, std::string_view* pRest, ArgumentList* pArguments, TraceNames Names) {
  const Layout Use = TakeLayout(pRest, pArguments, Names);
  std::va_list& Values = pArguments->Values;
  if (TakePrefix(pRest, "I64X")) {
    AppendNumber(pLine, "%llX", static_cast<unsigned long long>(va_arg(Values, std::uint64_t)), Use);
  } else if (TakePrefix(pRest, "I64u")) {
    AppendNumber(pLine, "%llu", static_cast<unsigned long long>(va_arg(Values, std::uint64_t)), Use);
  } else if (TakePrefix(pRest, "I64d")) {
    AppendNumber(pLine, "%lld", static_cast<long long>(va_arg(Values, std::int64_t)), Use);
  } else if (TakePrefix(pRest, "terr")) {
    const std::string Text = DescribeCode(va_arg(Values, ResultCode));
    AppendPadded(pLine, Text, Text.size(), Use);
  } else if (TakePrefix(pRest, "ws") || TakePrefix(pRest, "S")) {
    AppendWide(pLine, va_arg(Values, const char16_t*), Use);
  } else if (TakePrefix(pRest, "s")) {
    AppendNarrow(pLine, va_arg(Values, const char*), Use);
  } else if (TakePrefix(pRest, "lu") || TakePrefix(pRest, "u")) {
    AppendNumber(pLine, "%u", va_arg(Values, unsigned), Use);
  } else if (TakePrefix(pRest, "X")) {
    AppendNumber(pLine, "%X", va_arg(Values, unsigned), Use);
  } else if (TakePrefix(pRest, "d")) {
    AppendNumber(pLine, "%d", va_arg(Values, int), Use);
  } else if (TakePrefix(pRest, "p")) {
    AppendNumber(pLine, "%p", va_arg(Values, void*), Use);
  } else if (TakePrefix(pRest, "%")) {
    *pLine += '%';
  } else {
    return false;
  }
  return true;
}

}  // namespace

std::string FormatTraceLine(const char* pFormat, std::va_list Arguments, TraceNames Names) {
  ArgumentList Copy;
  va_copy(Copy.Values, Arguments);
  std::string Line;
  std::string_view Rest(pFormat);
  for (std::size_t nPercent = 0; (nPercent = Rest.find('%')) != std::string_view::npos;) {
    Line += Rest.substr(0, nPercent);
    Rest.remove_prefix(nPercent + 1);
    if (!AppendConversion(&Line, &Rest, &Copy, Names)) {
      Line += '%';
      break;
    }
  }
  Line += Rest;
  va_end(Copy.Values);
  return Line;
}

std::string DescribeCode(ResultCode nCode) {
  char Value[16];
  std::snprintf(Value, sizeof(Value), "(0x%08X)", static_cast<unsigned>(nCode));
  const char* const pName = ResultCodeName(nCode);
  return pName == nullptr ? Value : std::string(pName) + ' ' + Value;
}

}  // namespace lumbra::host
