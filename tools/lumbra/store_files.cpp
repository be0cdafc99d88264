#include "store_files.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <system_error>

#include "failure.h"
#include "host/text.h"
#include "lumbra/lumbra.h"
#include "machine.h"

namespace lumbra::tool {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMaxNameLength = 63;  // UTF-16 units
constexpr std::uint64_t kRecordFileHeader = 12;
constexpr const char* kEventFile = "%08X_events.dat";

std::string FormatHex(const char* pFormat, std::uint32_t nValue) {
  char Text[32];
  std::snprintf(Text, sizeof(Text), pFormat, nValue);
  return Text;
}

// The number of the database whose folder has this name, in upper or lower case.
std::optional<std::uint32_t> NumberOfFolder(const std::string& Name) {
  if (Name.size() != 2 || Name.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) return {};
  const auto nNumber = static_cast<std::uint32_t>(std::stoul(Name, nullptr, 16));
  return nNumber < kFirstNamedDatabase ? std::optional(nNumber) : std::nullopt;
}

// The segment whose events are in a file of this name, 0 for any other file.
std::uint32_t NumberOfEventFile(const std::string& Name) {
  if (Name.find_first_not_of("0123456789ABCDEF") != 8) return 0;
  const auto nNumber = static_cast<std::uint32_t>(std::stoul(Name.substr(0, 8), nullptr, 16));
  return FormatHex(kEventFile, nNumber) == Name ? nNumber : 0;
}

std::uint64_t EventsOfSize(std::uint64_t nFileSize, std::uint32_t nEventSize) {
  return nFileSize < kRecordFileHeader ? 0 : (nFileSize - kRecordFileHeader) / nEventSize;
}

// The form in which the index of names keeps a name: the low 7 bits of each UTF-16 unit, up to a zero.
std::string IndexKey(const std::string& Name) {
  std::string Key;
  for (const char16_t c : host::ToUtf16(Name)) {
    if ((c & 0x7F) == 0) break;
    Key += static_cast<char>(c & 0x7F);
  }
  return Key;
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

// Bytes of a file from an offset on, as many as it has of those; none when it is not there.
std::string ReadBytes(const fs::path& Path, std::uint64_t nOffset, std::size_t nSize) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> File(OpenStream(TextOf(Path), "rb"), &std::fclose);
  const auto LastError = [] {
    return std::error_code(errno, std::generic_category());
  };
  if (File == nullptr && !IsThere(Path, LastError())) return {};
  std::string Content(nSize, '\0');
  if (std::fseek(File.get(), static_cast<long>(nOffset), SEEK_SET) != 0) throw FailureAt(Path, LastError());
  Content.resize(std::fread(Content.data(), 1, nSize, File.get()));
  if (std::ferror(File.get()) != 0) throw FailureAt(Path, LastError());
  return Content;
}

bool IsSeparatorOrControl(char c) {
  return c == '/' || c == '\\' || (c >= 0 && c < 0x20) || c == 0x7F;
}

}  // namespace

std::string DatabaseName::Folder() const {
  return Number ? FormatHex("%02X", *Number) : Name;
}

std::string DatabaseName::Describe() const {
  return "database " + (Number ? std::to_string(*Number) : '"' + Name + '"');
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
  if (Text == "." || Text == "..") return Refuse("a name must not be . or ..");
  if (std::any_of(Text.begin(), Text.end(), IsSeparatorOrControl)) {
    return Refuse("a name must not hold a separator or a control character");
  }
  if (!IsFolderName(Text)) return Refuse("no folder can have this name");
  if (NumberOfFolder(Text)) return Refuse("the folder of that name belongs to a numbered database");
  const std::u16string Wide = host::ToUtf16(Text);
  if (host::ToUtf8(Wide) != Text) return Refuse("a name must be UTF-8");
  if (Wide.size() > kMaxNameLength) return Refuse("a name has at most 63 characters");
  return DatabaseName{{}, Text};
}

bool StoreFiles::Exists() const {
  return IsThere(m_Folder / "g_objid.dat");
}

bool StoreFiles::IsHeldByAnotherProcess() const {
  for (const char* const pName : {"g_objbt.dat", "g_objid.dat", "g_objdt.dat", "00/segments.dat"}) {
    if (IsHeld(m_Folder / pName)) return true;
  }
  return false;
}

bool StoreFiles::Has(const DatabaseName& Database) const {
  return IsThere(m_Folder / PathOf(Database.Folder()) / "segments.dat");
}

std::optional<DatabaseFiles> StoreFiles::Read(const DatabaseName& Database) const {
  struct {
    char Magic[4];
    std::uint32_t nFirstSegment;
    std::uint32_t nEventSize;
  } Header{};
  static_assert(sizeof(Header) == 12);
  const fs::path Folder = m_Folder / PathOf(Database.Folder());
  const std::string Read = ReadBytes(Folder / "segments.dat", 0, sizeof(Header));
  if (Read.size() != sizeof(Header)) return {};
  std::memcpy(&Header, Read.data(), sizeof(Header));
  if (std::memcmp(Header.Magic, "SDBH", 4) != 0 || Header.nEventSize == 0) return {};

  DatabaseFiles Found{Header.nEventSize, {}};
  if (Header.nFirstSegment == 0) return Found;
  for (std::uint32_t nNumber = Header.nFirstSegment;; ++nNumber) {
    const std::optional<std::uint64_t> Size = SizeOfFile(Folder / FormatHex(kEventFile, nNumber));
    if (!Size) return Found;
    Found.Segments.push_back({nNumber, EventsOfSize(*Size, Header.nEventSize)});
  }
}

std::vector<DatabaseName> StoreFiles::Databases() const {
  std::vector<DatabaseName> Numbered;
  std::vector<DatabaseName> Named;
  for (const fs::directory_entry& Entry : EntriesOf(m_Folder)) {
    const std::string Name = TextOf(Entry.path().filename());
    if (!Entry.is_directory() || !IsThere(Entry.path() / "segments.dat")) continue;
    const std::optional<std::uint32_t> Number = NumberOfFolder(Name);
    if (Number && FormatHex("%02X", *Number) == Name) {
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

std::vector<SegmentFile> StoreFiles::OutOfReach(const DatabaseName& Database, const DatabaseFiles& Chain) const {
  const std::uint32_t nLast = Chain.Segments.empty() ? 0 : Chain.Segments.back().nNumber;
  std::vector<SegmentFile> Found;
  for (const fs::directory_entry& Entry : EntriesOf(m_Folder / PathOf(Database.Folder()))) {
    const std::uint32_t nNumber = NumberOfEventFile(TextOf(Entry.path().filename()));
    if (nNumber <= nLast) continue;
    const std::uint64_t nEvents = EventsOfSize(SizeOfFile(Entry.path()).value_or(0), Chain.nEventSize);
    if (nEvents != 0) Found.push_back({nNumber, nEvents});
  }
  std::sort(Found.begin(), Found.end(), [](const auto& a, const auto& b) { return a.nNumber < b.nNumber; });
  return Found;
}

bool StoreFiles::HasLostEvents(const DatabaseName& Database) const {
  if (const std::optional<DatabaseFiles> Found = Read(Database); Found && !Found->Segments.empty()) return false;
  for (const fs::directory_entry& Entry : EntriesOf(m_Folder / PathOf(Database.Folder()))) {
    const bool bEvents = TextOf(Entry.path().filename()).ends_with("_events.dat");
    if (bEvents && SizeOfFile(Entry.path()).value_or(0) > kRecordFileHeader) return true;
  }
  return false;
}

std::optional<DatabaseName> StoreFiles::Namesake(const DatabaseName& Database) const {
  if (Database.Number || !Exists()) return {};
  for (const DatabaseName& Other : Databases()) {
    if (Other.Number || Other.Name == Database.Name) continue;
    const bool bOneId = IndexKey(Other.Name) == IndexKey(Database.Name);
    if (bOneId || IsSameFolderName(Other.Name, Database.Name)) return Other;
  }
  return {};
}

bool StoreFiles::HasId(const DatabaseName& Database) const {
  if (Database.Number) return true;
  for (std::uint64_t nBlock = 1;; ++nBlock) {
    const std::string Item = ReadBlock("g_db_id.dat", nBlock);
    if (Item.empty()) return false;
    if (Item.substr(0, Item.find('\0')) == IndexKey(Database.Name)) return true;
  }
}

std::optional<DatabaseName> StoreFiles::DatabaseOfNumber(std::uint32_t nId) const {
  if (nId < kFirstNamedDatabase) return DatabaseName{nId, {}};
  const std::string Item = ReadBlock("g_db_id.dat", std::uint64_t{nId - kFirstNamedDatabase} + 1);
  if (Item.empty()) return {};
  const std::string Key = Item.substr(0, Item.find('\0'));
  for (const DatabaseName& Candidate : Databases()) {
    if (!Candidate.Number && IndexKey(Candidate.Name) == Key) return Candidate;
  }
  return {};
}

bool StoreFiles::IsMarkedCorrupted() const {
  return ReadBlock("g_db_id.dat", 0).find("Ver 1.0 Corrupted") != std::string::npos;
}

bool StoreFiles::SharedObjectsHaveCrcs() const {
  const std::string Magic = ReadBlock("g_objdt.dat", 0).substr(0, 4);
  return Magic == "ODBQ" || Magic == "ODBR" || Magic == "ODBS";
}

bool StoreFiles::SharedRecordsHaveCrcs() const {
  return ReadBlock("g_objid.dat", 0).starts_with("PLDP");
}

std::uint64_t StoreFiles::SharedObjectCount() const {
  const std::uint64_t nSize = SizeOf("g_objid.dat");
  const std::uint32_t nRecord = SharedRecordsHaveCrcs() ? 33 : 29;
  return nSize < kRecordFileHeader ? 0 : (nSize - kRecordFileHeader) / nRecord;
}

std::uint64_t StoreFiles::SizeOf(const char* pName) const {
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

// Up to 64 bytes of one of the store's own files.
std::string StoreFiles::ReadBlock(const char* pName, std::uint64_t nBlock) const {
  constexpr std::size_t kBlockSize = 64;
  return ReadBytes(m_Folder / pName, nBlock * kBlockSize, kBlockSize);
}

}  // namespace lumbra::tool
