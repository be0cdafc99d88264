// Times of events of any type as RFC 3339, for many that lie close together.
#pragma once

#include <cstdint>

#include "event_time.h"
#include "line_buffer.h"
#include "schema.h"

namespace lumbra::tool {

class TimeText {
 public:
  explicit TimeText(Zone In) : m_In(In) {}

  // "2026-11-24T13:34:00.1234567Z", with as many digits as the type has. False, and nothing, for what lies before the
  // year 0 or behind the year 9999, which has no such form.
  bool Add(LineBuffer* pTo, FieldType Type, std::uint64_t nBytes);

  // Nanoseconds since 1970.
  static void AddNanoseconds(LineBuffer* pTo, FieldType Type, std::uint64_t nBytes);

 private:
  void Remember(std::int64_t nSecond);

  const Zone m_In;
  std::int64_t m_nSecond = INT64_MIN;  // that is remembered
  bool m_bHasForm = false;
  char m_Text[20];  // its time without a fraction
  char m_Zone[7];
  std::size_t m_nZone = 0;
  std::int64_t m_nSlot = INT64_MIN;  // of 15 minutes, in which no zone changes
  std::int64_t m_nOffset = 0;
};

}  // namespace lumbra::tool
