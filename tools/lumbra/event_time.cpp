#include "event_time.h"

#include <date/date.h>

#include <algorithm>
#include <chrono>
#include <sstream>

namespace lumbra::tool {
namespace {

using FileTimeUnits = std::chrono::duration<std::int64_t, std::ratio<1, 10000000>>;
using Instant = date::sys_time<FileTimeUnits>;
constexpr FileTimeUnits kTo1970 = std::chrono::seconds(11644473600);

std::uint64_t FileTimeOf(Instant Time) {
  const FileTimeUnits Since1601 = Time.time_since_epoch() + kTo1970;
  return static_cast<std::uint64_t>(std::max<std::int64_t>(Since1601.count(), 0));
}

// Reads all of a text in one format.
std::optional<Instant> Parse(const std::string& Text, const char* pFormat) {
  std::istringstream Stream(Text);
  Instant Time;
  Stream >> date::parse(pFormat, Time);
  const bool bAll = !Stream.fail() && Stream.peek() == std::istringstream::traits_type::eof();
  return bAll ? std::optional(Time) : std::nullopt;
}

}  // namespace

std::uint64_t Now() {
  return FileTimeOf(date::floor<FileTimeUnits>(std::chrono::system_clock::now()));
}

std::uint64_t FileTimeOf(std::int64_t nSeconds, std::int64_t nNanoseconds) {
  const auto Fraction = date::floor<FileTimeUnits>(std::chrono::nanoseconds(nNanoseconds));
  return FileTimeOf(Instant(std::chrono::seconds(nSeconds) + Fraction));
}

std::string FormatTime(std::uint64_t nFileTime) {
  const Instant Time(FileTimeUnits(static_cast<std::int64_t>(nFileTime)) - kTo1970);
  return date::format("%FT%TZ", Time);
}

std::optional<std::uint64_t> ParseTime(const std::string& Text) {
  std::string Upper = Text;  // RFC 3339 lets 't' and 'z' stand for 'T' and 'Z'
  std::transform(Upper.begin(), Upper.end(), Upper.begin(),
                 [](char c) { return c == 't' || c == 'z' ? static_cast<char>(c - 32) : c; });
  const char* const pFormat = Upper.ends_with('Z') ? "%FT%TZ" : "%FT%T%Ez";
  const std::optional<Instant> Time = Parse(Upper, pFormat);
  return Time ? std::optional(FileTimeOf(*Time)) : std::nullopt;
}

}  // namespace lumbra::tool
