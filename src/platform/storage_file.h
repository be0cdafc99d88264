// The file object of every database file: reads and writes at absolute offsets, answers true or false, and
// keeps the reason of its last failure, so that its owner can trace a failed check with a code of its own. It
// neither buffers nor locks; one thread uses it at a time.
#pragma once

#include <cstdint>
#include <string>

#include "lumbra/result_code.h"
#include "platform/os.h"

namespace lumbra {

class StorageFile {
 public:
  // Takes over the handle. Made by StorageEnvironment::OpenFile.
  StorageFile(os::FileHandle Handle, std::u16string Path);
  ~StorageFile();  // closes without flushing; a failure to close is ignored
  StorageFile(const StorageFile&) = delete;
  StorageFile& operator=(const StorageFile&) = delete;

  // A read that reaches the end of the file succeeds with fewer bytes. pnRead may be null.
  [[nodiscard]] bool SeekRead(std::uint64_t nOffset, void* pBuffer, std::uint32_t nSize, std::uint32_t* pnRead);

  // A write past the end extends the file. pnWritten may be null.
  [[nodiscard]] bool SeekWrite(std::uint64_t nOffset, const void* pData, std::uint32_t nSize, std::uint32_t* pnWritten);
  [[nodiscard]] bool GetSize(std::uint64_t* pnSize);
  [[nodiscard]] bool SetSize(std::uint64_t nSize);

  // Brings writes to the disk; free of charge when nothing was written since the last successful flush.
  [[nodiscard]] bool Flush();

  // When the file was created, as a FILETIME.
  [[nodiscard]] bool GetCreationTime(std::uint64_t* pnTime);

  bool Modified() const { return m_bModified; }
  const std::u16string& Path() const { return m_Path; }

  // The code and system error of the last failure; GetSize, SetSize and Flush also store their success.
  ResultCode LastResult() const { return m_nLastResult; }
  os::SystemError LastSystemError() const { return m_nLastSystemError; }

 private:
  bool Fail(os::SystemError nError);  // keeps the reason; always false

  os::FileHandle m_Handle;
  bool m_bModified = false;  // set by every write and size change, also a failed one
  std::u16string m_Path;
  ResultCode m_nLastResult = errOK;
  os::SystemError m_nLastSystemError = os::kSuccess;
};

}  // namespace lumbra
