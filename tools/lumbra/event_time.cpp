#include "event_time.h"

#include <date/date.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <ctime>
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

  // Whether one of these is next.
  bool Sees(std::string_view Any) const { return m_bGood && !m_Rest.empty() && Any.find(m_Rest.front()) != Any.npos; }

  bool IsDone() const { return m_bGood && m_Rest.empty(); }

 private:
  std::string_view m_Rest;
  bool m_bGood = true;
};

date::year_month_day TakeDay(Cursor* pFrom) {
  const date::year Year(pFrom->Number(4));
  pFrom->One("-");
  const date::month Month(static_cast<unsigned>(pFrom->Number(2)));
  pFrom->One("-");
  return {Year, Month, date::day(static_cast<unsigned>(pFrom->Number(2)))};
}

// Within a day; nothing where it is none. 60 is a leap second.
enum class Seconds { Needed, Optional };
std::optional<FileTimeUnits> TakeTimeOfDay(Cursor* pFrom, Seconds Rule) {
  const int nHour = pFrom->Number(2);
  pFrom->One(":");
  const int nMinute = pFrom->Number(2);
  int nSecond = 0;
  FileTimeUnits Fraction{};
  if (Rule == Seconds::Needed || pFrom->Sees(":")) {
    pFrom->One(":");
    nSecond = pFrom->Number(2);
    Fraction = FileTimeUnits(pFrom->Fraction());
  }
  if (nHour > 23 || nMinute > 59 || nSecond > 60) return {};
  return std::chrono::hours(nHour) + std::chrono::minutes(nMinute) + std::chrono::seconds(nSecond) + Fraction;
}

// "Z" or "+01:30"; nothing where it is none.
std::optional<FileTimeUnits> TakeZone(Cursor* pFrom) {
  const char cZone = pFrom->One("Zz+-");
  if (cZone != '+' && cZone != '-') return FileTimeUnits::zero();
  const int nHour = pFrom->Number(2);
  pFrom->One(":");
  const int nMinute = pFrom->Number(2);
  if (nHour > 23 || nMinute > 59) return {};
  const FileTimeUnits Ahead = std::chrono::hours(nHour) + std::chrono::minutes(nMinute);
  return cZone == '-' ? -Ahead : Ahead;
}

std::optional<std::uint64_t> FileTimeIfAny(Instant Time) {
  if (Time.time_since_epoch() + kTo1970 < FileTimeUnits::zero()) return {};  // before 1601
  return FileTimeOf(Time);
}

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
  const date::year_month_day Day = TakeDay(&From);
  From.One("Tt");
  const std::optional<FileTimeUnits> TimeOfDay = TakeTimeOfDay(&From, Seconds::Needed);
  const std::optional<FileTimeUnits> Ahead = TakeZone(&From);
  if (!From.IsDone() || !Day.ok() || !TimeOfDay || !Ahead) return {};
  return FileTimeIfAny(date::sys_days(Day) + *TimeOfDay - *Ahead);
}

// ---- Moments ----------------------------------------------------------------------------------------------

namespace {

Instant InZone(date::sys_days Day, FileTimeUnits TimeOfDay, Zone In) {
  const Instant Utc = Day + TimeOfDay;
  if (In == Zone::Utc) return Utc;
  // The zone's offset where the clock shows this, which may differ from the one at that number of seconds of UTC.
  const auto At = [](Instant Time) {
    return std::chrono::seconds(LocalOffset(date::floor<std::chrono::seconds>(Time).time_since_epoch().count()));
  };
  return Utc - At(Utc - At(Utc));
}

// The start of a day, so many days from today on.
Instant StartOfDay(int nDays, Zone In) {
  Instant Here = date::floor<FileTimeUnits>(std::chrono::system_clock::now());
  if (In == Zone::Local) {
    const auto Since1970 = date::floor<std::chrono::seconds>(Here).time_since_epoch();
    Here += std::chrono::seconds(LocalOffset(Since1970.count()));
  }
  return InZone(date::floor<date::days>(Here) + date::days(nDays), {}, In);
}

// "-1h30m", "+2d".
std::optional<Instant> ParseDistance(std::string_view Text) {
  constexpr std::string_view kUnits = "smhdw";
  constexpr std::array<std::int64_t, 5> kSeconds = {1, 60, 3600, 86400, 7 * 86400};
  constexpr std::int64_t kMost = 400LL * 366 * 86400;
  if (Text.size() < 3 || (Text[0] != '-' && Text[0] != '+')) return {};
  std::int64_t nTotal = 0;
  std::int64_t nNumber = -1;
  for (const char c : Text.substr(1)) {
    if (c >= '0' && c <= '9') {
      nNumber = std::max<std::int64_t>(nNumber, 0) * 10 + (c - '0');
    } else {
      const std::size_t nUnit = kUnits.find(c);
      if (nUnit == std::string_view::npos || nNumber < 0) return {};
      nTotal += nNumber * kSeconds[nUnit];
      nNumber = -1;
    }
    if (nNumber > kMost || nTotal > kMost) return {};
  }
  if (nNumber >= 0) return {};
  const Instant Here = date::floor<FileTimeUnits>(std::chrono::system_clock::now());
  return Here + std::chrono::seconds(Text[0] == '-' ? -nTotal : nTotal);
}

std::optional<Instant> ParseWord(const std::string& Text, Zone In) {
  if (Text == "now") return date::floor<FileTimeUnits>(std::chrono::system_clock::now());
  if (Text == "today") return StartOfDay(0, In);
  if (Text == "yesterday") return StartOfDay(-1, In);
  if (Text == "tomorrow") return StartOfDay(1, In);
  return ParseDistance(Text);
}

// A time of day alone is today's.
std::optional<Instant> ParseClock(const std::string& Text, Zone In) {
  Cursor From(Text);
  const std::optional<FileTimeUnits> TimeOfDay = TakeTimeOfDay(&From, Seconds::Optional);
  if (!From.IsDone() || !TimeOfDay) return {};
  return StartOfDay(0, In) + *TimeOfDay;
}

std::optional<Instant> ParseDay(const std::string& Text, Zone In) {
  Cursor From(Text);
  const date::year_month_day Day = TakeDay(&From);
  std::optional<FileTimeUnits> TimeOfDay = FileTimeUnits::zero();
  if (!From.IsDone()) {
    From.One(" Tt");
    TimeOfDay = TakeTimeOfDay(&From, Seconds::Optional);
  }
  if (!From.IsDone() || !Day.ok() || !TimeOfDay) return {};
  return InZone(date::sys_days(Day), *TimeOfDay, In);
}

}  // namespace

std::optional<std::uint64_t> ParseMoment(const std::string& Text, Zone In) {
  if (const std::optional<std::uint64_t> Exact = ParseTime(Text)) return Exact;
  for (const auto pParse : {&ParseWord, &ParseClock, &ParseDay}) {
    if (const std::optional<Instant> Time = pParse(Text, In)) return FileTimeIfAny(*Time);
  }
  return {};
}

std::int64_t LocalOffset(std::int64_t nSeconds) {
  const auto nTime = static_cast<std::time_t>(nSeconds);
  const std::tm* const pHere = std::localtime(&nTime);
  if (pHere == nullptr) return 0;
  const date::year_month_day Day(date::year(pHere->tm_year + 1900),
                                 date::month(static_cast<unsigned>(pHere->tm_mon) + 1),
                                 date::day(static_cast<unsigned>(pHere->tm_mday)));
  const auto Here = date::sys_days(Day) + std::chrono::hours(pHere->tm_hour) + std::chrono::minutes(pHere->tm_min) +
                    std::chrono::seconds(pHere->tm_sec);
  return Here.time_since_epoch().count() - nSeconds;
}

}  // namespace lumbra::tool
