#include "time_text.h"

#include <date/date.h>

#include <chrono>

namespace lumbra::tool {
namespace {

constexpr std::int64_t kUnitsTo1970 = 116444736000000000;  // of 100 ns

struct Unit {
  std::int64_t nInSecond;
  std::uint32_t nDigits;  // of a fraction
};
constexpr Unit UnitOf(FieldType Type) {
  switch (Type) {
    case FieldType::FileTime:
      return {10000000, 7};
    case FieldType::UnixMs:
      return {1000, 3};
    case FieldType::UnixUs:
      return {1000000, 6};
    case FieldType::UnixNs:
      return {1000000000, 9};
    default:
      return {1, 0};
  }
}

// Since 1970. A FILETIME that has more bits than a number with a sign lies behind the year 9999 all the same.
std::int64_t SinceEpoch(FieldType Type, std::uint64_t nBytes) {
  if (Type != FieldType::FileTime) return static_cast<std::int64_t>(nBytes);
  return nBytes > static_cast<std::uint64_t>(INT64_MAX) ? INT64_MAX : static_cast<std::int64_t>(nBytes) - kUnitsTo1970;
}

void PutDigits(char* pAt, std::int64_t nNumber, int nDigits) {
  for (int i = nDigits - 1; i >= 0; --i) {
    pAt[i] = static_cast<char>('0' + nNumber % 10);
    nNumber /= 10;
  }
}

}  // namespace

bool TimeText::Add(LineBuffer* pTo, FieldType Type, std::uint64_t nBytes) {
  const Unit Of = UnitOf(Type);
  const std::int64_t nUnits = SinceEpoch(Type, nBytes);
  std::int64_t nSecond = nUnits / Of.nInSecond;
  std::int64_t nFraction = nUnits % Of.nInSecond;
  if (nFraction < 0) {
    nFraction += Of.nInSecond;
    --nSecond;
  }
  if (nSecond != m_nSecond) Remember(nSecond);
  if (!m_bHasForm) return false;
  pTo->Add(std::string_view(m_Text, 19));
  if (Of.nDigits != 0) {
    pTo->Add('.');
    pTo->AddDigits(static_cast<std::uint64_t>(nFraction), Of.nDigits);
  }
  pTo->Add(std::string_view(m_Zone, m_nZone));
  return true;
}

void TimeText::Remember(std::int64_t nSecond) {
  constexpr std::int64_t kYear0 = -62167219200;
  constexpr std::int64_t kYear10000 = 253402300800;
  constexpr std::int64_t kSlot = 15 * 60;
  m_nSecond = nSecond;
  m_bHasForm = nSecond >= kYear0 && nSecond < kYear10000;
  if (!m_bHasForm) return;
  if (m_In == Zone::Local && nSecond / kSlot != m_nSlot) {
    m_nSlot = nSecond / kSlot;
    m_nOffset = LocalOffset(nSecond);
  }
  const std::int64_t nHere = nSecond + m_nOffset;
  m_bHasForm = nHere >= kYear0 && nHere < kYear10000;
  if (!m_bHasForm) return;
  const auto Day = date::floor<date::days>(date::sys_seconds(std::chrono::seconds(nHere)));
  const date::year_month_day Date(Day);
  const std::int64_t nInDay = nHere - std::chrono::duration_cast<std::chrono::seconds>(Day.time_since_epoch()).count();
  std::memcpy(m_Text, "0000-00-00T00:00:00", 20);
  PutDigits(m_Text, static_cast<int>(Date.year()), 4);
  PutDigits(m_Text + 5, static_cast<unsigned>(Date.month()), 2);
  PutDigits(m_Text + 8, static_cast<unsigned>(Date.day()), 2);
  PutDigits(m_Text + 11, nInDay / 3600, 2);
  PutDigits(m_Text + 14, nInDay / 60 % 60, 2);
  PutDigits(m_Text + 17, nInDay % 60, 2);

  m_Zone[0] = 'Z';
  m_nZone = 1;
  if (m_nOffset == 0) return;
  const std::int64_t nMinutes = (m_nOffset < 0 ? -m_nOffset : m_nOffset) / 60;
  std::memcpy(m_Zone, m_nOffset < 0 ? "-00:00" : "+00:00", 7);
  PutDigits(m_Zone + 1, nMinutes / 60, 2);
  PutDigits(m_Zone + 4, nMinutes % 60, 2);
  m_nZone = 6;
}

void TimeText::AddNanoseconds(LineBuffer* pTo, FieldType Type, std::uint64_t nBytes) {
  const bool bFileTime = Type == FieldType::FileTime;
  const bool bBefore =
      bFileTime ? nBytes < static_cast<std::uint64_t>(kUnitsTo1970) : static_cast<std::int64_t>(nBytes) < 0;
  const std::uint64_t nSince = bFileTime ? nBytes - static_cast<std::uint64_t>(kUnitsTo1970) : nBytes;
  const std::uint64_t nDistance = bBefore ? 0 - nSince : nSince;
  if (bBefore) pTo->Add('-');
  pTo->AddNumber(nDistance);
  // In this way no time is too far away.
  if (nDistance != 0) pTo->Add(std::string_view("000000000").substr(UnitOf(Type).nDigits));
}

}  // namespace lumbra::tool
