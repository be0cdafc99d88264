#include "event_time.h"

#include <date/date.h>

#include <algorithm>
#include <chrono>
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

// Takes a text apart from its front; what does not fit makes it bad for good.
class Cursor {
 public:
  explicit Cursor(std::string_view Text) : m_Rest(Text) {}

  int Number(std::size_t nDigits) {
    int nNumber = 0;
    for (std::size_t i = 0; i < nDigits; ++i) nNumber = nNumber * 10 + (One("0123456789") - '0');
    return nNumber;
  }

  // The next character, which must be one of these.
  char One(std::string_view Allowed) {
    m_bGood = m_bGood && !m_Rest.empty() && Allowed.find(m_Rest.front()) != std::string_view::npos;
    if (!m_bGood) return Allowed.front();
    const char c = m_Rest.front();
    m_Rest.remove_prefix(1);
    return c;
  }

  // What stands behind a point, if there is one, as units of 100 ns; finer digits are dropped.
  std::int64_t Fraction() {
    if (!m_Rest.starts_with('.')) return 0;
    One(".");
    std::int64_t nUnits = 0;
    std::int64_t nWorth = 1000000;
    do {
      nUnits += Number(1) * nWorth;
      nWorth /= 10;
    } while (m_bGood && !m_Rest.empty() && m_Rest.front() >= '0' && m_Rest.front() <= '9');
    return nUnits;
  }

  bool IsDone() const { return m_bGood && m_Rest.empty(); }

 private:
  std::string_view m_Rest;
  bool m_bGood = true;
};

}  // namespace

std::uint64_t Now() {
  return FileTimeOf(date::floor<FileTimeUnits>(std::chrono::system_clock::now()));
}

std::uint64_t FileTimeOf(std::int64_t nSeconds, std::int64_t nNanoseconds) {
  constexpr std::int64_t kLast = 900000000000;  // some 28,000 years: what lies further on or back does not fit
  const auto Fraction = date::floor<FileTimeUnits>(std::chrono::nanoseconds(nNanoseconds));
  return FileTimeOf(Instant(std::chrono::seconds(std::clamp(nSeconds, -kLast, kLast)) + Fraction));
}

std::optional<std::string> FormatTime(std::uint64_t nFileTime) {
  constexpr FileTimeUnits kEnd = date::sys_days(date::year(10000) / 1 / 1).time_since_epoch() + kTo1970;
  if (nFileTime >= static_cast<std::uint64_t>(kEnd.count())) return {};
  const Instant Time(FileTimeUnits(static_cast<std::int64_t>(nFileTime)) - kTo1970);
  return date::format("%FT%TZ", Time);
}

std::string DescribeTime(std::uint64_t nFileTime) {
  return FormatTime(nFileTime).value_or(std::to_string(nFileTime));
}

std::optional<std::uint64_t> ParseTime(const std::string& Text) {
  Cursor From(Text);
  const date::year Year(From.Number(4));
  From.One("-");
  const date::month Month(static_cast<unsigned>(From.Number(2)));
  From.One("-");
  const date::year_month_day Day(Year, Month, date::day(static_cast<unsigned>(From.Number(2))));
  From.One("Tt");
  const int nHour = From.Number(2);
  From.One(":");
  const int nMinute = From.Number(2);
  From.One(":");
  const int nSecond = From.Number(2);  // 60 is a leap second
  const FileTimeUnits Fraction(From.Fraction());
  const char cZone = From.One("Zz+-");
  const bool bOffset = cZone == '+' || cZone == '-';
  const int nZoneHour = bOffset ? From.Number(2) : 0;
  if (bOffset) From.One(":");
  const int nZoneMinute = bOffset ? From.Number(2) : 0;
  const bool bInRange = nHour <= 23 && nMinute <= 59 && nSecond <= 60 && nZoneHour <= 23 && nZoneMinute <= 59;
  if (!From.IsDone() || !Day.ok() || !bInRange) return {};

  const auto Zone = std::chrono::hours(nZoneHour) + std::chrono::minutes(nZoneMinute);
  const Instant Time = date::sys_days(Day) + std::chrono::hours(nHour) + std::chrono::minutes(nMinute) +
                       std::chrono::seconds(nSecond) + Fraction - (cZone == '-' ? -Zone : Zone);
  if (Time.time_since_epoch() + kTo1970 < FileTimeUnits::zero()) return {};  // before 1601
  return FileTimeOf(Time);
}

}  // namespace lumbra::tool
