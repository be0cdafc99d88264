// The file in which a reader of events keeps how far it came.
#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace lumbra::tool {

class CursorFile {
 public:
  // An empty path: none is kept.
  explicit CursorFile(std::string Path) : m_Path(std::move(Path)) {}

  // The text of its cursor; nothing when there is no such file. Throws a Failure when it cannot be read.
  std::optional<std::string> Read() const;

  // Whether it is time to write it: every write goes to the disk, and is not for each event.
  bool IsDue() const { return !m_Path.empty() && Clock::now() - m_Written >= kBetween; }
  bool IsKept() const { return !m_Path.empty(); }

  // To be called when what was read has reached its reader: standard output has been flushed.
  void Write(const std::string& Cursor);

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::seconds kBetween{1};

  const std::string m_Path;
  std::string m_Last;
  Clock::time_point m_Written = Clock::now();
};

}  // namespace lumbra::tool
