#include "open_objects.h"

#include "failure.h"
#include "host/text.h"
#include "ids.h"
#include "inspect/find_names.h"
#include "inspect/heads.h"
#include "inspect/horizon.h"
#include "machine.h"

namespace lumbra::tool {

ObjectStores::ObjectStores(const inspect::Store& Of, const CommonOptions& Common, Findings* pFindings)
    : m_Store(Of),
      m_Host(Common.Host.empty() ? MachineName() : Common.Host),
      m_pFindings(pFindings),
      m_Cache(CacheBytesOf(Common)) {}

std::vector<OpenObjects> ObjectStores::List(const DatabaseName& Database) {
  if (Database.Number == kSystemDatabase) {
    std::vector<OpenObjects> Shared(1);
    return Shared;
  }
  return List(Require(m_Store, Database));
}

std::vector<OpenObjects> ObjectStores::List(const inspect::Database& Database) {
  const std::string What = "look for objects of " + Printable(host::ToUtf8(Database.Folder));
  if (!Database.Id) throw Failure(What, errOBJECT_NOT_FOUND, "this database has no number yet, which their ids bear");
  inspect::Horizon At;
  Check(inspect::TakeHorizon(m_Store, Database, m_pFindings->Teller(), &At), What);
  std::vector<OpenObjects> Stores;
  for (auto One = At.Segments.rbegin(); One != At.Segments.rend(); ++One) {
    OpenObjects& Added = Stores.emplace_back();
    Added.nBase = WithDatabase(std::uint64_t{One->nNumber} << 32, *Database.Id);
    Added.Life = {.nDatabase = *Database.Id, .nSegment = One->nNumber, .nIdsBirth = One->nIdsBirth};
    Added.Seen.nEventSize = At.nEventSize;
    Added.Seen.nFirst = At.nFirst;
    Added.Seen.Segments = {*One};
  }
  return Stores;
}

OpenObjects ObjectStores::StoreOf(std::uint64_t nId) {
  if (SegmentOfId(nId) == 0) return {};
  const std::uint32_t nDatabase = DatabaseOfId(nId);
  if (!m_Store.Find(nDatabase)) {
    throw Failure("open the database of " + FormatId(nId), errOBJECT_NOT_FOUND,
                  "there is no database " + std::to_string(nDatabase) + " in this store");
  }
  return {nId & ~std::uint64_t{UINT32_MAX}, {.nDatabase = nDatabase, .nSegment = SegmentOfId(nId)}, {}, nullptr};
}

bool ObjectStores::Open(OpenObjects* pWhich) {
  os::FolderHandle pFolder = m_Store.Folder();
  const std::uint32_t nSegment = pWhich->Life.nSegment;
  std::optional<inspect::Database> In;
  if (nSegment != 0) {
    In = m_Store.Find(pWhich->Life.nDatabase);
    if (!In || m_Store.OpenFolder(*In, &pFolder) != os::kSuccess) return false;
  }
  pWhich->pObjects = std::make_unique<inspect::Objects>(
      m_Store, std::move(pFolder), nSegment == 0 ? inspect::SharedObjectFiles() : inspect::ObjectFilesOf(nSegment),
      &m_Cache);
  const inspect::Answer Opened = pWhich->pObjects->Open(pWhich->Life.nIdsBirth);
  if (Opened == inspect::Answer::Read) return true;
  pWhich->pObjects.reset();
  if (Opened == inspect::Answer::Missing) {  // it was dropped meanwhile, or is lost
    if (In) inspect::CheckHeads(m_Store, *In, pWhich->Seen, m_pFindings->Teller());
    if (!In) inspect::CheckSharedHeads(m_Store, m_pFindings->Teller());
    return false;
  }
  m_pFindings->NoteMissing();
  ReportFailure(Failure("open the objects of " + DescribeStoreOf(pWhich->nBase),
                        Opened == inspect::Answer::Unreadable ? errOPEN_FAILED : errDATA_CORRUPTED));
  return false;
}

std::uint64_t ObjectStores::HostObject() {
  if (m_nHostObject) return *m_nHostObject;
  m_nHostObject = 0;
  OpenObjects Shared;
  if (!Open(&Shared)) return 0;
  const inspect::SoughtName Sought{typeFile, 0, host::ToUtf16(m_Host)};
  m_nHostObject = inspect::FindNames(Shared.pObjects.get(), 0, 0, {&Sought, 1}).Names.front().nId;
  return *m_nHostObject;
}

std::string DescribeStoreOf(std::uint64_t nId) {
  if (SegmentOfId(nId) == 0) return "the shared objects";
  return "segment " + std::to_string(SegmentOfId(nId)) + " of database " + std::to_string(DatabaseOfId(nId));
}

}  // namespace lumbra::tool
