// A file that stays open from its check to its use: what was looked at is what is used, whatever its name leads to by
// then. On Windows nobody can write to it or rename it meanwhile. held_file_posix.cpp and held_file_win32.cpp.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

#include "lumbra/result_code.h"

namespace lumbra::host {

// Why a module is not read or not loaded: a code, and on one line the end of a sentence that its file's name starts:
// "is cut short". Converts to false where there is no problem.
struct ModuleProblem {
  ResultCode nCode = errOK;
  std::string Text;

  explicit operator bool() const { return Failed(nCode); }
};

class HeldFile {
 public:
  HeldFile() = default;
  ~HeldFile();
  HeldFile(const HeldFile&) = delete;
  HeldFile& operator=(const HeldFile&) = delete;

  // Opens a plain file for reading; waits for nobody at the other end of a pipe. Stores *ppFile on success only.
  static ModuleProblem Open(const std::filesystem::path& Path, std::shared_ptr<const HeldFile>* ppFile);

  std::uint64_t Size() const { return m_nSize; }  // bytes, when it was opened

  // False where fewer bytes are there, or they cannot be read. Any thread may call it.
  bool ReadAt(std::uint64_t nOffset, void* pBuffer, std::size_t nSize) const;

  std::intptr_t Handle() const { return m_nHandle; }  // the system's: a descriptor, or a HANDLE

 private:
  std::intptr_t m_nHandle = -1;  // which is none
  std::uint64_t m_nSize = 0;
};

}  // namespace lumbra::host
