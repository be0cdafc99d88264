#include "session.h"

#include "failure.h"
#include "host/text.h"
#include "machine.h"

namespace lumbra::tool {
namespace {

namespace fs = std::filesystem;

fs::path StoreFolder(const CommonOptions& Options) {
  const fs::path Folder = fs::absolute(Options.Store).lexically_normal();
  const std::string Text = Folder.generic_string();
  if (host::ToUtf8(host::ToUtf16(Text)) != Text || Text.find('\\') != std::string::npos) {
    throw Failure("open " + Options.Store, errPATH_NAME_INVALID, "the store's path must be UTF-8 without backslashes");
  }
  return Folder;
}

}  // namespace

Session::Session(const CommonOptions& Options, Missing Store) : m_Files(StoreFolder(Options)) {
  const std::string What = "open " + m_Files.Folder().string();
  if (Store == Missing::Refuse && !m_Files.Exists()) throw Failure(What, errOBJECT_NOT_FOUND, "there is no store here");
  if (Options.nTraceLevel != 0) m_Host.TraceToStream(Options.nTraceLevel, stderr);
  m_Host.SetPlaceholder(u"%host%", host::ToUtf16(Options.Host.empty() ? MachineName() : Options.Host));
  m_Store = m_Host.Create();
  if (!m_Store) throw Failure(What, errOUT_OF_MEMORY);
  Check(m_Store.SetReportFolder(m_Files.Folder().u16string()), What);
  Check(m_Store.SetNumber(propCHECK_MODE, Options.bCheckMode ? 1 : 0), What);
  const ResultCode nCode = m_Store.Init();
  if (Failed(nCode) && m_Files.IsHeldByAnotherProcess()) throw Failure(What, errSHARING_VIOLATION);
  Check(nCode, What);
}

std::uint32_t Session::OpenDatabase(const DatabaseName& Database, Missing IfMissing) {
  const std::string What = "open " + Database.Describe();
  std::uint32_t nEventSize = sizeof(Event);
  if (m_Files.Has(Database)) {
    const std::optional<DatabaseFiles> Found = m_Files.Read(Database);
    if (!Found) {
      throw Failure(What, errDATA_CORRUPTED, "its segments.dat is damaged, and opening it would start it anew, empty");
    }
    nEventSize = Found->nEventSize;
  } else if (IfMissing == Missing::Refuse) {
    throw Failure(What, errOBJECT_NOT_FOUND, "there is no such database in this store");
  }
  if (!Database.Number) {
    std::uint32_t nId = 0;
    const std::u16string Name = host::ToUtf16(Database.Name);
    Check(Call(&LumbraOperations::InitDBByName, Name.c_str(), nEventSize, &nId), What);
    return nId;
  }
  if (*Database.Number != kSystemDatabase) Check(Call(&LumbraOperations::InitDB, *Database.Number, nEventSize), What);
  return *Database.Number;
}

std::uint32_t Session::OpenEventDatabase(const DatabaseName& Database, Missing IfMissing) {
  if (const auto Found = m_Files.Has(Database) ? m_Files.Read(Database) : std::nullopt;
      Found && Found->nEventSize != sizeof(Event)) {
    throw Failure("open " + Database.Describe(), errSIZE_INVALID,
                  "its events have " + std::to_string(Found->nEventSize) + " bytes and are not this tool's");
  }
  return OpenDatabase(Database, IfMissing);
}

void Session::SetLimits(std::uint32_t nDatabase, const LimitOptions& Limits) {
  const auto Set = [this](std::uint32_t nOne, std::uint32_t nKind, const std::optional<std::uint64_t>& Value) {
    if (Value) Check(Call(&LumbraOperations::SetDBParams, nOne, nKind, *Value), "set a limit");
  };
  Set(nDatabase, limitSegmentEvents, Limits.SegmentEvents);
  Set(nDatabase, limitSegmentSize, Limits.SegmentSize);
  Set(nDatabase, limitSegmentAge, Limits.SegmentAge);
  Set(nDatabase, limitDatabaseEvents, Limits.MaxEvents);
  Set(nDatabase, limitDatabaseSize, Limits.MaxSize);
  Set(nDatabase, limitDatabaseAge, Limits.MaxAge);
  Set(kAllDatabases, limitGlobalSize, Limits.GlobalSize);
}

std::optional<ObjectName> Session::NameOf(std::uint64_t nObject) {
  std::u16string Name(256, u'\0');
  for (;;) {
    std::uint32_t nType = 0;
    std::uint32_t nBytes = 0;
    const auto nRoom = static_cast<std::uint32_t>(Name.size() * sizeof(char16_t));
    const ResultCode nCode = Call(&LumbraOperations::GetObjectName, nObject, Name.data(), nRoom, &nBytes, 0, &nType);
    if (nCode != errBUFFER_TOO_SMALL) {
      if (Failed(nCode)) return {};
      return ObjectName{nType, host::ToUtf8(std::u16string_view(Name).substr(0, nBytes / sizeof(char16_t)))};
    }
    Name.resize(nBytes / sizeof(char16_t));
  }
}

bool Session::IsCorrupted() const {
  std::uint32_t nCorrupted = 0;
  Check(m_Store.GetNumber(propCORRUPTED, &nCorrupted), "read the store's state");
  return nCorrupted != 0;
}

}  // namespace lumbra::tool
