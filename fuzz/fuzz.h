// What the fuzz targets share: the input as a row of choices, a folder of their own, and what becomes of a finding.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <span>
#include <string>

namespace lumbra::fuzz {

// A broken promise ends the process, and the fuzzer keeps the input.
inline void Require(bool bKept, const std::string& Promise) {
  if (bKept) return;
  std::fprintf(stderr, "broken: %s\n", Promise.c_str());
  std::abort();
}

// Takes the input apart from its front. Behind its end there are zeros.
class Input {
 public:
  Input(const std::uint8_t* pData, std::size_t nSize) : m_Rest(reinterpret_cast<const char*>(pData), nSize) {}

  bool IsDone() const { return m_Rest.empty(); }
  std::string Bytes(std::size_t nCount) {
    const auto Taken = m_Rest.first(std::min(nCount, m_Rest.size()));
    m_Rest = m_Rest.subspan(Taken.size());
    return {Taken.begin(), Taken.end()};
  }
  std::string Rest() { return Bytes(m_Rest.size()); }
  std::uint64_t Number(std::size_t nBytes = 1) {
    std::uint64_t nTaken = 0;
    for (const char c : Bytes(nBytes)) nTaken = nTaken << 8 | static_cast<std::uint8_t>(c);
    return nTaken;
  }
  std::uint64_t Below(std::uint64_t nEnd) { return Number(nEnd > 256 ? 2 : 1) % nEnd; }

 private:
  std::span<const char> m_Rest;
};

// A folder of this process, deleted when it ends by itself.
inline const std::filesystem::path& Folder() {
  struct Temporary {
    const std::filesystem::path Path =
        std::filesystem::temp_directory_path() / ("lumbra-fuzz-" + std::to_string(getpid()));
    Temporary() { std::filesystem::create_directories(Path); }
    ~Temporary() {
      std::error_code Ignored;
      std::filesystem::remove_all(Path, Ignored);
    }
  };
  static const Temporary Made;
  return Made.Path;
}

}  // namespace lumbra::fuzz
