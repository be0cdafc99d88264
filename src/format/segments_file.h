// "segments.dat": where a database's chain of segments starts.
//
// The segments that follow have the next numbers; the chain ends where an event file is missing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace lumbra {

inline constexpr char kSegmentsMagic[4] = {'S', 'D', 'B', 'H'};

// The whole content of the file.
struct tSDB_HEADER {
  char nMagic[4];               // 0: kSegmentsMagic
  std::uint32_t nFirstSegment;  // 4: number of the oldest segment; 0: none yet
  std::uint32_t nEventSize;     // 8: bytes of every event of the database
};
static_assert(sizeof(tSDB_HEADER) == 12);
static_assert(offsetof(tSDB_HEADER, nFirstSegment) == 4 && offsetof(tSDB_HEADER, nEventSize) == 8);

// Segment numbers start at 1 and stay below this.
inline constexpr std::uint32_t kSegmentNumberLimit = 0x7FFFFFF0;

// Why bytes are not such a file's, in words, and what was found instead, where that says more.
struct SegmentsFault {
  std::string What;
  std::string Found;
};

std::string EncodeSegments(std::uint32_t nFirstSegment, std::uint32_t nEventSize);

// Takes the file's first bytes, 12 of them unless it is short. *pHeader is set when nothing is wrong with them.
std::optional<SegmentsFault> DecodeSegments(std::string_view Bytes, tSDB_HEADER* pHeader);

}  // namespace lumbra
