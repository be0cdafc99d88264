#include "measure.h"

#include <fcntl.h>
#include <unistd.h>

#include <ctime>
#include <fstream>
#include <thread>

namespace lumbra::peers {
namespace {

double Now(clockid_t nClock) {
  timespec Time{};
  clock_gettime(nClock, &Time);
  return static_cast<double>(Time.tv_sec) * 1e6 + static_cast<double>(Time.tv_nsec) / 1e3;
}

Path PathIn(std::uint64_t nFolder, const char* pFile, std::uint64_t nFile) {
  char Text[120];
  const int nLength = std::snprintf(Text, sizeof(Text), "C:\\top-%02u\\middle-%02u\\folder-%06u\\%s-%08u.txt",
                                    static_cast<unsigned>(nFolder % 10), static_cast<unsigned>(nFolder / 10 % 25),
                                    static_cast<unsigned>(nFolder), pFile, static_cast<unsigned>(nFile));
  return {std::string(Text, Text + nLength), std::u16string(Text, Text + nLength)};
}

constexpr std::uint64_t kFilesInFolder = 20;

}  // namespace

void Meter::Start() {
  m_nWallStart = Now(CLOCK_MONOTONIC);
  m_nCpuStart = Now(CLOCK_PROCESS_CPUTIME_ID);
}

void Meter::Stop() {
  m_nCpu += Now(CLOCK_PROCESS_CPUTIME_ID) - m_nCpuStart;
  m_nWall += Now(CLOCK_MONOTONIC) - m_nWallStart;
}

void Meter::StopWhenIdle() {
  Stop();
  for (int nIdle = 0; nIdle < 2;) {
    const double nBefore = Now(CLOCK_PROCESS_CPUTIME_ID);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    const double nSpent = Now(CLOCK_PROCESS_CPUTIME_ID) - nBefore;
    m_nCpu += nSpent;
    nIdle = nSpent < 200 ? nIdle + 1 : 0;
  }
}

Path FilePath(std::uint64_t nFile) {
  return PathIn(nFile / kFilesInFolder, "file", nFile);
}

Path NewPath(std::uint64_t nFile) {
  return PathIn(nFile / kFilesInFolder, "new", nFile);
}

void DropPages(const std::filesystem::path& Folder) {
  sync();  // only clean pages are dropped
  if (std::ofstream Switch("/proc/sys/vm/drop_caches"); Switch << 3 << std::flush) return;
  for (const auto& One : std::filesystem::recursive_directory_iterator(Folder)) {
    const int nFile = open(One.path().c_str(), O_RDONLY | O_CLOEXEC);
    if (nFile < 0) continue;
    posix_fadvise(nFile, 0, 0, POSIX_FADV_DONTNEED);
    close(nFile);
  }
}

}  // namespace lumbra::peers
