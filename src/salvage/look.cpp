#include "salvage/look.h"

#include <algorithm>
#include <new>
#include <vector>

#include "format/database_name.h"
#include "format/file_names.h"
#include "format/named_index_file.h"
#include "format/segments_file.h"
#include "platform/os.h"
#include "platform/result.h"
#include "salvage/look_parts.h"

namespace lumbra::salvage {
namespace {

std::optional<std::uint32_t> NumberOf(const std::u16string& Folder) {
  for (std::uint32_t nDatabase = 0; nDatabase < kFirstNamedDatabase; ++nDatabase) {
    if (NumberedFolder(nDatabase) == Folder) return nDatabase;
  }
  return {};
}

bool HasFilesOfDatabase(const FolderView& Files) {
  for (const auto& [Name, File] : Files.Files()) {
    if (IsFileOfDatabase(Name)) return true;
  }
  return false;
}

// The id for which a named database's folder was made; nothing where that is not known.
std::optional<std::uint32_t> IdentityOf(FolderView& Files) {
  IdentityBytes Bytes{};
  const std::string Read = Files.Read(kIdentityFile, 0, sizeof(Bytes));
  if (Read.size() != sizeof(Bytes)) return {};
  std::copy(Read.begin(), Read.end(), Bytes.begin());
  const std::uint32_t nId = DecodeIdentity(Bytes);
  return nId >= kFirstNamedDatabase && nId <= kLastNamedDatabase ? std::optional(nId) : std::nullopt;
}

class StoreLook {
 public:
  StoreLook(const os::FolderHandle& pStore, const Wishes& Wanted, Plan* pPlan)
      : m_pStore(pStore), m_Wanted(Wanted), m_pPlan(pPlan) {}

  ResultCode Run() {
    FolderView Files;
    const ResultCode nListed = Files.Open(m_pStore);
    if (Failed(nListed)) return nListed;
    if (Files.Has(kReplacingFile)) {
      LookAtReplacing(Files, m_pPlan);
      return FailureOf(Files, {});
    }
    std::vector<std::u16string> Folders;
    if (const os::SystemError nError = os::ListFolders(m_pStore, &Folders); nError != os::kSuccess)
      return ResultFromSystemError(nError);
    std::sort(Folders.begin(), Folders.end());
    for (const std::u16string& Folder : Folders) {
      const ResultCode nCode = LookIn(Folder);
      if (Failed(nCode)) return nCode;
    }
    LookAtSharedObjects(Files, m_Wanted, m_pPlan);
    LookAtIndex(Files, m_Named, m_pPlan);
    return FailureOf(Files, {});
  }

 private:
  ResultCode LookIn(const std::u16string& Folder) {
    const bool bNumbered = NumberOf(Folder).has_value();
    if (!bNumbered && !IsDatabaseName(Folder)) return errOK;  // none of the store's, or "set-aside"
    os::FolderHandle pFolder;
    const os::SystemError nError = os::OpenFolder(m_pStore, Folder, &pFolder);
    // A folder that is not for us, or whose name cannot be said in UTF-16, is none of the store's.
    if (nError == os::kAccessDenied || nError == os::kFileNotFound) return errOK;
    if (nError != os::kSuccess) return ResultFromSystemError(nError);
    FolderView Files;
    const ResultCode nListed = Files.Open(pFolder);
    if (Failed(nListed)) return nListed == errACCESS_DENIED ? errOK : nListed;
    if (!HasFilesOfDatabase(Files)) return errOK;
    const std::optional<std::uint32_t> Id = bNumbered ? NumberOf(Folder) : IdentityOf(Files);
    LookAtDatabase(Folder, Files, m_Wanted, m_pPlan);
    if (!bNumbered) m_Named[Folder] = Id;
    return FailureOf(Files, Folder);
  }

  ResultCode FailureOf(const FolderView& Files, const std::u16string& Folder) {
    if (Failed(Files.Failure()))
      m_pPlan->Refusal = Describe({.Folder = Folder, .File = Files.FailedFile(), .Why = "it cannot be read"});
    return Files.Failure();
  }

  os::FolderHandle m_pStore;
  const Wishes m_Wanted;
  Plan* m_pPlan;
  std::map<std::u16string, std::optional<std::uint32_t>> m_Named;
};

}  // namespace

ResultCode Look(const std::u16string& Store, const Wishes& Wanted, Plan* pPlan) {
  os::FolderHandle pStore;
  const os::SystemError nError = os::OpenFolder(Store, {}, &pStore);
  if (nError == os::kFileNotFound || nError == os::kPathNotFound) return errOK;
  return nError == os::kSuccess ? Look(pStore, Wanted, pPlan) : ResultFromSystemError(nError);
}

ResultCode LookAtEventSize(const std::u16string& Store, const std::u16string& Folder, EventSize* pFound) try {
  *pFound = {};
  os::FolderHandle pStore;
  os::FolderHandle pFolder;
  os::SystemError nError = os::OpenFolder(Store, {}, &pStore);
  if (nError == os::kSuccess) nError = os::OpenFolder(pStore, Folder, &pFolder);
  if (nError == os::kFileNotFound || nError == os::kPathNotFound) return errOK;
  if (nError != os::kSuccess) return ResultFromSystemError(nError);
  std::string Bytes;
  nError = ReadBytes(pFolder, kSegmentsFile, 0, sizeof(tSDB_HEADER), &Bytes);
  if (nError != os::kSuccess && nError != os::kFileNotFound) return ResultFromSystemError(nError);
  tSDB_HEADER Header{};
  (void)DecodeSegments(Bytes, &Header);  // of one that is damaged the size is 0
  pFound->nBytes = Header.nEventSize;
  if (pFound->nBytes != 0) return errOK;
  FolderView Files;
  const ResultCode nListed = Files.Open(pFolder);
  pFound->bLost = HasEvents(Files);
  return nListed;
} catch (const std::bad_alloc&) {
  return errOUT_OF_MEMORY;
}

ResultCode Look(const os::FolderHandle& pStore, const Wishes& Wanted, Plan* pPlan) try {
  Plan Found;
  const ResultCode nCode = StoreLook(pStore, Wanted, &Found).Run();
  if (Failed(nCode)) Found.Steps.clear();
  *pPlan = std::move(Found);
  return nCode;
} catch (const std::bad_alloc&) {
  return errOUT_OF_MEMORY;
}

}  // namespace lumbra::salvage
