#include "event_time.h"

#include <date/date.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <regex>
#include <string_view>

namespace lumbra::tool {
namespace {

using FileTimeUnits = std::chrono::duration<std::int64_t, std::ratio<1, 10000000>>;
using Instant = date::sys_time<FileTimeUnits>;
constexpr FileTimeUnits kTo1970 = std::chrono::seconds(11644473600);

std::uint64_t FileTimeOf(Instant Time) {
  const FileTimeUnits Since1601 = Time.time_since_epoch() + kTo1970;
  return static_cast<std::uint64_t>(std::max<std::int64_t>(Since1601.count(), 0));
}

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

// The next digits of a text as a number.
int TakeNumber(std::string_view* pText, std::size_t nDigits) {
  int nNumber = 0;
  std::from_chars(pText->data(), pText->data() + nDigits, nNumber);
  pText->remove_prefix(nDigits);
  return nNumber;
}

// What stands behind the point of the seconds, if there is one, as units of 100 ns; finer digits are dropped.
std::int64_t TakeFraction(std::string_view* pText) {
  if (!pText->starts_with('.')) return 0;
  pText->remove_prefix(1);
  std::int64_t nUnits = 0;
  for (std::int64_t nWorth = 1000000; !pText->empty() && IsDigit(pText->front()); nWorth /= 10) {
    nUnits += (pText->front() - '0') * nWorth;
    pText->remove_prefix(1);
  }
  return nUnits;
}

}  // namespace

std::uint64_t Now() {
  return FileTimeOf(date::floor<FileTimeUnits>(std::chrono::system_clock::now()));
}

std::uint64_t FileTimeOf(std::int64_t nSeconds, std::int64_t nNanoseconds) {
  constexpr std::int64_t kLast = 900000000000;  // some 28,000 years on: what lies behind does not fit
  const auto Fraction = date::floor<FileTimeUnits>(std::chrono::nanoseconds(nNanoseconds));
  return FileTimeOf(Instant(std::chrono::seconds(std::min(nSeconds, kLast)) + Fraction));
}

std::string FormatTime(std::uint64_t nFileTime) {
  const Instant Time(FileTimeUnits(static_cast<std::int64_t>(nFileTime)) - kTo1970);
  return date::format("%FT%TZ", Time);
}

std::optional<std::uint64_t> ParseTime(const std::string& Text) {
  static const std::regex kForm(R"(\d{4}-\d\d-\d\d[Tt]\d\d:\d\d:\d\d(\.\d+)?([Zz]|[+-]\d\d:\d\d))");
  if (!std::regex_match(Text, kForm)) return {};
  std::string_view Rest(Text);
  const auto Take = [&Rest](std::size_t nDigits) {
    const int nNumber = TakeNumber(&Rest, nDigits);
    return nNumber;
  };
  const auto SkipOne = [&Rest] {
    Rest.remove_prefix(1);
  };
  const date::year Year(Take(4));
  SkipOne();
  const date::month Month(static_cast<unsigned>(Take(2)));
  SkipOne();
  const date::year_month_day Day(Year, Month, date::day(static_cast<unsigned>(Take(2))));
  SkipOne();
  const int nHour = Take(2);
  SkipOne();
  const int nMinute = Take(2);
  SkipOne();
  const int nSecond = Take(2);  // 60 is a leap second
  const FileTimeUnits Fraction(TakeFraction(&Rest));
  const bool bEast = Rest.front() == '+';
  const bool bZone = bEast || Rest.front() == '-';
  SkipOne();
  const int nZoneHour = bZone ? Take(2) : 0;
  if (bZone) SkipOne();
  const int nZoneMinute = bZone ? Take(2) : 0;
  if (!Day.ok() || nHour > 23 || nMinute > 59 || nSecond > 60 || nZoneHour > 23 || nZoneMinute > 59) return {};

  const auto Zone = std::chrono::hours(nZoneHour) + std::chrono::minutes(nZoneMinute);
  const Instant Time = date::sys_days(Day) + std::chrono::hours(nHour) + std::chrono::minutes(nMinute) +
                       std::chrono::seconds(nSecond) + Fraction - (bEast ? Zone : -Zone);
  if (Time.time_since_epoch() + kTo1970 < FileTimeUnits::zero()) return {};  // before 1601
  return FileTimeOf(Time);
}

}  // namespace lumbra::tool
