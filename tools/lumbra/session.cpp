#include "session.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "commands.h"
#include "failure.h"
#include "format/database_name.h"
#include "format/named_index_file.h"
#include "holder.h"
#include "host/name_flags.h"
#include "host/text.h"
#include "host/trust.h"
#include "ids.h"
#include "machine.h"
#include "platform/result.h"

namespace lumbra::tool {

LimitOptions WithSegmentLimits(LimitOptions Limits) {
  constexpr std::uint64_t kPart = 16;
  const auto IndexOf = [](LumbraLimit nKind) {
    return std::ranges::find(kLimits, nKind, &LumbraLimitInfo::nKind) - std::begin(kLimits);
  };
  const auto IsGiven = [&](LumbraLimit nKind) {
    return Limits.Values[IndexOf(nKind)].has_value();
  };
  const auto GiveTo = [&](LumbraLimit nSegmentKind, LumbraLimit nKind) {
    const auto nWhole = IndexOf(nKind);
    const auto nSegment = IndexOf(nSegmentKind);
    const std::uint64_t nLimit = Limits.Values[nWhole].value_or(0);
    if (nLimit == 0 || IsGiven(nSegmentKind)) return;
    Limits.Values[nSegment] = std::max<std::uint64_t>(1, nLimit / kPart);
    std::fprintf(stderr, "lumbra: --%s %llu drops whole segments: --%s %llu goes with it\n", kLimits[nWhole].pName,
                 static_cast<unsigned long long>(nLimit), kLimits[nSegment].pName,
                 static_cast<unsigned long long>(*Limits.Values[nSegment]));
  };
  GiveTo(limitSegmentEvents, limitDatabaseEvents);
  GiveTo(limitSegmentSize, limitDatabaseSize);
  GiveTo(limitSegmentAge, limitDatabaseAge);
  if (!IsGiven(limitSegmentEvents) && !IsGiven(limitSegmentAge)) GiveTo(limitSegmentSize, limitGlobalSize);
  return Limits;
}

StoreFiles FilesOf(const CommonOptions& Options) {
  if (!Options.bStoreGiven && IsRootInFolderOfOthers()) {
    throw Failure("open " + Options.Store, errACCESS_DENIED,
                  "root works in a folder of somebody else; name the store with --store");
  }
  const std::filesystem::path Folder = AbsolutePath(Options.Store);
  if (const std::string Reason = WhyNoStorePath(Folder); !Reason.empty()) {
    throw Failure("open " + Printable(Options.Store), errPATH_NAME_INVALID, Reason);
  }
  // Before anything of it is read: what is not the user's could be a link to what is not meant for him.
  if (const std::string Why = host::WhyStoreNotTrusted(Folder); !Options.bTrustStore && !Why.empty()) {
    throw Failure("open " + Printable(TextOf(Folder)), errACCESS_DENIED,
                  Why + (Why.ends_with(host::kIsALink) ? "" : "; --trust-store uses it all the same"));
  }
  return StoreFiles(Folder);
}

os::FolderRules RulesOf(const CommonOptions& Options) {
  return {.ForWhom = Options.bGroupReadable ? os::Readers::OwnerAndGroup : os::Readers::OwnerAlone,
          .bOwnFolders = !Options.bTrustStore};
}

CommonOptions InModeOfStore(const CommonOptions& Options) {
  CommonOptions Alike = Options;
  const StoreFiles Files = FilesOf(Options);
  if (Files.SharedRecordsHaveCrcs()) Alike.bCheckMode = true;
  if (Files.GroupMayReadShared()) Alike.bGroupReadable = true;
  return Alike;
}

namespace {

// The entry that the options ask for: that of a module, which is loaded, or the one that is linked in.
ModuleEntry EntryOf(const CommonOptions& Options, host::LoadedModule* pModule) {
  if (Options.Module.empty()) return &LumbraModuleEntry;
  host::ModuleFile File;
  host::ModuleProblem Problem = host::ReadModuleFile(PathOf(Options.Module), &File);
  if (!Problem) Problem = pModule->Load(File);
  if (Problem) throw Failure("load " + Printable(Options.Module), Problem.nCode, Problem.Text);
  return pModule->Entry();
}

}  // namespace

Session::Session(const CommonOptions& Options, Missing Store, DamageListener Listener)
    : m_Files(FilesOf(Options)), m_Host(EntryOf(Options, &m_Module)) {
  if (Failed(m_Host.LoadResult())) {
    const std::string Loaded = Options.Module.empty() ? "what is built in" : Printable(Options.Module);
    throw Failure("load " + Loaded, m_Host.LoadResult(), "its entry refused this host");
  }
  const std::string What = "open " + Printable(TextOf(m_Files.Folder()));
  if (Store == Missing::Refuse && !m_Files.Exists()) throw Failure(What, errOBJECT_NOT_FOUND, "there is no store here");
  if (Options.bTrustStore) m_Host.TrustStores();
  Trace(Options.nTraceLevel, std::move(Listener));
  m_Host.SetPlaceholder(u"%host%", host::ToUtf16(Options.Host.empty() ? MachineName() : Options.Host));
  m_Store = m_Host.Create();
  if (!m_Store) throw Failure(What, errOUT_OF_MEMORY);
  Check(m_Store.SetReportFolder(m_Files.Folder().u16string()), What);
  Check(m_Store.SetNumber(propCHECK_MODE, Options.bCheckMode ? 1 : 0), What);
  Check(m_Store.SetNumber(propGROUP_READABLE, Options.bGroupReadable ? 1 : 0), What);
  (void)m_Store.SetNumber(propCACHE_SIZE, Options.nCacheSize);  // a module that does not know it reads as it does
  const ResultCode nCode = InitWhenFree(Options.nWait, What);
  if (nCode == kWriteProtectResult) throw Failure(What, nCode);  // whichever file it was
  if (nCode == errOPEN_FAILED) {
    if (const std::string Reason = WhyNotUsable(m_Files.Folder()); !Reason.empty()) throw Failure(What, nCode, Reason);
  }
  if (!m_Store.Refusal().empty()) {
    const bool bTrusted = Options.bTrustStore || host::WhyStoreNotTrusted(m_Files.Folder()).empty();
    throw Failure(What, nCode, m_Store.Refusal() + (bTrusted ? "; see lumbra repair" : ""));
  }
  Check(nCode, What);
}

// What was healed is said whatever comes of it.
ResultCode Session::Init() {
  const ResultCode nCode = m_Store.Init();
  for (const std::string& Line : m_Store.Healed()) std::fprintf(stderr, "lumbra: healed %s\n", Line.c_str());
  for (const std::string& Line : m_Store.Left()) std::fprintf(stderr, "lumbra: damaged %s\n", Line.c_str());
  m_bDamaged = m_bDamaged || !m_Store.Healed().empty() || !m_Store.Left().empty();
  return nCode;
}

ResultCode Session::InitWhenFree(std::uint32_t nWait, const std::string& What) {
  WaitForOther Wait(nWait);
  for (bool bOnceMore = true;;) {
    const ResultCode nCode = Init();
    if (Succeeded(nCode)) return nCode;
    if (m_Files.IsHeldByAnotherProcess()) {
      if (!Wait.Again()) throw HeldByAnother(What, m_Files.Folder());
    } else if (nCode == errOPEN_FAILED && bOnceMore) {
      bOnceMore = false;  // the other process may have ended between the two looks
    } else {
      return nCode;
    }
  }
}

int Session::StatusOfReading(int nStatus) const {
  return nStatus == kExitOk && m_bDamaged ? kExitIncomplete : nStatus;
}

// The user's level goes to stderr; what the listener is told does not depend on it.
void Session::Trace(std::uint32_t nLevel, DamageListener Listener) {
  if (!Listener) {
    if (nLevel != 0) m_Host.TraceToStream(nLevel, stderr);
    return;
  }
  constexpr std::uint32_t kDamageLevel = 350;
  const auto Note = [nLevel, Listener = std::move(Listener)](std::uint32_t nLineLevel, std::string_view Line) {
    if (nLineLevel <= nLevel) host::WriteTraceLine(stderr, nLineLevel, Line);
    if (Line.starts_with("lmb\t")) Line.remove_prefix(4);
    if (nLineLevel <= kDamageLevel) Listener(Line);
  };
  m_Host.TraceToCallback(std::max(nLevel, kDamageLevel), Note, host::TraceNames::Printable);
}

std::uint32_t Session::OpenDatabase(const DatabaseName& Database, Missing IfMissing) {
  const std::string What = "open " + Database.Describe();
  const bool bNewName = !m_Files.HasId(Database);
  if (bNewName && !IsDatabaseName(host::ToUtf16(Database.Name)))
    throw Failure(What, errPARAMETER_INVALID, "a new database cannot have this name; docs/tool.md tells those it can");
  if (m_Files.HasLostEvents(Database)) {
    throw Failure(What, errDATA_CORRUPTED,
                  "its segments.dat is missing, damaged or leads nowhere; lumbra clear would start it anew, empty");
  }
  if (IfMissing == Missing::Refuse && !m_Files.Has(Database)) {
    throw Failure(What, errOBJECT_NOT_FOUND, "there is no such database in this store");
  }
  const bool bNew = Database.Number != kSystemDatabase && !m_Files.Has(Database);
  const std::uint32_t nDatabase = OpenWhatIsThere(Database);
  if (bNew || bNewName) Announce(Database, bNewName);
  return nDatabase;
}

// A mistyped one begins a database, too. And a name that a database was given is used up, also when the database is
// gone: nobody should do that unawares.
void Session::Announce(const DatabaseName& Database, bool bNewName) const {
  constexpr std::uint32_t kWarnFrom = 180;
  if (!bNewName) {
    std::fprintf(stderr, "lumbra: made %s\n", Database.Describe().c_str());
    return;
  }
  const std::uint32_t nNames = m_Files.NameCount();
  std::fprintf(stderr, "lumbra: made %s, number %u of %u that a store can have\n", Database.Describe().c_str(), nNames,
               kMaxIndexNames);
  if (nNames >= kWarnFrom)
    std::fprintf(stderr, "lumbra: %u names of databases are left; a name is used up for ever\n",
                 kMaxIndexNames - nNames);
}

std::uint32_t Session::OpenDatabaseToClear(const DatabaseName& Database) {
  return m_Files.HasLostEvents(Database) ? OpenWhatIsThere(Database) : OpenDatabase(Database, Missing::Refuse);
}

std::uint32_t Session::OpenWhatIsThere(const DatabaseName& Database) {
  const std::string What = "open " + Database.Describe();
  if (const std::optional<DatabaseName> Other = m_Files.Namesake(Database)) {
    throw Failure(What, errOBJECT_ALREADY_EXISTS, "the store cannot tell it from " + Other->Describe());
  }
  const std::optional<DatabaseFiles> Found = m_Files.Read(Database);
  const std::uint32_t nEventSize = Found ? Found->nEventSize : sizeof(Event);
  if (!Database.Number) {
    std::uint32_t nId = 0;
    const std::u16string Name = host::ToUtf16(Database.Name);
    Check(m_Store.OpenDatabase(Name, nEventSize, &nId), What);
    return nId;
  }
  if (*Database.Number != kSystemDatabase && !m_Open.contains(*Database.Number)) {
    Check(m_Store.OpenDatabase(*Database.Number, nEventSize), What);
    m_Open.insert(*Database.Number);
  }
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

void Session::OpenDatabaseOf(std::uint64_t nObject) {
  const std::uint32_t nDatabase = DatabaseOfId(nObject);
  const std::optional<DatabaseName> Database = m_Files.DatabaseOfNumber(nDatabase);
  if (!Database) {
    throw Failure("open the database of " + FormatId(nObject), errOBJECT_NOT_FOUND,
                  "there is no database " + std::to_string(nDatabase) + " in this store");
  }
  OpenDatabase(*Database, Missing::Refuse);
}

void Session::SetLimits(std::uint32_t nDatabase, const LimitOptions& Limits) {
  for (std::size_t i = 0; i < std::size(kLimits); ++i) {
    if (!Limits.Values[i]) continue;
    const std::uint32_t nOne = kLimits[i].nKind == limitGlobalSize ? kAllDatabases : nDatabase;
    Check(Call(&LumbraOperations::SetDBParams, nOne, kLimits[i].nKind, *Limits.Values[i]), "set a limit");
  }
}

ResultCode Session::FindObject(std::uint32_t nDatabase, std::uint32_t nType, const std::string& Name, bool bCreate,
                               std::uint64_t nParent, std::uint64_t* pnObject) {
  constexpr std::uint32_t kFindOnly = 0;
  constexpr std::uint32_t kCreateRepairing = 2;
  const std::u16string Wide = host::NameToUtf16(Name);
  if (Wide.size() > kMaxNameUnits) return errSIZE_INVALID;
  const auto nSize = static_cast<std::int32_t>(Wide.size() * sizeof(char16_t));
  return Call(&LumbraOperations::FindObject, nDatabase, nType, Wide.c_str(), nSize,
              bCreate ? kCreateRepairing : kFindOnly, host::FlagsFor(nType, Name), nParent, pnObject);
}

ResultCode Session::ReadName(std::uint64_t nObject, ObjectName* pName) {
  std::u16string Name(256, u'\0');
  for (;;) {
    std::uint32_t nBytes = 0;
    const auto nRoom = static_cast<std::uint32_t>(Name.size() * sizeof(char16_t));
    const ResultCode nCode =
        Call(&LumbraOperations::GetObjectName, nObject, Name.data(), nRoom, &nBytes, 0, &pName->nType);
    if (Succeeded(nCode))
      pName->Name = host::NameToBytes(std::u16string_view(Name).substr(0, nBytes / sizeof(char16_t)));
    if (nCode != errBUFFER_TOO_SMALL) return nCode;
    if (nBytes / sizeof(char16_t) > kMaxNameUnits) return errSIZE_INVALID;
    Name.resize(nBytes / sizeof(char16_t));
  }
}

bool Session::IsCorrupted() const {
  std::uint32_t nCorrupted = 0;
  Check(m_Store.GetNumber(propCORRUPTED, &nCorrupted), "read the store's state");
  return nCorrupted != 0;
}

void Session::Flush() {
  const ResultCode nCode = m_Host.SendFlush();
  if (nCode == errWRITE_FAILED) {
    throw Failure("bring it to the disk", nCode, "what was written now may be gone when the system starts again");
  }
  Check(nCode, "bring it to the disk");
}

}  // namespace lumbra::tool
