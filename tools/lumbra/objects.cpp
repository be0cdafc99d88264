// lumbra find, name, link: objects by their names and ids.
#include <cstdio>
#include <set>

#include "commands.h"
#include "failure.h"
#include "ids.h"

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

}  // namespace

int Find(const CommonOptions& Common, const FindOptions& Options) {
  const Missing IfMissing = Options.bCreate ? Missing::Create : Missing::Refuse;
  Session Store(Common, IfMissing);
  const std::uint32_t nDatabase = Store.OpenDatabase(Options.Database, IfMissing);
  if (Options.nParent != 0 && DatabaseOfId(Options.nParent) != nDatabase) {
    throw Failure("look below " + FormatId(Options.nParent), errPARAMETER_INVALID,
                  "this is no object of " + Options.Database.Describe());
  }
  int nStatus = kExitOk;
  for (const std::string& Name : Options.bEscaped ? ReadPrinted(Options.Names) : Options.Names) {
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

int Name(const CommonOptions& Common, const NameOptions& Options) {
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
      std::printf("%s  %-6s  %s\n", FormatId(nId).c_str(), FormatType(Object.nType).c_str(),
                  Succeeded(nCode) ? Printable(Object.Name).c_str() : kNameTooLong);
    } catch (const Failure& Reason) {  // one that cannot be shown does not hide the others
      ReportFailure(Reason);
      nStatus = Reason.Code() == errDATA_CORRUPTED ? kExitIncomplete : kExitFailed;
    }
  }
  return Store.StatusOfReading(nStatus);
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
    throw Failure(What, errNOT_SUPPORTED, "the store would not follow this link; see the README for those it does");
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
