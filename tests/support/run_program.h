// Other programs, run from the test program as from a shell.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace lumbra::test {

// A program that runs in a folder. Its input is the file "in" there, and what it writes goes to "out" and "err".
class Program {
 public:
  using Arguments = std::vector<std::string>;  // UTF-8; the first is the program's file
  using Environment = std::vector<std::pair<std::string, std::string>>;

  // Starts it; in its environment the names and values stand beside ours.
  Program(const std::filesystem::path& Folder, const Arguments& What, const Environment& Beside = {});
  ~Program() { Kill(); }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  // Waits until it has ended; the status that it ended with, kKilled after Kill, another where it could not be started.
  int Wait();
  void Kill();  // by force, so that nothing of it runs any more; nothing to do when it has ended

  static constexpr int kKilled = 1000;

 private:
  std::intptr_t m_nProcess;  // by the system; 0 when it has ended
  int m_nStatus = -1;
};

}  // namespace lumbra::test
