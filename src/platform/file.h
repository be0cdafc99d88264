// A thin wrapper of one file handle: open or create, sequential read and write, seek, flush, size, close.
// Used for the index and identity files; every failure arrives as a result code. It neither buffers nor
// locks.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "lumbra/result_code.h"
#include "platform/os.h"
#include "platform/result.h"

namespace lumbra {

// Open flags of File::OpenWithFlags.
enum FileFlags : std::uint32_t {
  fileRead = 0x00001,
  fileWrite = 0x00002,
  fileExecute = 0x00004,
  fileShareRead = 0x10000,
  fileShareWrite = 0x20000,
  fileShareDelete = 0x40000,
};

// Dispositions of File::OpenWithFlags; any other value is openExisting.
enum FileDisposition : std::uint32_t {
  createAlways = 1,
  createNew = 2,
  openAlways = 3,
  openExisting = 4,
  truncateExisting = 5,
};

inline bool IsTooManyOpenFiles(os::SystemError nError) {
  return nError == os::kTooManyOpenFiles;
}
inline bool IsTooManyOpenFiles(ResultCode nCode) {
  return nCode == kTooManyOpenFilesResult;
}

// What a process that has run out of descriptors can do: something that closes files which can be opened again, and
// answers whether it has; null is nothing.
void SetDescriptorRelief(bool (*pRelief)());
bool RelieveDescriptors();

// What opens something, called again once where the process had run out of descriptors and that helped.
template <class Opening>
auto Relieved(Opening Open) {
  const auto nResult = Open();
  return IsTooManyOpenFiles(nResult) && RelieveDescriptors() ? Open() : nResult;
}

// Where a file is: in a folder that is open, under a name. The path is what traces show.
struct FilePlace {
  os::FolderHandle pFolder;
  std::u16string Name;
  std::u16string Path;
};

class File {
 public:
  File() = default;
  ~File();  // closes; a failure to close is ignored
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  // Opens with Win32's access, share mode, disposition and flags. A handle that was held is closed and
  // replaced, by nothing when the open fails.
  ResultCode Create(std::u16string_view Path, std::uint32_t nAccess, std::uint32_t nShare, os::Disposition nDisposition,
                    std::uint32_t nFlags);

  // Create with FileFlags and a FileDisposition.
  ResultCode OpenWithFlags(std::u16string_view Path, std::uint32_t nFlags, std::uint32_t nDisposition);
  ResultCode OpenWithFlags(const FilePlace& Place, std::uint32_t nFlags, std::uint32_t nDisposition);

  // Reads at the current position; at the end of the file fewer bytes. *pnRead is stored on success only.
  ResultCode Read(void* pBuffer, std::uint32_t nSize, std::uint32_t* pnRead);
  ResultCode Write(const void* pData, std::uint32_t nSize, std::uint32_t* pnWritten);

  // Origin 1 is the current position, 2 the end, any other value the start. pnPosition may be null.
  ResultCode Seek(std::uint32_t nOrigin, std::int64_t nDistance, std::uint64_t* pnPosition);
  ResultCode Flush();
  ResultCode SetSize(std::uint64_t nSize);

  // errOK when nothing is open. The handle is gone also when closing it fails.
  ResultCode Close();

  // Hands the handle over to the caller; the File holds nothing afterwards.
  os::FileHandle Release();

 private:
  ResultCode Take(os::SystemError nOpened, os::FileHandle Opened);

  os::FileHandle m_Handle = nullptr;
};

}  // namespace lumbra
