// What lumbra info tells of a store, and the forms in which it does.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "inspect/store.h"
#include "store_files.h"

namespace lumbra::tool {

struct SegmentInfo {
  std::uint32_t nNumber;
  std::uint64_t nEvents;
  std::array<std::uint64_t, 4> Bytes;  // of the files of kSegmentFiles
  std::uint64_t nBirth;                // FILETIME, 0: not known
};

// The files of a segment as they are called here, in the order of SegmentInfo::Bytes.
inline constexpr const char* kSegmentFiles[] = {"events", "ids", "tree", "data"};

struct TimeRange {
  std::uint64_t nLowest;  // FILETIME
  std::uint64_t nHighest;
};

struct DatabaseInfo {
  std::optional<std::uint32_t> Id;  // none for a folder whose name the store does not know yet
  DatabaseName Name;
  std::uint32_t nEventSize = 0;
  std::uint64_t nRecords = 0;
  std::uint64_t nBytes = 0;
  std::size_t nSegments = 0;
  std::uint64_t nOldest = 0;          // when the oldest segment was made, a FILETIME; 0 without one
  std::vector<SegmentInfo> Segments;  // where they were asked for
  std::optional<TimeRange> Times;     // the same; none without events that have times
};

struct StoreInfo {
  std::string Folder;
  bool bCorrupted = false;
  std::uint64_t nSetAside = 0;           // bytes
  std::uint64_t nNow = 0;                // FILETIME
  std::uint64_t nFindings = 0;           // how much was found wrong with heads and numbers
  std::vector<inspect::Holder> Holders;  // who has it, as far as the system tells
  bool bLooksFromOutside = true;         // without having it itself, so that the holders are others
  std::vector<DatabaseInfo> Databases;
  bool bSegments = false;  // what was asked for
  bool bTimes = false;
};

void PrintInfoAsTable(const StoreInfo& Of);
void PrintInfoAsJson(const StoreInfo& Of);

// The text format that Prometheus reads, for files that its node_exporter collects.
void PrintInfoForPrometheus(const StoreInfo& Of);

}  // namespace lumbra::tool
