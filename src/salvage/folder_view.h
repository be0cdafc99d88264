// A folder of a store as a look finds it: its files with sizes and times, and bytes of them. Nothing is locked or
// changed.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "lumbra/result_code.h"
#include "platform/os.h"

namespace lumbra::salvage {

// Bytes of a file from an offset on, fewer at its end. Nothing is held.
os::SystemError ReadBytes(const os::FolderHandle& pFolder, std::u16string_view Name, std::uint64_t nOffset,
                          std::uint32_t nSize, std::string* pBytes);

// The size of a file and the CRC of its bytes: what tells whether it was written since.
os::SystemError DigestOf(const os::FolderHandle& pFolder, std::u16string_view Name, std::string* pDigest);

class FolderView {
 public:
  struct File {
    std::uint64_t nSize;
    std::int64_t nWritten;  // seconds since 1970
    std::int64_t nCreated;
  };

  // Lists the plain files of a folder that is open.
  ResultCode Open(const os::FolderHandle& pFolder);

  const os::FolderHandle& Handle() const { return m_pFolder; }
  bool Has(std::u16string_view Name) const { return Find(Name) != nullptr; }
  const File* Find(std::u16string_view Name) const;
  const std::map<std::u16string, File, std::less<>>& Files() const { return m_Files; }

  // Bytes from an offset on, fewer at the file's end; none of a file that is missing. A failure of the system is kept,
  // also of the digest: the look is worth nothing then.
  std::string Read(std::u16string_view Name, std::uint64_t nOffset, std::uint32_t nSize);
  std::string Digest(std::u16string_view Name);
  ResultCode Failure() const { return m_nFailure; }
  const std::u16string& FailedFile() const { return m_FailedFile; }

 private:
  void Keep(os::SystemError nError, std::u16string_view Name);

  os::FolderHandle m_pFolder;
  std::map<std::u16string, File, std::less<>> m_Files;
  ResultCode m_nFailure = errOK;
  std::u16string m_FailedFile;
};

}  // namespace lumbra::salvage
