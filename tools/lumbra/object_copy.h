// Writes the objects of a store that somebody else may be writing to into new files, each as it is at a moment.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "inspect/file.h"
#include "inspect/objects.h"
#include "platform/os.h"

namespace lumbra::tool {

// A file that is written from its start to its end, and brought to the disk. Throws a Failure that says what was done.
class NewFile {
 public:
  NewFile(const os::FolderHandle& pFolder, const std::u16string& Name, std::string What);
  ~NewFile();
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;

  void Append(const void* pBytes, std::size_t nSize);

  // The first bytes of another file, which has them; as the first thing that is written.
  void TakeFrom(const inspect::File& Other, std::uint64_t nSize);

  std::uint64_t Size() const { return m_nWritten + m_Waiting.size(); }
  void Close();

 private:
  void Write();

  const std::string m_What;
  os::FileHandle m_Handle = nullptr;
  std::uint64_t m_nWritten = 0;
  std::vector<char> m_Waiting;  // is written in larger pieces
};

struct ObjectCopy {
  std::uint64_t nCopied = 0;
  std::uint64_t nLeftOut = 0;  // objects of which something could not be read, which have it no more
};

// Writes id records, names and data in the format of the store; the ids stay what they are. There is no tree then.
ObjectCopy CopyObjectsOneByOne(inspect::Objects* pFrom, const os::FolderHandle& pTo,
                               const inspect::ObjectFileNames& Names);

}  // namespace lumbra::tool
