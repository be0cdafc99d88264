// A file of fixed-size records: events are kept in one (event_file.h), id records in another (object_files.h).
//
// Record i stands at 12 + i * nRecordSize. In a checked file every record ends with the CRC of its other bytes, seed 0.
// Bytes behind the last whole record are a torn append: not counted, and overwritten by the next one.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

namespace lumbra {

static_assert(std::endian::native == std::endian::little, "the files are little-endian and are read as they stand");

inline constexpr char kRecordMagic[4] = {'P', 'L', 'D', 'B'};
inline constexpr char kCheckedRecordMagic[4] = {'P', 'L', 'D', 'P'};

// The head of the file.
struct tPLAINDB_HEADER {
  char Magic[4];              // 0: kRecordMagic, or kCheckedRecordMagic where records have CRCs
  std::uint32_t nHeaderSize;  // 4: 12
  std::uint32_t nRecordSize;  // 8: stored bytes per record: the user's, and 4 for the CRC in a checked file
};
static_assert(sizeof(tPLAINDB_HEADER) == 12);
static_assert(offsetof(tPLAINDB_HEADER, nHeaderSize) == 4 && offsetof(tPLAINDB_HEADER, nRecordSize) == 8);

// At most so many records.
inline constexpr std::uint64_t kMaxRecords = 0xFFFFFFFF;

// The whole records of a file of that size; 0 for a record size of 0.
constexpr std::uint64_t RecordCountOfSize(std::uint64_t nFileSize, std::uint32_t nStoredRecordSize) {
  constexpr std::uint64_t nHeader = sizeof(tPLAINDB_HEADER);
  if (nFileSize < nHeader || nStoredRecordSize == 0) return 0;
  return (nFileSize - nHeader) / nStoredRecordSize;
}

}  // namespace lumbra
