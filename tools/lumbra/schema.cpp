#include "schema.h"

#include <algorithm>
#include <iterator>

#include "commands.h"
#include "failure.h"
#include "host/text.h"
#include "ids.h"
#include "inspect/file.h"
#include "inspect/horizon.h"
#include "reading.h"
#include "replace_file.h"

namespace lumbra::tool {
namespace {

constexpr std::u16string_view kEnding = u".schema";
constexpr std::uint32_t kMaxText = 1U << 16;

struct KnownType {
  std::string_view Name;
  FieldType Type;
  std::uint32_t nSize;  // bytes; 0: as many as are said
};
constexpr KnownType kTypes[] = {
    {"filetime", FieldType::FileTime, 8}, {"unix-s", FieldType::UnixS, 8},
    {"unix-ms", FieldType::UnixMs, 8},    {"unix-us", FieldType::UnixUs, 8},
    {"unix-ns", FieldType::UnixNs, 8},    {"u8", FieldType::Unsigned, 1},
    {"u16", FieldType::Unsigned, 2},      {"u32", FieldType::Unsigned, 4},
    {"u64", FieldType::Unsigned, 8},      {"i8", FieldType::Signed, 1},
    {"i16", FieldType::Signed, 2},        {"i32", FieldType::Signed, 4},
    {"i64", FieldType::Signed, 8},        {"f32", FieldType::Float, 4},
    {"f64", FieldType::Float, 8},         {"id", FieldType::Id, 8},
    {"hex", FieldType::Hex, 0},           {"text", FieldType::Text, 0},
};

// What lines of output call other things than fields.
constexpr std::string_view kTaken[] = {"id", "type", "name", "parent", "escaped", "cursor", "gap"};

std::string_view TakeUpTo(std::string_view* pRest, char cEnd) {
  const std::size_t nEnd = std::min(pRest->find(cEnd), pRest->size());
  const std::string_view Taken = pRest->substr(0, nEnd);
  pRest->remove_prefix(std::min(nEnd + 1, pRest->size()));
  return Taken;
}

bool IsFieldName(std::string_view Name) {
  return !Name.empty() && std::ranges::all_of(Name, [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-';
  });
}

// Reads "type" or "type:N" into a field; false when it is none.
bool ReadType(std::string_view Text, Field* pField) {
  const bool bSized = Text.find(':') != std::string_view::npos;
  const std::string_view Name = TakeUpTo(&Text, ':');
  const auto* const pType = std::ranges::find(kTypes, Name, &KnownType::Name);
  if (pType == std::end(kTypes) || bSized != (pType->nSize == 0)) return false;
  pField->Type = pType->Type;
  pField->nSize = bSized ? static_cast<std::uint32_t>(ParseNumber(Text, kMaxText).value_or(0)) : pType->nSize;
  return pField->nSize != 0;
}

std::string WithoutBlanks(std::string_view Text) {
  std::string Clean(Text);
  std::erase_if(Clean, [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; });
  return Clean;
}

std::string Bytes(std::uint32_t nSize) {
  return std::to_string(nSize) + (nSize == 1 ? " byte" : " bytes");
}

std::u16string FileNameOf(const inspect::Database& Database) {
  return Database.Folder + std::u16string(kEnding);
}

Schema Fitting(Schema Read, std::uint32_t nEventSize, const std::string& Whose) {
  if (Read.nSize == nEventSize) return Read;
  throw Failure("read events by " + Whose, errSIZE_INVALID,
                "it describes " + Bytes(Read.nSize) + ", and an event has " + Bytes(nEventSize));
}

Schema BytesAlone(std::uint32_t nEventSize) {
  return {{{"bytes", FieldType::Hex, 0, nEventSize}}, nEventSize};
}

}  // namespace

const Field* Schema::Find(std::string_view Name) const {
  const auto Found = std::ranges::find(Fields, Name, &Field::Name);
  return Found == Fields.end() ? nullptr : &*Found;
}

const Field* Schema::Object() const {
  const Field* const pFound = Find("object");
  return pFound != nullptr && pFound->Type == FieldType::Id ? pFound : nullptr;
}

std::optional<Schema> ParseSchema(std::string_view Text, std::string* pReason) {
  const auto Refuse = [pReason](const std::string& Why) {
    *pReason = Why;
    return std::nullopt;
  };
  const std::string Clean = WithoutBlanks(Text);
  if (Clean.size() > kMaxText) return Refuse("a schema has at most " + Bytes(kMaxText));
  if (Clean.empty() || Clean.ends_with(',')) return Refuse("a schema is a list of NAME:TYPE with commas between them");
  Schema Read;
  for (std::string_view Rest = Clean; !Rest.empty();) {
    std::string_view One = TakeUpTo(&Rest, ',');
    const std::string Shown = Printable(One);
    Field New{std::string(TakeUpTo(&One, ':')), FieldType::Hex, Read.nSize, 0};
    if (!IsFieldName(New.Name)) return Refuse(Shown + ": a name has letters, digits, _ and - alone");
    if (!ReadType(One, &New)) {
      return Refuse(Shown +
                    ": types are filetime, unix-s, unix-ms, unix-us, unix-ns, u8 to u64, i8 to i64, f32, f64, id, "
                    "hex:N and text:N");
    }
    Read.nSize += New.nSize;
    if (Read.nSize > kMaxText) return Refuse("the fields have more than " + Bytes(kMaxText) + " together");
    if (New.Name == "_") continue;
    if (std::ranges::find(kTaken, New.Name) != std::end(kTaken)) return Refuse(Shown + ": the name is taken");
    if (Read.Find(New.Name) != nullptr) return Refuse(Shown + ": the name is there twice");
    Read.Fields.push_back(New);
  }
  return Read;
}

const Schema& OwnLayout() {
  static const Schema kOwn = [] {
    std::string Reason;
    return *ParseSchema(kOwnLayout, &Reason);
  }();
  return kOwn;
}

std::optional<std::string> KeptSchema(const inspect::Store& Store, const inspect::Database& Database) {
  std::string Text;
  const os::SystemError nError = inspect::ReadSmall(Store.Folder(), FileNameOf(Database), kMaxText, &Text);
  if (nError == os::kFileNotFound) return {};
  if (nError != os::kSuccess) {
    throw Failure("read " + Printable(host::ToUtf8(FileNameOf(Database))), errREAD_FAILED);
  }
  return WithoutBlanks(Text);
}

Schema SchemaOf(const inspect::Store& Store, const inspect::Database& Database, const std::optional<Schema>& Given,
                std::uint32_t nEventSize) {
  if (Given) return Fitting(*Given, nEventSize, "the schema that is given");
  if (const std::optional<std::string> Kept = KeptSchema(Store, Database)) {
    const std::string File = Printable(host::ToUtf8(FileNameOf(Database)));
    std::string Reason;
    const std::optional<Schema> Read = ParseSchema(*Kept, &Reason);
    if (!Read) throw Failure("read " + File, errDATA_CORRUPTED, Reason);
    return Fitting(*Read, nEventSize, File);
  }
  return nEventSize == OwnLayout().nSize ? OwnLayout() : BytesAlone(nEventSize);
}

// ---- lumbra schema ------------------------------------------------------------------------------------------

namespace {

std::uint32_t EventSizeOf(const inspect::Store& Store, const inspect::Database& Database) {
  inspect::Horizon Seen;
  Check(inspect::TakeHorizon(
            Store, Database, [](const inspect::Finding&) {}, &Seen),
        "look at the database");
  return Seen.nEventSize;
}

int ShowSchema(const inspect::Store& Store, const inspect::Database& Database) {
  if (const std::optional<std::string> Kept = KeptSchema(Store, Database)) {
    std::printf("%s\n", host::PrintableSentence(*Kept).c_str());
    return kExitOk;
  }
  if (const std::uint32_t nSize = EventSizeOf(Store, Database); nSize != OwnLayout().nSize) {
    throw Failure("show the schema", errNOT_FOUND, "none is kept; events have " + Bytes(nSize));
  }
  std::printf("%s\n", kOwnLayout);
  return kExitOk;
}

void KeepSchema(const CommonOptions& Common, const inspect::Store& Store, const inspect::Database& Database,
                const std::string& Text) {
  const std::string What = "keep a schema";
  std::string Reason;
  const std::optional<Schema> Read = ParseSchema(Text, &Reason);
  if (!Read) throw Failure(What, errPARAMETER_INVALID, Reason);
  const std::uint32_t nSize = EventSizeOf(Store, Database);
  if (Read->nSize != nSize) {
    throw Failure(What, errSIZE_INVALID, "it describes " + Bytes(Read->nSize) + ", and an event has " + Bytes(nSize));
  }
  const CommonOptions Alike = InModeOfStore(Common);
  ReplaceFile(FilesOf(Alike).Folder() / FileNameOf(Database), WithoutBlanks(Text) + '\n', RulesOf(Alike));
}

}  // namespace

int ShowOrKeepSchema(const CommonOptions& Common, const SchemaOptions& Options) {
  const std::unique_ptr<inspect::Store> pStore = OpenToRead(Common);
  const inspect::Database Database = Require(*pStore, Options.Database);
  if (!Options.Text) return ShowSchema(*pStore, Database);
  KeepSchema(Common, *pStore, Database, *Options.Text);
  return kExitOk;
}

}  // namespace lumbra::tool
