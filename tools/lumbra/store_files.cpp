#include "store_files.h"

#include <algorithm>
#include <system_error>

#include "failure.h"
#include "format/crc32.h"
#include "format/database_name.h"
#include "format/file_names.h"
#include "format/named_index_file.h"
#include "format/object_files.h"
#include "format/record_file.h"
#include "format/segments_file.h"
#include "host/printed_text.h"
#include "host/text.h"
#include "lumbra/lumbra.h"
#include "machine.h"
#include "salvage/plan.h"

namespace lumbra::tool {
namespace {

namespace fs = std::filesystem;

// The number of the database whose folder has this name, in upper or lower case.
std::optional<std::uint32_t> NumberOfFolder(const std::string& Name) {
  if (Name.size() != 2 || Name.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) return {};
  const auto nNumber = static_cast<std::uint32_t>(std::stoul(Name, nullptr, 16));
  return nNumber < kFirstNamedDatabase ? std::optional(nNumber) : std::nullopt;
}

// The name that an item of the index holds.
std::string KeyOfItem(const std::string& Item) {
  return Item.substr(0, Item.find('\0'));
}

std::string KeyOf(const DatabaseName& Database) {
  return IndexKey(host::ToUtf16(Database.Name));
}

// False for an error that says that nothing is there; throws a Failure for any other one.
bool IsThere(const fs::path& Path, const std::error_code& Error) {
  if (!Error) return true;
  if (Error == std::errc::no_such_file_or_directory || Error == std::errc::not_a_directory) return false;
  throw FailureAt(Path, Error);
}

bool IsThere(const fs::path& Path) {
  std::error_code Error;
  const bool bThere = fs::exists(Path, Error);
  return IsThere(Path, Error) && bThere;
}

std::optional<std::uint64_t> SizeOfFile(const fs::path& Path) {
  std::error_code Error;
  const std::uint64_t nSize = fs::file_size(Path, Error);
  return IsThere(Path, Error) ? std::optional(nSize) : std::nullopt;
}

// What a folder holds; nothing when it is not there.
std::vector<fs::directory_entry> EntriesOf(const fs::path& Folder) {
  std::vector<fs::directory_entry> Entries;
  std::error_code Error;
  fs::directory_iterator Listing(Folder, Error);
  for (; !Error && Listing != fs::directory_iterator(); Listing.increment(Error)) Entries.push_back(*Listing);
  IsThere(Folder, Error);
  return Entries;
}

// Whether the file system lets us look at what is in a folder.
bool MayLookInto(const fs::path& Folder) {
  std::error_code Error;
  return fs::exists(Folder / ".", Error) || Error != std::errc::permission_denied;
}

// Bytes of a file from an offset on, as many as it has of those; none when it is not there.
std::string ReadBytes(const fs::path& Path, std::uint64_t nOffset, std::size_t nSize) {
  std::string Content;
  return IsThere(Path, ReadPlainFile(Path, nOffset, nSize, &Content)) ? Content : std::string();
}

bool StartsWith(const std::string& Content, const FILE_MAGIC& Magic) {
  return Content.starts_with(std::string_view(Magic, sizeof(Magic)));
}

bool IsSeparatorOrControl(char c) {
  return c == '/' || c == '\\' || (c >= 0 && c < 0x20) || c == 0x7F;
}

}  // namespace

std::string DatabaseName::Folder() const {
  return Number ? host::ToUtf8(NumberedFolder(*Number)) : Name;
}

std::string DatabaseName::Describe() const {
  if (Number) return "database " + std::to_string(*Number);
  const std::string Shown = host::Printable(Name);
  return "database " + (Shown == Name ? '"' + Name + '"' : Shown);
}

std::optional<DatabaseName> ParseDatabaseName(const std::string& Text, std::string* pReason) {
  const auto Refuse = [pReason](const char* pWhy) {
    *pReason = pWhy;
    return std::nullopt;
  };
  if (Text.empty()) return Refuse("a database has a number or a name");
  if (Text.find_first_not_of("0123456789") == std::string::npos) {
    const unsigned long nNumber = Text.size() > 4 ? 0 : std::stoul(Text);
    if (nNumber < 1 || nNumber >= kFirstNamedDatabase) return Refuse("numbered databases are 1 to 47");
    return DatabaseName{static_cast<std::uint32_t>(nNumber), {}};
  }
  if (std::any_of(Text.begin(), Text.end(), IsSeparatorOrControl)) {
    return Refuse("a name must not hold a separator or a control character");
  }
  if (NumberOfFolder(Text)) return Refuse("the folder of that name belongs to a numbered database");
  const std::u16string Wide = host::ToUtf16(Text);
  if (host::ToUtf8(Wide) != Text) return Refuse("a name must be UTF-8");
  if (!IsPlainFolderName(Wide)) return Refuse("a name must be that of one folder");
  if (Wide.size() > kMaxIndexNameLength) return Refuse("a name has at most 63 characters");
  return DatabaseName{{}, Text};
}

bool StoreFiles::Exists() const {
  for (const char16_t* const pName : {kSharedIdsFile, kSharedDataFile, kIndexFile}) {  // one may be lost
    if (IsThere(m_Folder / pName)) return true;
  }
  const std::vector<DatabaseName> Known = Databases();
  return std::any_of(Known.begin(), Known.end(), [this](const DatabaseName& One) { return Has(One); });
}

bool StoreFiles::IsFolder() const {
  std::error_code Error;
  return fs::is_directory(m_Folder, Error);
}

bool StoreFiles::IsHeldByAnotherProcess() const {
  for (const char16_t* const pName : {kSharedTreeFile, kSharedIdsFile, kSharedDataFile}) {
    if (IsHeld(m_Folder / pName)) return true;
  }
  return IsHeld(m_Folder / NumberedFolder(kSystemDatabase) / kSegmentsFile);
}

bool StoreFiles::Has(const DatabaseName& Database) const {
  return IsThere(m_Folder / PathOf(Database.Folder()) / kSegmentsFile);
}

std::optional<DatabaseFiles> StoreFiles::Read(const DatabaseName& Database) const {
  tSDB_HEADER Header{};
  const fs::path Folder = m_Folder / PathOf(Database.Folder());
  if (DecodeSegments(ReadBytes(Folder / kSegmentsFile, 0, sizeof(Header)), &Header)) return {};

  DatabaseFiles Found{Header.nEventSize, {}};
  if (Header.nFirstSegment == 0) return Found;
  for (std::uint32_t nNumber = Header.nFirstSegment;; ++nNumber) {
    const std::optional<std::uint64_t> Size = SizeOfFile(Folder / SegmentFileName(nNumber, kEventsFile));
    if (!Size) return Found;
    Found.Segments.push_back({nNumber, RecordCountOfSize(*Size, Header.nEventSize)});
  }
}

std::vector<DatabaseName> StoreFiles::Databases() const {
  std::vector<DatabaseName> Numbered;
  std::vector<DatabaseName> Named;
  for (const fs::directory_entry& Entry : EntriesOf(m_Folder)) {
    const std::string Name = TextOf(Entry.path().filename());
    if (Entry.is_symlink() || !Entry.is_directory() || Name == TextOf(fs::path(kSetAsideFolder))) continue;
    if (MayLookInto(Entry.path()) && !IsThere(Entry.path() / kSegmentsFile)) continue;
    const std::optional<std::uint32_t> Number = NumberOfFolder(Name);
    if (Number && DatabaseName{Number, {}}.Folder() == Name) {
      Numbered.push_back({Number, {}});
    } else {
      Named.push_back({{}, Name});
    }
  }
  std::sort(Numbered.begin(), Numbered.end(), [](const auto& a, const auto& b) { return a.Number < b.Number; });
  std::sort(Named.begin(), Named.end(), [](const auto& a, const auto& b) { return a.Name < b.Name; });
  Numbered.insert(Numbered.end(), Named.begin(), Named.end());
  return Numbered;
}

bool StoreFiles::HasLostEvents(const DatabaseName& Database) const {
  if (const std::optional<DatabaseFiles> Found = Read(Database); Found && !Found->Segments.empty()) return false;
  for (const fs::directory_entry& Entry : EntriesOf(m_Folder / PathOf(Database.Folder()))) {
    const bool bEvents = IsEventsFileName(host::ToUtf16(TextOf(Entry.path().filename())));
    if (bEvents && SizeOfFile(Entry.path()).value_or(0) > sizeof(tPLAINDB_HEADER)) return true;
  }
  return false;
}

std::optional<DatabaseName> StoreFiles::Namesake(const DatabaseName& Database) const {
  if (Database.Number || !Exists()) return {};
  for (const DatabaseName& Other : Databases()) {
    if (Other.Number || Other.Name == Database.Name) continue;
    const bool bOneId = KeyOf(Other) == KeyOf(Database);
    if (bOneId || IsSameFolderName(Other.Name, Database.Name)) return Other;
  }
  return {};
}

bool StoreFiles::HasId(const DatabaseName& Database) const {
  if (Database.Number) return true;
  const std::vector<std::string> Keys = IndexedKeys();
  return std::ranges::find(Keys, KeyOf(Database)) != Keys.end();
}

// The names that the index holds: all that it can hold are read at once, whatever more the file has.
std::vector<std::string> StoreFiles::IndexedKeys() const {
  const std::string Items =
      ReadBytes(m_Folder / kIndexFile, kIndexBlockSize, std::size_t{kMaxIndexNames} * kIndexBlockSize);
  std::vector<std::string> Keys;
  for (std::size_t nAt = 0; nAt < Items.size(); nAt += kIndexBlockSize)
    Keys.push_back(KeyOfItem(Items.substr(nAt, kIndexBlockSize)));
  return Keys;
}

std::uint32_t StoreFiles::NameCount() const {
  return static_cast<std::uint32_t>(IndexedKeys().size());
}

std::vector<std::string> StoreFiles::ForeignFiles(const DatabaseName& Database) const {
  const fs::path Folder = m_Folder / PathOf(Database.Folder());
  if (fs::is_symlink(Folder)) return {};  // nothing behind it is cleared
  std::vector<std::string> Found;
  for (const fs::directory_entry& Entry : EntriesOf(Folder)) {
    const bool bStays = Entry.is_symlink() || Entry.is_directory();  // which clearing leaves alone
    const std::string Name = TextOf(Entry.path().filename());
    if (!bStays && !IsFileOfDatabase(host::ToUtf16(Name))) Found.push_back(Name);
  }
  std::sort(Found.begin(), Found.end());
  return Found;
}

std::optional<DatabaseName> StoreFiles::DatabaseOfNumber(std::uint32_t nId) const {
  if (nId < kFirstNamedDatabase) return DatabaseName{nId, {}};
  const std::string Item = ReadBlock(kIndexFile, std::uint64_t{nId - kFirstNamedDatabase} + 1);
  if (Item.empty()) return {};
  for (const DatabaseName& Candidate : Databases()) {
    if (!Candidate.Number && KeyOf(Candidate) == KeyOfItem(Item)) return Candidate;
  }
  return {};
}

std::vector<fs::path> StoreFiles::SetAsideFolders() const {
  std::vector<fs::path> Found;
  const auto Note = [&Found](const fs::path& In) {
    const fs::path Aside = In / kSetAsideFolder;
    std::error_code NotThere;  // or in a folder that is not for us
    if (fs::is_directory(fs::symlink_status(Aside, NotThere))) Found.push_back(Aside);
  };
  Note(m_Folder);
  // Of any folder: a database may have lost what tells that it is one.
  for (const fs::directory_entry& Entry : EntriesOf(m_Folder)) {
    if (!Entry.is_symlink() && Entry.is_directory()) Note(Entry.path());
  }
  return Found;
}

std::uint64_t StoreFiles::SetAsideSize() const {
  std::uint64_t nSize = 0;
  for (const fs::path& Folder : SetAsideFolders()) {
    std::error_code Refused;
    fs::recursive_directory_iterator Listing(Folder, fs::directory_options::skip_permission_denied, Refused);
    for (; !Refused && Listing != fs::recursive_directory_iterator(); Listing.increment(Refused)) {
      std::error_code Gone;
      if (!Listing->is_symlink(Gone) && Listing->is_regular_file(Gone))
        nSize += SizeOfFile(Listing->path()).value_or(0);
    }
  }
  return nSize;
}

void StoreFiles::DiscardSetAside() const {
  for (const fs::path& Folder : SetAsideFolders()) {
    std::error_code Refused;
    for (const fs::directory_entry& Entry : EntriesOf(Folder)) {
      if (!salvage::IsTimeOfHealing(TextOf(Entry.path().filename())) || Entry.is_symlink()) continue;
      fs::remove_all(Entry.path(), Refused);
      if (Refused) throw Failure("delete " + Printable(TextOf(Entry.path())), errACCESS_DENIED, MessageOf(Refused));
    }
    fs::remove(Folder, Refused);  // unless somebody has put something else there
  }
}

bool StoreFiles::IsMarkedCorrupted() const {
  const std::string Signature = ReadBlock(kIndexFile, 0);
  return std::equal(Signature.begin(), Signature.end(), kCorruptedIndexSignature.begin(),
                    kCorruptedIndexSignature.end());
}

bool StoreFiles::SharedObjectsHaveCrcs() const {
  const std::string Head = ReadBlock(kSharedDataFile, 0);
  return std::any_of(std::begin(kFeatureMagics), std::end(kFeatureMagics), [&Head](const FeatureMagic& Known) {
    return StartsWith(Head, Known.Magic) && (Known.nFeatures & featureBlockCrc) != 0;
  });
}

bool StoreFiles::SharedRecordsHaveCrcs() const {
  return StartsWith(ReadBlock(kSharedIdsFile, 0), kCheckedRecordMagic);
}

std::uint64_t StoreFiles::SharedObjectCount() const {
  constexpr std::uint32_t kEntrySize = sizeof(tODB_ID_ENTRY);
  return RecordCountOfSize(SizeOf(kSharedIdsFile), SharedRecordsHaveCrcs() ? kEntrySize + kCrcSize : kEntrySize);
}

bool StoreFiles::GroupMayReadShared() const {
  std::error_code Error;
  const fs::perms Rights = fs::symlink_status(m_Folder / kSharedIdsFile, Error).permissions();
  return IsThere(m_Folder / kSharedIdsFile, Error) && (Rights & fs::perms::group_read) != fs::perms::none;
}

std::uint64_t StoreFiles::SizeOf(const char16_t* pName) const {
  return SizeOfFile(m_Folder / pName).value_or(0);
}

std::uint64_t StoreFiles::SizeOf(const DatabaseName& Database) const {
  std::uint64_t nSize = 0;
  for (const fs::directory_entry& Entry : EntriesOf(m_Folder / PathOf(Database.Folder()))) {
    std::error_code Error;
    const bool bFile = Entry.is_regular_file(Error);
    if (IsThere(Entry.path(), Error) && bFile) nSize += SizeOfFile(Entry.path()).value_or(0);
  }
  return nSize;
}

// One of the blocks that the index has, or as many bytes of another of the store's own files.
std::string StoreFiles::ReadBlock(const char16_t* pName, std::uint64_t nBlock) const {
  return ReadBytes(m_Folder / pName, nBlock * kIndexBlockSize, kIndexBlockSize);
}

}  // namespace lumbra::tool
