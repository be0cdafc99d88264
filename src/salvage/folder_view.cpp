#include "salvage/folder_view.h"

#include <algorithm>
#include <vector>

#include "format/crc32.h"
#include "platform/result.h"
#include "salvage/file_work.h"

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

os::SystemError DigestOf(const os::FolderHandle& pFolder, std::u16string_view Name, std::string* pDigest) {
  constexpr std::uint32_t kPiece = 1 << 20;
  os::FileHandle Opened = nullptr;
  os::SystemError nError =
      os::Open(pFolder, Name, os::kGenericRead, kHoldNothing, os::Disposition::OpenExisting, 0, &Opened);
  if (nError != os::kSuccess) return nError;
  std::uint64_t nSize = 0;
  std::uint32_t nCrc = UINT32_MAX;  // under which zeros count, too
  nError = os::GetSize(Opened, &nSize);
  std::vector<char> Piece(static_cast<std::size_t>(std::min<std::uint64_t>(nSize, kPiece)));
  for (std::uint64_t nAt = 0; nError == os::kSuccess && nAt < nSize; nAt += kPiece) {
    std::uint32_t nRead = 0;
    nError = os::ReadAt(Opened, nAt, Piece.data(), static_cast<std::uint32_t>(Piece.size()), &nRead);
    nCrc = Crc32(nCrc, Piece.data(), nRead);
  }
  (void)os::Close(Opened);  // nothing was written
  *pDigest = std::to_string(nSize) + ' ' + std::to_string(nCrc);
  return nError;
}

void FolderView::Keep(os::SystemError nError, std::u16string_view Name) {
  if (nError == os::kSuccess) return;
  m_nFailure = ResultFromSystemError(nError);
  m_FailedFile = Name;
}

std::string FolderView::Read(std::u16string_view Name, std::uint64_t nOffset, std::uint32_t nSize) {
  std::string Bytes;
  if (Has(Name)) Keep(ReadBytes(m_pFolder, Name, nOffset, nSize, &Bytes), Name);
  return Bytes;
}

std::string FolderView::Digest(std::u16string_view Name) {
  std::string Found;
  if (Has(Name)) Keep(DigestOf(m_pFolder, Name, &Found), Name);
  return Found;
}

}  // namespace lumbra::salvage
