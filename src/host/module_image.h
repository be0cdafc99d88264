// What module_file.cpp asks of the two formats: elf_image.cpp, pe_image.cpp.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "host/module_file.h"

namespace lumbra::host {

// A file whose contents nobody vouches for.
class FileBytes {
 public:
  explicit FileBytes(std::shared_ptr<const HeldFile> pFile) : m_pFile(std::move(pFile)) {}

  bool Has(std::uint64_t nOffset, std::uint64_t nSize) const {
    return nOffset <= m_pFile->Size() && nSize <= m_pFile->Size() - nOffset;
  }

  // These answer false where the file has not so many bytes.
  template <class Record>
  bool Read(std::uint64_t nOffset, Record* pRecord) {
    return ReadBytes(nOffset, pRecord, sizeof(Record));
  }
  template <class Record>
  bool ReadTable(std::uint64_t nOffset, std::size_t nCount, std::vector<Record>* pTable) {
    if (!Has(nOffset, std::uint64_t{nCount} * sizeof(Record))) return false;
    pTable->resize(nCount);
    return ReadBytes(nOffset, pTable->data(), nCount * sizeof(Record));
  }

 private:
  bool ReadBytes(std::uint64_t nOffset, void* pBuffer, std::size_t nSize) {
    return Has(nOffset, nSize) && m_pFile->ReadAt(nOffset, pBuffer, nSize);
  }

  std::shared_ptr<const HeldFile> m_pFile;
};

struct FilePlace {
  std::uint64_t nOffset = 0;
  std::uint64_t nSize = 0;
};

struct ModuleImage {
  std::uint16_t nMachine = 0;    // as the format numbers them
  std::size_t nPointerSize = 0;  // bytes
  FilePlace Metadata;            // lies in the file; what it holds is not looked at
};

// Each finds the metadata in a file that starts with the format's magic, and sees to it that the file is whole.
ModuleProblem ReadElfImage(FileBytes* pFile, ModuleImage* pImage);
ModuleProblem ReadPeImage(FileBytes* pFile, ModuleImage* pImage);

ModuleProblem NoModule(const std::string& Why);
ModuleProblem CutShort();
ModuleProblem Damaged(const std::string& What);
ModuleProblem NoMetadata();

}  // namespace lumbra::host
