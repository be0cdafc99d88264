#include "inspect/store.h"

#include <algorithm>

#include "format/file_names.h"
#include "format/named_index_file.h"
#include "inspect/file.h"
#include "lumbra/lumbra.h"
#include "platform/file.h"

namespace lumbra::inspect {
namespace {

std::optional<std::uint32_t> NumberOfFolder(std::u16string_view Name) {
  for (std::uint32_t nNumber = 0; nNumber < kFirstNamedDatabase; ++nNumber) {
    if (NumberedFolder(nNumber) == Name) return nNumber;
  }
  return {};
}

bool Has(const os::FolderHandle& pFolder, std::u16string_view Name) {
  os::FileLook Found{};
  return os::LookAt(pFolder, Name, &Found) == os::kSuccess;
}

// The id that the folder of a named database was made for. It stands in for the index, where that is lost.
std::optional<std::uint32_t> IdentityOf(const os::FolderHandle& pStore, const std::u16string& Name) {
  os::FolderHandle pFolder;
  std::string Bytes;
  IdentityBytes Id{};
  if (os::OpenFolder(pStore, Name, &pFolder) != os::kSuccess) return {};
  if (ReadSmall(pFolder, kIdentityFile, sizeof(Id), &Bytes) != os::kSuccess || Bytes.size() != sizeof(Id)) return {};
  std::ranges::copy(Bytes, Id.begin());
  const std::uint32_t nId = DecodeIdentity(Id);
  return nId >= kFirstNamedDatabase && nId <= kLastNamedDatabase ? std::optional(nId) : std::nullopt;
}

// A folder with the head of a chain or with events, or into which we may not look.
bool MayBeDatabase(const os::FolderHandle& pStore, const std::u16string& Name) {
  if (Name == kSetAsideFolder) return false;
  os::FolderHandle pFolder;
  const os::SystemError nError = os::OpenFolder(pStore, Name, &pFolder);
  if (nError != os::kSuccess) return nError == os::kAccessDenied;
  if (Has(pFolder, kSegmentsFile)) return true;
  bool bEvents = false;
  (void)os::FindFiles(pFolder, kAnyEventsFile, [&bEvents](const os::FoundFile& Found) {  // none where it fails
    bEvents = !Found.bFolder && IsEventsFileName(Found.Name);
    return !bEvents;
  });
  return bEvents;
}

}  // namespace

os::SystemError Store::Open(std::u16string_view Path, std::unique_ptr<Store>* ppStore) {
  os::FolderHandle pFolder;
  const os::SystemError nError = os::OpenFolder(Path, {}, &pFolder);
  if (nError == os::kSuccess) ppStore->reset(new Store(std::move(pFolder)));
  return nError;
}

bool Store::IsStore() const {
  for (const char16_t* const pName : {kSharedIdsFile, kSharedDataFile, kIndexFile}) {  // one may be lost
    if (Has(m_pFolder, pName)) return true;
  }
  return !Databases().empty();
}

std::vector<Database> Store::Databases() const {
  std::vector<std::u16string> Folders;
  (void)os::ListFolders(m_pFolder, &Folders);  // as many as there are to be seen
  std::ranges::sort(Folders);
  const std::vector<std::string> Keys = IndexedKeys();
  std::vector<Database> Found;
  for (const bool bNumbered : {true, false}) {
    for (const std::u16string& Name : Folders) {
      const std::optional<std::uint32_t> Number = NumberOfFolder(Name);
      if (Number.has_value() != bNumbered || !MayBeDatabase(m_pFolder, Name)) continue;
      Found.push_back({Name, Number});
      const auto Key = std::ranges::find(Keys, IndexKey(Name));
      if (!Number && Key != Keys.end())
        Found.back().Id = kFirstNamedDatabase + static_cast<std::uint32_t>(Key - Keys.begin());
      if (!Number && Keys.empty()) Found.back().Id = IdentityOf(m_pFolder, Name);
    }
  }
  return Found;
}

std::optional<Database> Store::Find(std::u16string_view Folder) const {
  for (const Database& One : Databases()) {
    if (One.Folder == Folder) return One;
  }
  return {};
}

std::optional<Database> Store::Find(std::uint32_t nId) const {
  for (const Database& One : Databases()) {
    if (One.Id == nId) return One;
  }
  return {};
}

os::SystemError Store::OpenFolder(const Database& Of, os::FolderHandle* ppFolder) const {
  return Relieved([&] { return os::OpenFolder(m_pFolder, Of.Folder, ppFolder); });
}

std::vector<std::string> Store::IndexedKeys() const {
  std::string Bytes;
  if (ReadSmall(m_pFolder, kIndexFile, (kMaxIndexNames + 1) * kIndexBlockSize, &Bytes) != os::kSuccess) return {};
  std::vector<std::string> Keys;
  for (std::size_t nAt = kIndexBlockSize; nAt < Bytes.size(); nAt += kIndexBlockSize) {
    const std::string Block = Bytes.substr(nAt, kIndexBlockSize);
    Keys.push_back(Block.substr(0, Block.find('\0')));
  }
  return Keys;
}

bool Store::IsMarkedCorrupted() const {
  std::string Signature;
  if (ReadSmall(m_pFolder, kIndexFile, kIndexBlockSize, &Signature) != os::kSuccess) return false;
  return std::ranges::equal(Signature, kCorruptedIndexSignature);
}

}  // namespace lumbra::inspect
