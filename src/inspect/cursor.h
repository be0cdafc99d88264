// Where a reader of events has come to, in a form that outlives it: one line of text.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace lumbra::inspect {

struct Cursor {
  std::uint32_t nDatabase = 0;  // CRC of the name of its folder
  std::uint32_t nSegment = 0;
  std::uint64_t nNext = 0;       // the next event of it to be looked at, from 0
  std::uint64_t nLife = 0;       // of the chain (horizon.h); 0: not known
  std::uint64_t nBirth = 0;      // of the segment; 0: not known
  std::uint32_t nEventSize = 0;  // bytes
  std::uint32_t nFirstCrc = 0;   // of the segment's first event, and of the last one before nNext; 0 without one
  std::uint32_t nBeforeCrc = 0;

  bool operator==(const Cursor&) const = default;
};

// The text means nothing to anybody else, and may change its form: what is not one is nothing.
std::string FormatCursor(const Cursor& Of);
std::optional<Cursor> ParseCursor(std::string_view Text);

}  // namespace lumbra::inspect
