// The host's printf dialect, in which the store writes its trace lines (lumbra/host.h lists the conversions).
#pragma once

#include <cstdarg>
#include <string>

#include "lumbra/result_code.h"

namespace lumbra::host {

// The line, in UTF-8. A conversion that the dialect does not have is copied as it stands and ends the
// conversions.
enum class TraceNames { AsTheyAre, Printable };  // texts among the arguments; printed_text.h
std::string FormatTraceLine(const char* pFormat, std::va_list Arguments, TraceNames Names = TraceNames::AsTheyAre);

// A code's name and value: "errNOT_FOUND (0x8000004C)".
std::string DescribeCode(ResultCode nCode);

}  // namespace lumbra::host
