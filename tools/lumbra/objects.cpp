// lumbra find, name, link: objects by their names and ids.
#include <algorithm>
#include <cstdio>
#include <set>

#include "commands.h"
#include "failure.h"
#include "host/name_flags.h"
#include "host/text.h"
#include "ids.h"
#include "inspect/find_names.h"
#include "inspect/paths.h"
#include "open_objects.h"
#include "reading.h"

namespace lumbra::tool {
namespace {

bool IsMissing(ResultCode nCode) {
  return nCode == errOBJECT_NOT_FOUND || nCode == errNOT_FOUND;
}

// The store that an object is in: its database and segment.
std::uint64_t StoreOf(std::uint64_t nId) {
  return nId >> 32;
}

void RequireObject(Session& Store, std::uint64_t nId, ObjectName* pName) {
  Store.OpenDatabaseOf(nId);
  Check(Store.ReadName(nId, pName), "find " + FormatId(nId));
}

// What an object stands for; 0 when it stands for itself. One whose link cannot be read may stand for anything.
std::uint64_t LinkOf(const Session& Store, std::uint64_t nId, const std::string& What) {
  std::uint64_t nLink = 0;
  std::uint32_t nSize = 0;
  const ResultCode nCode =
      Store.Call(&LumbraOperations::GetObjectData, nId, &nLink, sizeof(nLink), &nSize, kObjectLinkTag);
  if (IsMissing(nCode)) return 0;
  Check(nCode, What);
  return nSize == sizeof(nLink) && nLink != 0 ? WithDatabase(nLink, DatabaseOfId(nId)) : 0;
}

// Names lead on from keys, to whatever they are linked to; paths lead on from roots, to what can be the start of a
// path.
bool IsFollowed(std::uint32_t nFrom, std::uint32_t nTo) {
  switch (nFrom) {
    case typeRegistryKey:
      return true;
    case typeRegistryRoot:
      return nTo == typeRegistryRoot;
    case typeDriveRoot:
    case typeVolumeRoot:
    case typeServerRoot:
      return nTo == typeFolder || nTo == typeVolumeRoot;
    default:
      return false;
  }
}

// Where the store goes from an object while it builds a name: to what it links to, or to its parent; 0 at the end.
std::uint64_t NextOf(const Session& Store, std::uint64_t nId, const std::string& What) {
  if (const std::uint64_t nLink = LinkOf(Store, nId, What); nLink != 0) return nLink;
  // A file on the way up empties the container, and the parents before it are not told: so it is marked.
  host::IdContainer Ancestors;
  Ancestors.AddParent(nId);
  Check(Store.Call(&LumbraOperations::GetObjectDataInto, nId, Ancestors.Handle(), 0), What);
  const std::vector<std::uint64_t>& Listed = Ancestors.Parents();
  if (Listed.empty() || Listed.front() != nId) {
    throw Failure(What, errNOT_SUPPORTED, "nothing can stand for a file, or for what is below one");
  }
  if (Listed.size() > 1) return Listed[1];
  // An object that cannot be read has neither a parent nor a hash there.
  if (Ancestors.Hashes().empty() || Ancestors.Hashes().front() == 0) throw Failure(What, errREAD_FAILED);
  return 0;
}

bool LeadsTo(const Session& Store, std::uint64_t nFrom, std::uint64_t nTo, const std::string& What) {
  std::set<std::uint64_t> Seen;
  for (std::uint64_t nId = nFrom; nId != 0 && Seen.insert(nId).second; nId = NextOf(Store, nId, What)) {
    if (nId == nTo) return true;
  }
  return false;
}

std::string Quoted(const std::string& Name) {
  const std::string Shown = Printable(Name);
  return Shown == Name ? '"' + Name + '"' : Shown;
}

std::vector<std::string> ReadPrinted(const std::vector<std::string>& Texts) {
  std::vector<std::string> Names;
  for (const std::string& Text : Texts) {
    const std::optional<std::string> Name = host::ReadPrinted(Text);
    if (!Name) throw Failure("read " + Quoted(Text), errPARAMETER_INVALID, "no name is shown like this");
    Names.push_back(*Name);
  }
  return Names;
}

// An object of the database, or one below which nothing of it can be.
void RequireParentOf(const FindOptions& Options, std::uint32_t nDatabase) {
  if (Options.nParent == 0 || DatabaseOfId(Options.nParent) == nDatabase) return;
  throw Failure("look below " + FormatId(Options.nParent), errPARAMETER_INVALID,
                "this is no object of " + Options.Database.Describe());
}

std::vector<std::string> NamesOf(const FindOptions& Options) {
  return Options.bEscaped ? ReadPrinted(Options.Names) : Options.Names;
}

// ---- Finding, through the component -----------------------------------------------------------------------

int FindThroughComponent(const CommonOptions& Common, const FindOptions& Options) {
  const Missing IfMissing = Options.bCreate ? Missing::Create : Missing::Refuse;
  Session Store(Common, IfMissing);
  const std::uint32_t nDatabase = Store.OpenDatabase(Options.Database, IfMissing);
  RequireParentOf(Options, nDatabase);
  int nStatus = kExitOk;
  for (const std::string& Name : NamesOf(Options)) {
    std::uint64_t nId = 0;
    const ResultCode nCode = Store.FindObject(nDatabase, Options.nType, Name, Options.bCreate, Options.nParent, &nId);
    if (Succeeded(nCode)) {
      std::puts(FormatId(nId).c_str());
      continue;
    }
    nStatus = kExitFailed;  // one that cannot be had does not hide the others
    if (IsMissing(nCode) && !Options.bCreate) {
      std::puts("not found");
    } else {
      ReportFailure(Failure((Options.bCreate ? "create " : "find ") + Quoted(Name), nCode));
    }
  }
  if (Options.bCreate) Store.Flush();
  return Options.bCreate ? nStatus : Store.StatusOfReading(nStatus);
}

// ---- Finding, by reading ----------------------------------------------------------------------------------

class NameSearch {
 public:
  NameSearch(const CommonOptions& Common, const FindOptions& Options)
      : m_Options(Options), m_pStore(OpenToRead(Common)), m_Stores(*m_pStore, Common, &m_Findings) {}

  int Run() {
    for (const std::string& Name : NamesOf(m_Options)) m_Sought.push_back({Name, host::NameToUtf16(Name)});
    for (OpenObjects& One : StoresToLookIn()) {
      if (std::ranges::all_of(m_Sought, &Sought::bDone)) break;
      if (m_Stores.Open(&One)) LookIn(One);
    }
    int nStatus = kExitOk;
    for (const Sought& One : m_Sought) nStatus = std::max(nStatus, Print(One));
    return m_Findings.StatusOfReading(nStatus);
  }

 private:
  struct Sought {
    std::string Name;
    std::u16string Wide;
    std::uint64_t nId = 0;
    ResultCode nCode = errOK;  // why it cannot be looked for
    bool bDone = false;
  };

  // What stands below a parent is in its segment.
  std::vector<OpenObjects> StoresToLookIn() {
    std::vector<OpenObjects> Stores = m_Stores.List(m_Options.Database);
    const std::uint32_t nDatabase = m_Options.Database.Number ? *m_Options.Database.Number : IdOfNamed();
    RequireParentOf(m_Options, nDatabase);
    m_nParent = m_Options.nParent == kHostObjectAlias ? m_Stores.HostObject() : m_Options.nParent;
    if (m_Options.nParent != 0)
      std::erase_if(Stores, [this](const OpenObjects& One) { return One.nBase >> 32 != m_nParent >> 32; });
    for (Sought& One : m_Sought) {
      if (One.Wide.size() > kMaxNameUnits) {
        One.nCode = errSIZE_INVALID;
      } else {
        One.nCode = inspect::CheckName(AsAsked(One), m_nParent != 0);
      }
      One.bDone = Failed(One.nCode);
    }
    return Stores;
  }
  std::uint32_t IdOfNamed() const { return Require(*m_pStore, m_Options.Database).Id.value_or(kSystemDatabase); }

  inspect::SoughtName AsAsked(const Sought& One) const {
    return {static_cast<std::uint8_t>(m_Options.nType), host::FlagsFor(m_Options.nType, One.Name), One.Wide};
  }

  void LookIn(const OpenObjects& In) {
    std::vector<Sought*> Open;
    std::vector<inspect::SoughtName> Names;
    for (Sought& One : m_Sought) {
      if (One.bDone) continue;
      Open.push_back(&One);
      Names.push_back(AsAsked(One));
    }
    const auto nParent = static_cast<std::uint32_t>(m_nParent);
    const inspect::FoundNames Found = inspect::FindNames(In.pObjects.get(), SegmentOfId(In.nBase), nParent, Names);
    for (std::size_t i = 0; i < Open.size(); ++i) {
      const inspect::FoundName& One = Found.Names[i];
      if (One.nId == 0) continue;
      Open[i]->bDone = true;
      Open[i]->nId = WithDatabase(One.nId, DatabaseOfId(In.nBase));
      if (!One.bConfirmed) Tell("the name of " + FormatId(Open[i]->nId) + " cannot be read; it was found by its hash");
    }
    if (Found.nUnreadable != 0)
      Tell(std::to_string(Found.nUnreadable) + " objects of " + DescribeStoreOf(In.nBase) + " cannot be read");
  }

  void Tell(const std::string& What) {
    m_Findings.NoteMissing();
    std::fprintf(stderr, "lumbra: %s\n", What.c_str());
  }

  int Print(const Sought& One) {
    if (Failed(One.nCode)) {
      ReportFailure(Failure("find " + Quoted(One.Name), One.nCode));
      return kExitFailed;
    }
    if (One.nId == 0) {
      std::puts("not found");
      return kExitFailed;
    }
    const bool bHost = SegmentOfId(One.nId) == 0 && One.nId == m_Stores.HostObject();
    std::puts(FormatId(bHost ? kHostObjectAlias : One.nId).c_str());
    return kExitOk;
  }

  const FindOptions& m_Options;
  Findings m_Findings;
  const std::unique_ptr<inspect::Store> m_pStore;
  ObjectStores m_Stores;
  std::vector<Sought> m_Sought;
  std::uint64_t m_nParent = 0;
};

// ---- Names ------------------------------------------------------------------------------------------------

void PrintName(std::uint64_t nId, std::uint32_t nType, const std::string& Shown) {
  std::printf("%s  %-6s  %s\n", FormatId(nId).c_str(), FormatType(nType).c_str(), Shown.c_str());
}

int NameThroughComponent(const CommonOptions& Common, const NameOptions& Options) {
  Session Store(Common, Missing::Refuse);
  int nStatus = kExitOk;
  for (const std::uint64_t nId : Options.Ids) {
    try {
      Store.OpenDatabaseOf(nId);
      ObjectName Object;
      const ResultCode nCode = Store.ReadName(nId, &Object);
      if (IsMissing(nCode)) {
        std::printf("%s  not found\n", FormatId(nId).c_str());
        nStatus = kExitFailed;
        continue;
      }
      if (nCode != errSIZE_INVALID) Check(nCode, "read the name of " + FormatId(nId));
      PrintName(nId, Object.nType, Succeeded(nCode) ? Printable(Object.Name) : kNameTooLong);
    } catch (const Failure& Reason) {  // one that cannot be shown does not hide the others
      ReportFailure(Reason);
      nStatus = Reason.Code() == errDATA_CORRUPTED ? kExitIncomplete : kExitFailed;
    }
  }
  return Store.StatusOfReading(nStatus);
}

// The exit status for what was shown of an object.
int PrintView(std::uint64_t nId, const inspect::ObjectView& View) {
  using State = inspect::ObjectView::State;
  switch (View.Of) {
    case State::Named:
      PrintName(nId, View.nType, Printable(View.Name));
      return kExitOk;
    case State::TooLong:
      PrintName(nId, View.nType, kNameTooLong);
      return kExitOk;
    case State::Nothing:
    case State::Gone:
    case State::Lost:
      std::printf("%s  not found\n", FormatId(nId).c_str());
      return kExitFailed;
    case State::Damaged:
    case State::Unsettled:
      throw Failure("read the name of " + FormatId(nId), errDATA_CORRUPTED);
    case State::Unreadable:
      break;
  }
  throw Failure("read the name of " + FormatId(nId), errREAD_FAILED);
}

}  // namespace

int Find(const CommonOptions& Common, const FindOptions& Options) {
  if (Options.bCreate || ReadsThroughComponent(Common)) return FindThroughComponent(Common, Options);
  return NameSearch(Common, Options).Run();
}

int Name(const CommonOptions& Common, const NameOptions& Options) {
  if (ReadsThroughComponent(Common)) return NameThroughComponent(Common, Options);
  Findings Found;
  const std::unique_ptr<inspect::Store> pStore = OpenToRead(Common);
  ObjectStores Stores(*pStore, Common, &Found);
  inspect::Paths Paths(*pStore, CacheBytesOf(Common));
  int nStatus = kExitOk;
  for (const std::uint64_t nId : Options.Ids) {
    try {
      (void)Stores.StoreOf(nId);  // whether there is such a database
      if (nId == kHostObjectAlias && Stores.HostObject() == 0) {
        nStatus = std::max(nStatus, PrintView(nId, {}));
        continue;
      }
      const std::uint64_t nMeant = nId == kHostObjectAlias ? Stores.HostObject() : nId;
      nStatus = std::max(nStatus, PrintView(nId, Paths.Resolve({&nMeant, 1}).front()));
    } catch (const Failure& Reason) {  // one that cannot be shown does not hide the others
      ReportFailure(Reason);
      nStatus = Reason.Code() == errDATA_CORRUPTED ? kExitIncomplete : kExitFailed;
    }
  }
  return Found.StatusOfReading(nStatus);
}

int Link(const CommonOptions& Common, const LinkOptions& Options) {
  Session Store(Common, Missing::Refuse);
  const std::string What = "link " + FormatId(Options.nId) + " to " + FormatId(Options.nTarget);
  ObjectName Object;
  ObjectName Target;
  RequireObject(Store, Options.nId, &Object);
  RequireObject(Store, Options.nTarget, &Target);
  // Of an object that stands for another one the store tells the other's type.
  if (const std::uint64_t nLink = LinkOf(Store, Options.nId, What); nLink != 0) {
    throw Failure(What, errOBJECT_ALREADY_EXISTS,
                  "it stands for " + FormatId(nLink) + " already; lumbra data clear would end that");
  }
  if (StoreOf(Options.nId) != StoreOf(Options.nTarget)) {
    throw Failure(What, errPARAMETER_INVALID, "they are in two stores, and a link leads to an object of its own store");
  }
  if (Options.nTarget == kHostObjectAlias) {
    throw Failure(What, errPARAMETER_INVALID, "2 stands for the host's name, whose own id is not known");
  }
  if (!IsFollowed(Object.nType, Target.nType)) {
    throw Failure(What, errNOT_SUPPORTED, "the store would not follow this link; docs/tool.md tells those it does");
  }
  const bool bNamesFollow = Object.nType == typeRegistryKey || Object.nType == typeVolumeRoot;
  if (bNamesFollow && LeadsTo(Store, Options.nTarget, Options.nId, What)) {
    throw Failure(What, errPARAMETER_INVALID, "the target leads back to the object, and names would run in a circle");
  }
  const std::uint64_t nLink = WithoutDatabase(Options.nTarget);
  Check(Store.Call(&LumbraOperations::SetObjectData, Options.nId, &nLink, sizeof(nLink), kObjectLinkTag), What);
  Store.Flush();
  std::printf("%s stands for %s\n", FormatId(Options.nId).c_str(), FormatId(Options.nTarget).c_str());
  return kExitOk;
}

}  // namespace lumbra::tool
