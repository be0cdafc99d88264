#include "salvage/folder_view.h"

#include "platform/result.h"

namespace lumbra::salvage {

ResultCode FolderView::Open(const os::FolderHandle& pFolder) {
  m_pFolder = pFolder;
  m_Files.clear();
  const os::SystemError nError = os::FindFiles(pFolder, u"*", [this](const os::FoundFile& Found) {
    if (!Found.bFolder) m_Files.emplace(Found.Name, File{Found.nSize, Found.nWriteTimeSeconds});
    return true;
  });
  return nError == os::kFileNotFound ? errOK : ResultFromSystemError(nError);  // an empty one
}

const FolderView::File* FolderView::Find(std::u16string_view Name) const {
  const auto Found = m_Files.find(Name);
  return Found == m_Files.end() ? nullptr : &Found->second;
}

std::string FolderView::Read(std::u16string_view Name, std::uint64_t nOffset, std::uint32_t nSize) {
  if (!Has(Name)) return {};
  constexpr std::uint32_t kHoldNothing = os::kShareRead | os::kShareWrite | os::kShareDelete;
  os::FileHandle Opened = nullptr;
  os::SystemError nError =
      os::Open(m_pFolder, Name, os::kGenericRead, kHoldNothing, os::Disposition::OpenExisting, 0, &Opened);
  std::string Bytes(nSize, '\0');
  std::uint32_t nRead = 0;
  if (nError == os::kSuccess) {
    nError = os::ReadAt(Opened, nOffset, Bytes.data(), nSize, &nRead);
    (void)os::Close(Opened);  // nothing was written
  }
  if (nError != os::kSuccess) {
    m_nFailure = ResultFromSystemError(nError);
    m_FailedFile = Name;
  }
  Bytes.resize(nRead);
  return Bytes;
}

}  // namespace lumbra::salvage
