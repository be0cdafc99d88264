// What the fuzz targets share: the input as a row of choices, a folder of their own, and a store to drive.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <span>
#include <string>
#include <vector>

#include "host/standalone_host.h"
#include "host/trace_format.h"

namespace lumbra::fuzz {

namespace fs = std::filesystem;
using Ops = LumbraOperations;
using Bytes = std::vector<std::uint8_t>;

// A broken promise ends the process, and the fuzzer keeps the input.
inline void Require(bool bKept, const std::string& Promise) {
  if (bKept) return;
  std::fprintf(stderr, "broken: %s\n", Promise.c_str());
  std::abort();
}
inline void RequireCode(ResultCode nExpected, ResultCode nCode, const std::string& What) {
  if (nExpected == nCode) return;
  Require(false, What + ": " + host::DescribeCode(nCode) + " instead of " + host::DescribeCode(nExpected));
}

// Takes the input apart from its front. Behind its end there are zeros.
class Input {
 public:
  Input(const std::uint8_t* pData, std::size_t nSize) : m_Rest(pData, nSize) {}

  bool IsDone() const { return m_Rest.empty(); }
  template <class Number>
  Number Take() {
    Number nTaken = 0;
    const auto From = TakeBytes(sizeof(nTaken));
    if (!From.empty()) std::memcpy(&nTaken, From.data(), From.size());
    return nTaken;
  }
  std::uint8_t Byte() { return Take<std::uint8_t>(); }
  std::span<const std::uint8_t> TakeBytes(std::size_t nCount) {
    const auto Taken = m_Rest.first(std::min(nCount, m_Rest.size()));
    m_Rest = m_Rest.subspan(Taken.size());
    return Taken;
  }
  std::span<const std::uint8_t> TakeAll() { return TakeBytes(m_Rest.size()); }

 private:
  std::span<const std::uint8_t> m_Rest;
};

// A folder of this process, deleted when it ends by itself.
inline const fs::path& Folder() {
  struct Temporary {
    const fs::path Path = fs::temp_directory_path() / ("lumbra-fuzz-" + std::to_string(getpid()));
    Temporary() { fs::create_directories(Path); }
    ~Temporary() {
      std::error_code Ignored;
      fs::remove_all(Path, Ignored);
    }
  };
  static const Temporary Made;
  return Made.Path;
}

inline void WriteFile(const fs::path& Path, const Bytes& Content) {
  std::ofstream(Path, std::ios::binary)
      .write(reinterpret_cast<const char*>(Content.data()), static_cast<std::streamsize>(Content.size()));
}

inline void EmptyFolder() {
  for (const auto& Entry : fs::directory_iterator(Folder())) fs::remove_all(Entry.path());
}

// The store in that folder. Its trace lines up to a level are formatted, and dropped. One at a time.
class FuzzStore {
 public:
  explicit FuzzStore(std::uint32_t nTraceLevel = 400) {
    m_Host.SetPlaceholder(u"%Report%", Folder().u16string());
    m_Host.SetPlaceholder(u"%host%", u"fuzz-host");
    m_Host.TraceToCallback(nTraceLevel, [](std::uint32_t, std::string_view) {});
  }

  // A new instance in place of the one that is there.
  ResultCode Open(bool bCheckMode) {
    Close();
    m_Store = m_Host.Create();
    RequireCode(errOK, m_Store.SetNumber(propCHECK_MODE, bCheckMode ? 1 : 0), "setting the mode");
    return m_Store.Init();
  }
  void Close() { m_Store = host::Store(); }
  void Flush() { RequireCode(errOK, m_Host.SendFlush(), "flushing"); }

  template <class... Parameters>
  ResultCode Call(ResultCode (*Ops::*pOperation)(HostObject*, Parameters...),
                  std::type_identity_t<Parameters>... Arguments) const {
    return m_Store.Call(pOperation, Arguments...);
  }
  // Where any answer will do.
  template <class... Parameters>
  void Try(ResultCode (*Ops::*pOperation)(HostObject*, Parameters...),
           std::type_identity_t<Parameters>... Arguments) const {
    (void)m_Store.Call(pOperation, Arguments...);
  }

 private:
  host::StandaloneHost m_Host;
  host::Store m_Store;
};

}  // namespace lumbra::fuzz
