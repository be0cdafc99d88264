// The tool's commands. Each answers the exit status, and throws a Failure when it cannot go on.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "session.h"

namespace lumbra::tool {

inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 2;
inline constexpr int kExitInterrupted = 130;

struct ScanOptions {
  DatabaseName Database;
  std::vector<std::string> Paths;
  LimitOptions Limits;
};
int Scan(const CommonOptions& Common, const ScanOptions& Options);

struct RecordOptions {
  DatabaseName Database;
  std::string File;  // empty: standard input
  LimitOptions Limits;
};
int Record(const CommonOptions& Common, const RecordOptions& Options);

struct EventsOptions {
  DatabaseName Database;
  std::optional<std::uint64_t> Last;
  std::optional<std::uint64_t> From;  // an event id
  std::optional<std::uint64_t> Count;
  bool bJson = false;
};
int Events(const CommonOptions& Common, const EventsOptions& Options);

int Info(const CommonOptions& Common, bool bJson);

}  // namespace lumbra::tool
