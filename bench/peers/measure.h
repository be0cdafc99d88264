// Clocks, the paths that are interned, and the page cache.
#pragma once

#include <chrono>
#include <vector>

#include "peer.h"

namespace lumbra::peers {

// Time between Start and Stop, all of it where that happens again: of the clock, and of the processors in all threads.
class Meter {
 public:
  Meter() { Start(); }
  void Start();
  void Stop();
  // Stop, but with the work that processors still do behind the caller's back, in threads of a store's own.
  void StopWhenIdle();
  double Cpu() const { return m_nCpu; }  // microseconds
  double Wall() const { return m_nWall; }

 private:
  double m_nCpu = 0;
  double m_nWall = 0;
  double m_nCpuStart = 0;
  double m_nWallStart = 0;
};

// A file's path: five components, 20 files a folder, ten folders at the top and 25 in each of them.
Path FilePath(std::uint64_t nFile);
// One in the same folder as FilePath(nFile), that it does not name.
Path NewPath(std::uint64_t nFile);

// Drops the pages of a folder's files: where that is allowed, and of all files then, through the system's own switch.
void DropPages(const std::filesystem::path& Folder);

}  // namespace lumbra::peers
