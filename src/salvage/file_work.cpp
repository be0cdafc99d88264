#include "salvage/file_work.h"

#include <algorithm>

#include "format/file_names.h"
#include "lumbra/lumbra.h"

namespace lumbra::salvage {

os::SystemError ReadRecord(const os::FolderHandle& pAside, std::vector<Step>* pSteps) {
  std::string Text;
  constexpr std::size_t kLongestRecord = std::size_t{1} << 28;
  const os::SystemError nError = ReadFile(pAside, kRecord, 0, kLongestRecord, &Text);
  if (nError == os::kSuccess) *pSteps = ReadSteps(Text);
  return nError;
}

bool IsMissing(os::SystemError nError) {
  return nError == os::kFileNotFound || nError == os::kPathNotFound;
}

std::u16string WideName(const std::string& Ascii) {
  return {Ascii.begin(), Ascii.end()};
}

os::SystemError WriteAndSync(os::FileHandle Handle, std::uint64_t nOffset, const std::string& Bytes) {
  std::uint32_t nWritten = 0;
  const os::SystemError nError =
      os::WriteAt(Handle, nOffset, Bytes.data(), static_cast<std::uint32_t>(Bytes.size()), &nWritten);
  if (nError != os::kSuccess) return nError;
  return nWritten == Bytes.size() ? os::Flush(Handle) : os::kDiskFull;
}

os::SystemError WriteFile(const os::FolderHandle& pFolder, std::u16string_view Name, const std::string& Content,
                          os::Disposition What) {
  OpenFile File;
  const os::SystemError nError = File.Open(pFolder, Name, kHold, What);
  return nError == os::kSuccess ? WriteAndSync(File.Handle(), 0, Content) : nError;
}

os::SystemError ReplaceFile(const os::FolderHandle& pFolder, const std::u16string& Name, const std::string& Content) {
  const std::u16string New = Name + std::u16string(kHealingEnding);
  OpenFile Old;
  OpenFile File;
  os::SystemError nError = Old.Open(pFolder, Name, kHoldNothing, os::Disposition::OpenExisting);
  if (nError == os::kSuccess) nError = File.Open(pFolder, New, kHold, os::Disposition::CreateAlways);
  if (nError == os::kSuccess) os::TakeRightsOf(File.Handle(), Old.Handle());
  if (nError == os::kSuccess) nError = WriteAndSync(File.Handle(), 0, Content);
  Old.Close();
  File.Close();
  return nError == os::kSuccess ? os::Move(pFolder, New, pFolder, Name, os::IfTaken::Replace) : nError;
}

os::SystemError MoveOverEmpty(const os::FolderHandle& pFrom, std::u16string_view Name, const os::FolderHandle& pTo,
                              std::u16string_view NewName) {
  const os::SystemError nError = os::Move(pFrom, Name, pTo, NewName, os::IfTaken::Refuse);
  std::uint64_t nSize = 0;
  if (nError != os::kAlreadyExists || os::MeasureFile(pTo, NewName, &nSize) != os::kSuccess || nSize != 0)
    return nError;
  return os::Move(pFrom, Name, pTo, NewName, os::IfTaken::Replace);
}

os::SystemError ReadFile(const os::FolderHandle& pFolder, std::u16string_view Name, std::uint64_t nOffset,
                         std::size_t nMost, std::string* pContent) {
  os::FileHandle Handle = nullptr;
  os::SystemError nError =
      os::Open(pFolder, Name, os::kGenericRead, kHoldNothing, os::Disposition::OpenExisting, 0, &Handle);
  if (nError != os::kSuccess) return nError;
  std::uint64_t nSize = 0;
  std::uint32_t nRead = 0;
  nError = os::GetSize(Handle, &nSize);
  if (nError == os::kSuccess && nOffset < nSize) {
    pContent->resize(static_cast<std::size_t>(std::min<std::uint64_t>(nSize - nOffset, nMost)));
    nError = os::ReadAt(Handle, nOffset, pContent->data(), static_cast<std::uint32_t>(pContent->size()), &nRead);
  }
  pContent->resize(nRead);
  (void)os::Close(Handle);  // nothing was written
  return nError;
}

bool HasFile(const os::FolderHandle& pFolder, std::u16string_view Name) {
  std::uint64_t nSize = 0;
  return !IsMissing(os::MeasureFile(pFolder, Name, &nSize));
}

os::SystemError OpenOrMakeFolder(const os::FolderHandle& pParent, std::u16string_view Name,
                                 os::FolderHandle* ppFolder) {
  os::SystemError nError = os::OpenFolder(pParent, Name, ppFolder);
  if (nError != os::kFileNotFound) return nError;
  nError = os::MakeFolder(pParent, Name);
  return nError == os::kSuccess ? os::OpenFolder(pParent, Name, ppFolder) : nError;
}

// ---- Holding a store --------------------------------------------------------------------------------------

os::SystemError StoreHold::Take(const os::FolderHandle& pStore) {
  os::SystemError nError = os::kSuccess;
  for (const char16_t* const pName : {kSharedTreeFile, kSharedIdsFile, kSharedDataFile}) {
    if (nError == os::kSuccess) nError = TakeFile({}, pStore, pName);
  }
  if (nError != os::kSuccess) return nError;
  const std::u16string System = NumberedFolder(kSystemDatabase);
  os::FolderHandle pSystem;
  nError = os::OpenFolder(pStore, System, &pSystem);
  if (IsMissing(nError)) return os::kSuccess;
  return nError == os::kSuccess ? TakeFile(System, pSystem, kSegmentsFile) : nError;
}

os::SystemError StoreHold::TakeFile(const std::u16string& Folder, const os::FolderHandle& pFolder,
                                    const std::u16string& Name) {
  auto pFile = std::make_unique<OpenFile>();
  const os::SystemError nError = pFile->Open(pFolder, Name, kHold, os::Disposition::OpenExisting);
  if (nError == os::kFileNotFound) return os::kSuccess;
  if (nError == os::kSuccess) m_Files[{Folder, Name}] = std::move(pFile);
  if (nError != os::kSuccess) m_Refused = {.Folder = Folder, .File = Name, .Why = "it cannot be opened"};
  return nError;
}

os::FileHandle StoreHold::Find(const std::u16string& Folder, const std::u16string& File) const {
  const auto Found = m_Files.find({Folder, File});
  return Found == m_Files.end() ? nullptr : Found->second->Handle();
}

}  // namespace lumbra::salvage
