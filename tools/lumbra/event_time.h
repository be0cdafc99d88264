// Times of events: FILETIME values (100 ns since 1601-01-01 UTC), shown and read as RFC 3339.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace lumbra::tool {

std::uint64_t Now();

// From a time since 1970; what lies before 1601 becomes 0, and what does not fit the latest time that does.
std::uint64_t FileTimeOf(std::int64_t nSeconds, std::int64_t nNanoseconds);

// "2026-11-24T13:34:00.1234567Z"; nothing for what lies behind the year 9999, which has no such form.
std::optional<std::string> FormatTime(std::uint64_t nFileTime);

// The same for people; the number of what has no such form.
std::string DescribeTime(std::uint64_t nFileTime);

// "2026-11-24T13:34:00Z", with a fraction, or with an offset; nothing for any other text.
std::optional<std::uint64_t> ParseTime(const std::string& Text);

// What people say of times, too: "2026-11-25 18:17", with or without seconds or the time of day, "18:17", "now",
// "today", "yesterday", "tomorrow", "-2h" and the like (s, m, h, d, w). What bears no zone is in the machine's.
enum class Zone { Utc, Local };
std::optional<std::uint64_t> ParseMoment(const std::string& Text, Zone In);

// Seconds by which the machine's time is ahead of UTC then, in seconds since 1970.
std::int64_t LocalOffset(std::int64_t nSeconds);

}  // namespace lumbra::tool
