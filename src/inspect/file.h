// Files that somebody else may be writing to.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/os.h"

namespace lumbra::inspect {

// A file that is open to be looked at. A thread at a time.
class File {
 public:
  static os::SystemError Open(const os::FolderHandle& pFolder, std::u16string_view Name, std::unique_ptr<File>* ppFile);
  ~File() { (void)os::Close(m_Handle); }  // nothing was written
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  os::SystemError Look(os::FileLook* pLook) const { return os::LookAt(m_Handle, pLook); }

  // Fewer bytes at the file's end.
  os::SystemError Read(std::uint64_t nOffset, void* pBuffer, std::uint32_t nSize, std::uint32_t* pnRead) const {
    return os::ReadAt(m_Handle, nOffset, pBuffer, nSize, pnRead);
  }

  // Whether it has lost its name since, as far as the system tells.
  bool IsDeleted() const {
    os::FileLook Now{};
    return Look(&Now) != os::kSuccess || Now.nNames == 0;
  }

  os::FileHandle Handle() const { return m_Handle; }

  // Tells the files of a process apart, also those that have been closed.
  std::uint32_t Key() const { return m_nKey; }

 private:
  explicit File(os::FileHandle Handle);

  os::FileHandle m_Handle;
  std::uint32_t m_nKey;
};

// The first bytes of a small file, at most so many, and a look at it where that is wanted; it is closed at once.
os::SystemError ReadSmall(const os::FolderHandle& pFolder, std::u16string_view Name, std::uint32_t nMost,
                          std::string* pBytes, os::FileLook* pLook = nullptr);

// Blocks of files in memory, as many as were asked for and no more, whatever the size of the files. A thread at a time.
//
// Somebody else may write to the files. What stands in a file does not change where the format says so, and for the
// rest the caller forgets what contradicts itself and reads again. A block that was a file's last one ends where the
// file ended then: what is behind that is read anew.
class BlockCache {
 public:
  static constexpr std::uint32_t kBlockSize = 4096;

  explicit BlockCache(std::uint64_t nBytes);

  // Bytes of a file, fewer at its end; good until the next call. *pnError is kSuccess, or why the system did not read.
  std::span<const std::uint8_t> Get(const File& From, std::uint64_t nOffset, std::uint32_t nSize,
                                    os::SystemError* pnError);

  // Forgets the blocks that hold these bytes.
  void Forget(const File& Of, std::uint64_t nOffset, std::uint32_t nSize);

 private:
  struct Block {
    std::uint32_t nFile = 0;
    std::uint32_t nValid = 0;  // bytes from its start that were read
    std::uint64_t nNumber = 0;
  };

  std::size_t HomeOf(std::uint32_t nFile, std::uint64_t nNumber) const;
  const std::uint8_t* Hold(const File& From, std::uint64_t nNumber, std::uint32_t nEnd, std::uint32_t* pnValid,
                           os::SystemError* pnError);

  std::vector<Block> m_Blocks;
  std::vector<std::uint8_t> m_Bytes;
  std::vector<std::uint8_t> m_Joined;  // what stands in more than one block
};

// A contradiction is given so long to settle: a write that crosses a page can be seen half, and reading again shows the
// same half until the writer goes on.
#ifdef FUZZING_BUILD_MODE_UNSAFE_FOR_PRODUCTION
inline constexpr std::chrono::milliseconds kSettleTime{0};  // nobody writes there
#else
inline constexpr std::chrono::milliseconds kSettleTime{200};
#endif

// Waits for that, in pieces, from the first wait on.
class Patience {
 public:
  // Waits a little. False, at once, when the time is up.
  bool Wait();

 private:
  std::chrono::steady_clock::time_point m_End{};  // of the waiting, once it has begun
  std::chrono::milliseconds m_Next{1};
};

}  // namespace lumbra::inspect
