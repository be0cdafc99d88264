// The small files of a store: the index of names, the ids in the folders of named databases, and what compaction and
// healing have left.
#include <cstring>
#include <map>

#include "format/file_names.h"
#include "format/named_index_file.h"
#include "inspect/verify_parts.h"
#include "lumbra/lumbra.h"

namespace lumbra::inspect {
namespace {

class IndexLook {
 public:
  explicit IndexLook(Examiner* pTell) : m_pTell(pTell), m_Index{pTell->Of().Folder(), {}, kIndexFile} {}

  void Look() {
    LookAtIndex();
    for (std::uint32_t nNumber = 0; nNumber < kFirstNamedDatabase; ++nNumber) LookAtFolder(NumberedFolder(nNumber));
    for (const Database& One : m_pTell->Of().Databases()) {
      if (!One.Id || *One.Id >= kFirstNamedDatabase) LookAtIdentity(One);
    }
    for (const char16_t* const pName : {kCompactedIdsFile, kCompactedDataFile})
      TellIfThere(pName, "it was written by compaction, and not put in the place of the live one");
    TellIfThere(kReplacingFile, "what compaction wrote is taking the place of the live pair; lumbra repair ends that");
  }

 private:
  // One that is no folder passes for a database that is not there.
  void LookAtFolder(const std::u16string& Name) {
    os::FileLook Found{};
    os::FolderHandle pFolder;
    if (os::LookAt(m_Index.pFolder, Name, &Found) == os::kFileNotFound) return;
    const os::SystemError nError = os::OpenFolder(m_Index.pFolder, Name, &pFolder);
    if (nError != os::kSuccess && nError != os::kAccessDenied && nError != os::kFileNotFound)
      m_pTell->Suspect({m_Index.pFolder, {}, Name}, 0, "it is no folder, where a database belongs");
  }

  void LookAtIndex() {
    std::string Bytes;
    const os::SystemError nError =
        ReadSmall(m_Index.pFolder, kIndexFile, (kMaxIndexNames + 1) * kIndexBlockSize + 1, &Bytes);
    if (nError == os::kFileNotFound) return LookForNamed();
    if (nError != os::kSuccess) return m_pTell->Suspect(m_Index, 0, WhyNotOpen(nError, m_Index));
    if (m_pTell->IsFirst()) ++m_pTell->Totals().nFiles;
    if (Bytes.empty()) return LookForNamed();
    LookAtItems(Bytes);
  }

  // A store that is being made has none yet.
  void LookForNamed() {
    for (const Database& One : m_pTell->Of().Databases()) {
      if (!One.Id || *One.Id >= kFirstNamedDatabase)
        return m_pTell->Suspect(m_Index, 0, "it is missing or empty beside named databases");
    }
  }

  void LookAtItems(const std::string& Bytes) {
    if (Bytes.size() % kIndexBlockSize != 0 || Bytes.size() > (kMaxIndexNames + 1) * kIndexBlockSize)
      m_pTell->Suspect(m_Index, Bytes.size(), "it is no whole number of blocks, or too long",
                       "64 bytes each, 208 at most", std::to_string(Bytes.size()));
    const std::string Head = Bytes.substr(0, kIndexBlockSize);
    if (Head == std::string_view(kCorruptedIndexSignature.data(), kIndexBlockSize)) {
      m_pTell->Leftover(m_Index, 0, "it says that damaged data was met at some time");
    } else if (Head != std::string_view(kIndexSignature.data(), kIndexBlockSize)) {
      m_pTell->Suspect(m_Index, 0, "it has no head of an index");
    }
    std::map<std::string, std::uint32_t> Known;
    for (std::uint32_t nAt = kIndexBlockSize; nAt + kIndexBlockSize <= Bytes.size(); nAt += kIndexBlockSize) {
      const std::string Item = Bytes.substr(nAt, kIndexBlockSize);
      const std::string Name = Item.substr(0, Item.find('\0'));
      const bool bText = std::ranges::all_of(Name, [](char c) { return static_cast<unsigned char>(c) < 0x80; });
      const bool bPadded = Item.find_first_not_of('\0', Name.size()) == std::string::npos;
      if (Name.empty() || Name.size() > kMaxIndexNameLength || !bText || !bPadded) {
        m_pTell->Suspect(m_Index, nAt, "an item of it is no name");
      } else if (!Known.emplace(Name, nAt).second) {
        m_pTell->Suspect(m_Index, nAt, "two items of it are the same name", "", Name);
      }
    }
  }

  // A database that was cleared has no id any more, until it is opened.
  void LookAtIdentity(const Database& Of) {
    FileOf What{nullptr, Of.Folder, kIdentityFile};
    if (m_pTell->Of().OpenFolder(Of, &What.pFolder) != os::kSuccess) return;  // told with the chain
    std::string Bytes;
    const os::SystemError nError = ReadSmall(What.pFolder, kIdentityFile, sizeof(IdentityBytes) + 1, &Bytes);
    if (nError == os::kFileNotFound || (nError == os::kSuccess && Bytes.size() < sizeof(IdentityBytes)))
      return m_pTell->Leftover(What, 0, "the id of the database is missing, and is written when it is opened");
    if (nError != os::kSuccess) return m_pTell->Suspect(What, 0, WhyNotOpen(nError, What));
    if (m_pTell->IsFirst()) ++m_pTell->Totals().nFiles;
    IdentityBytes Id{};
    std::memcpy(Id.data(), Bytes.data(), Id.size());
    const std::uint32_t nId = DecodeIdentity(Id);
    if (Bytes.size() > sizeof(IdentityBytes)) m_pTell->Suspect(What, 4, "it is longer than an id");
    if (nId != Of.Id)
      m_pTell->Suspect(
          What, 0, Of.Id ? "the id of the database is not that of the index" : "the index does not have the database",
          Of.Id ? std::to_string(*Of.Id) : "", std::to_string(nId));
  }

  void TellIfThere(const char16_t* pName, const char* pWhat) {
    os::FileLook Found{};
    if (os::LookAt(m_Index.pFolder, pName, &Found) == os::kSuccess)
      m_pTell->Leftover({m_Index.pFolder, {}, pName}, 0, pWhat);
  }

  Examiner* const m_pTell;
  const FileOf m_Index;
};

}  // namespace

void VerifyIndex(Examiner* pTell) {
  IndexLook(pTell).Look();
}

}  // namespace lumbra::inspect
