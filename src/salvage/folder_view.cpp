#include "salvage/folder_view.h"

#include "platform/result.h"

namespace lumbra::salvage {

ResultCode FolderView::Open(const os::FolderHandle& pFolder) {
  m_pFolder = pFolder;
  m_Files.clear();
  const os::SystemError nError = os::FindFiles(pFolder, u"*", [this](const os::FoundFile& Found) {
    if (!Found.bFolder)
      m_Files.emplace(Found.Name, File{Found.nSize, Found.nWriteTimeSeconds, Found.nCreationTimeSeconds});
    return true;
  });
  return nError == os::kFileNotFound ? errOK : ResultFromSystemError(nError);  // an empty one
}

const FolderView::File* FolderView::Find(std::u16string_view Name) const {
  const auto Found = m_Files.find(Name);
  return Found == m_Files.end() ? nullptr : &Found->second;
}

os::SystemError ReadBytes(const os::FolderHandle& pFolder, std::u16string_view Name, std::uint64_t nOffset,
                          std::uint32_t nSize, std::string* pBytes) {
  constexpr std::uint32_t kHoldNothing = os::kShareRead | os::kShareWrite | os::kShareDelete;
  os::FileHandle Opened = nullptr;
  os::SystemError nError =
      os::Open(pFolder, Name, os::kGenericRead, kHoldNothing, os::Disposition::OpenExisting, 0, &Opened);
  if (nError != os::kSuccess) return nError;
  pBytes->assign(nSize, '\0');
  std::uint32_t nRead = 0;
  nError = os::ReadAt(Opened, nOffset, pBytes->data(), nSize, &nRead);
  (void)os::Close(Opened);  // nothing was written
  pBytes->resize(nRead);
  return nError;
}

std::string FolderView::Read(std::u16string_view Name, std::uint64_t nOffset, std::uint32_t nSize) {
  std::string Bytes;
  if (!Has(Name)) return Bytes;
  const os::SystemError nError = ReadBytes(m_pFolder, Name, nOffset, nSize, &Bytes);
  if (nError != os::kSuccess) {
    m_nFailure = ResultFromSystemError(nError);
    m_FailedFile = Name;
  }
  return Bytes;
}

}  // namespace lumbra::salvage
