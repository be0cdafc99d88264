#include "component/databases.h"

#include <algorithm>
#include <utility>

#include "format/database_name.h"
#include "format/file_names.h"
#include "format/named_index_file.h"
#include "platform/failed_step.h"
#include "platform/invariant.h"
#include "platform/result.h"
#include "platform/trace.h"

namespace lumbra {
Databases::Databases(DatabasesOwner& Owner) : m_Owner(Owner) {
  for (std::uint32_t nDatabase = 0; nDatabase < kSlots; ++nDatabase) m_Slots[nDatabase].nId = nDatabase;
}

// ---- Which database ---------------------------------------------------------------------------------------

namespace {

// Null for one that nobody opened.
NamedDatabase* FindById(const std::vector<NamedDatabaseRef>& All, std::uint32_t nDatabase) {
  const auto Found = std::ranges::find_if(All, [=](const NamedDatabaseRef& Named) { return Named->nId == nDatabase; });
  return Found == All.end() ? nullptr : Found->Get();
}

}  // namespace

Database Databases::Find(std::uint32_t nDatabase) {
  if (nDatabase < kSlots) return Database(&m_Slots[nDatabase]);
  const os::Hold Hold(m_NamedLock);
  return Database(NamedDatabaseRef(FindById(m_Named, nDatabase)));
}

// The same for who holds the main lock, under which a named one stays. Null for one that nobody opened.
DatabaseSlot* Databases::SlotOf(std::uint32_t nDatabase) {
  if (nDatabase < kSlots) return &m_Slots[nDatabase];
  return FindById(AllNamed(), nDatabase);
}

NamedDatabaseRef Databases::FindNamed(const char16_t* pName) {
  for (const NamedDatabaseRef& Known : AllNamed()) {
    if (Known->Name.Equals(pName)) return Known;
  }
  return {};
}

// ---- Opening and closing ----------------------------------------------------------------------------------

bool Databases::InitEnvironment(DatabaseSlot* pSlot, const HostText& Store, const char16_t* pName) {
  // An empty one is nowhere, rather than in the current folder of the process.
  return pSlot->Environment.InitBelow(&m_Owner, m_Store, Store.Text(), pName, m_Owner.Settings().bEnvironmentFlag);
}

ResultCode Databases::InitManager(DatabaseSlot* pSlot, std::uint32_t nEventSize) {
  const DatabasesOwner::OpenSettings With = m_Owner.Settings();
  return pSlot->Manager.Init(&pSlot->Environment, nEventSize, With.pSharedObjects, With.bCheckMode);
}

ResultCode Databases::OpenSystem(HostText Folder, Database* pOpened) {
  const os::Hold Hold(m_Lock);
  DatabaseSlot& System = m_Slots[kSystemDatabase];
  constexpr std::uint32_t kSystemEventSize = 1;  // the system database has objects alone
  if (!InitEnvironment(&System, Folder, NumberedFolder(kSystemDatabase).c_str())) return errOPEN_FAILED;
  *pOpened = Database(&System);
  return InitManager(&System, kSystemEventSize);
}

ResultCode Databases::OpenSlot(std::uint32_t nDatabase, std::uint32_t nEventSize, Database* pOpened) {
  DatabaseSlot& Slot = m_Slots[nDatabase];
  ResultCode nCode = errALREADY_DONE;
  // The environment of an open database is in use: it is left as it is.
  if (!Slot.Manager.IsInitialized()) {
    if (!InitEnvironment(&Slot, m_Owner.StoreFolder(), NumberedFolder(nDatabase).c_str())) return errOPEN_FAILED;
    nCode = InitManager(&Slot, nEventSize);
  }
  if (Succeeded(nCode)) Count(&Slot);
  LUMBRA_INVARIANT(IsTotalTheSum());
  *pOpened = Database(&Slot);
  return nCode;
}

static bool IsAscii(std::u16string_view Name) {
  return std::ranges::all_of(Name, [](char16_t c) { return c < 0x80; });
}

ResultCode Databases::OpenNamed(const char16_t* pName, std::uint32_t nEventSize, Database* pOpened) {
  const std::string Key = IndexKey(pName);
  auto nPosition = static_cast<std::uint32_t>(m_Index.size());
  const bool bKnown = FindPersistentIndex(m_Index, Key, &nPosition);
  // The name becomes that of a folder. One that has got an id before is taken as long as it leads nowhere else. The
  // index has 7 bits of each character alone; of others the folder tells that it was this name.
  const bool bKept = bKnown && IsPlainFolderName(pName) && (IsAscii(pName) || m_Store.HasFolder(pName));
  if (!bKept && !IsDatabaseName(pName)) return errPARAMETER_INVALID;
  if (!bKnown && IsPersistentIndexFull(m_Index)) return errINDEX_INVALID;
  const std::uint32_t nId = kFirstNamedDatabase + nPosition;
  NamedDatabaseRef Named(FindById(AllNamed(), nId));  // one that a failed clearing has left closed, with its limits
  const bool bListed = Named.Get() != nullptr;
  // Of another name: the index knows both by one key, and their events could not be told apart.
  if (bListed && !Named->Name.Equals(pName)) return errOBJECT_ALREADY_EXISTS;
  // Not in the list yet: this is the one reference, with which the database goes unless it is kept.
  if (!bListed) Named = NamedDatabaseRef(new NamedDatabase(HostText(pName), nId));

  if (!InitEnvironment(Named.Get(), m_Owner.StoreFolder(), pName)) return errOPEN_FAILED;
  ValidateDatabaseId(Named->Environment.PlaceOf(kIdentityFile), nId);
  const ResultCode nCode = InitManager(Named.Get(), nEventSize);
  if (Succeeded(nCode)) {
    const ResultCode nKept = bListed ? errOK : KeepNamed(Named, bKnown ? nullptr : &Key);
    if (Failed(nKept)) return nKept;
    Count(Named.Get());
  }
  LUMBRA_INVARIANT(IsTotalTheSum());
  *pOpened = Database(Named);
  return nCode;
}

// Takes an open named database into the list, and a key that is new into the index: into the file first, so
// that a name which was handed out has its id for ever.
ResultCode Databases::KeepNamed(const NamedDatabaseRef& Named, const std::string* pNewKey) {
  {
    const os::Hold Hold(m_NamedLock);
    m_Named.reserve(m_Named.size() + 1);
  }
  if (pNewKey != nullptr) {
    m_Index.reserve(m_Index.size() + 1);
    std::string Key = *pNewKey;
    const auto nPosition = static_cast<std::uint32_t>(m_Index.size());
    const FilePlace Index = m_Store.PlaceOf(kIndexFile);
    Trace(m_Owner.Handle(), traceRoutine, "lmb\tInitDBByName: trying to save persistent index(%u), to file '%S'",
          nPosition, Index.Path.c_str());
    const ResultCode nCode = SavePersistentIndex(Index, nPosition, Key);
    if (Failed(nCode)) return ToHostResult(nCode);
    m_Index.push_back(std::move(Key));
  }
  const os::Hold Hold(m_NamedLock);
  m_Named.push_back(Named);
  return errOK;
}

void Databases::CloseSystem() {
  m_Slots[kSystemDatabase].Manager.TearDown();
}

void Databases::CloseAll() {
  for (DatabaseSlot& Slot : m_Slots) Slot.Manager.TearDown();
  std::vector<NamedDatabaseRef> Dropped;  // behind the lock
  const os::Hold Hold(m_Lock);
  for (const NamedDatabaseRef& Known : AllNamed()) {
    const SizeTotal::Change Leaving(&m_Total, Known.Get(), SizeTotal::Afterwards::Gone);
  }
  const os::Hold NamedHold(m_NamedLock);
  Dropped.swap(m_Named);
}

// ---- The index of names -----------------------------------------------------------------------------------

bool Databases::OpenStoreFolder(const HostText& Folder) {
  const os::Hold Hold(m_Lock);
  return m_Store.Init(&m_Owner, Folder.Text(), FolderContent::Keep, m_Owner.Settings().bEnvironmentFlag);
}

ResultCode Databases::LoadIndex(bool* pbCorrupted) {
  const os::Hold Hold(m_Lock);
  const FilePlace Index = m_Store.PlaceOf(kIndexFile);
  Trace(m_Owner.Handle(), traceRoutine, "lmb\tObjectInitDone: trying to load persistent indexes, from file '%S'",
        Index.Path.c_str());
  return LoadPersistentIndexes(Index, &m_Index, pbCorrupted);
}

void Databases::SaveMark() {
  if (!m_bMarkUnsaved) return;
  const os::Hold Hold(m_Lock);
  if (m_bMarkUnsaved.exchange(false) && !SaveCorruptedFlag(m_Store.PlaceOf(kIndexFile))) m_bMarkUnsaved = true;
}

// ---- Changes of one database ------------------------------------------------------------------------------

ResultCode Databases::AddTo(DatabaseSlot* pTo, const void* pData, std::uint32_t nSize, std::uint64_t* pnEventId) {
  // Nobody looks at the total without a limit, and one that is set has it counted anew.
  if (m_nGlobalSizeLimit == 0) return pTo->Manager.AddEvent(pData, nSize, pnEventId);
  ResultCode nCode = errOK;
  {
    const SizeTotal::Change Growing(&m_Total, pTo);
    nCode = pTo->Manager.AddEvent(pData, nSize, pnEventId);
  }
  if (pTo->Counts()) EnforceGlobalLimit();
  LUMBRA_INVARIANT(IsTotalTheSum());
  return nCode;
}

ResultCode Databases::ClearOne(const Database& Which) {
  const SizeTotal::Change Shrinking(&m_Total, &Which.Slot());
  return Which.Manager().Clear();
}

// A limit starts and drops segments at once, so the size total changes with it. One of the size takes the database out
// of the total, and its end puts it back: then all are counted anew, where a limit is held against the total.
ResultCode Databases::SetLimit(const Database& Of, LumbraLimit nKind, std::uint64_t nValue) {
  const os::Hold Hold(m_Lock);
  ResultCode nCode = errOK;
  {
    const SizeTotal::Change Limited(&m_Total, &Of.Slot());
    nCode = Of.Manager().SetLimit(nKind, nValue);
  }
  if (nKind == limitDatabaseSize && m_nGlobalSizeLimit != 0) Recount();
  return nCode;
}

// ---- All databases together -------------------------------------------------------------------------------

Databases::Totals Databases::Sum() {
  Totals Found;
  const auto Add = [&Found](SegmentManager& Manager) {
    Found.nRecords += static_cast<std::uint32_t>(Manager.GetTotalEvents());
    Found.nDataSize += Manager.GetTotalSize();
    Found.nGreatestAge = std::max(Found.nGreatestAge, Manager.GetOldestAge());
  };
  for (std::uint32_t nDatabase = 1; nDatabase < kSlots; ++nDatabase) Add(m_Slots[nDatabase].Manager);
  const os::Hold Hold(m_Lock);
  for (const NamedDatabaseRef& Known : AllNamed()) Add(Known->Manager);
  return Found;
}

void Databases::SetGlobalLimit(std::uint64_t nBytes) {
  const os::Hold Hold(m_Lock);
  m_nGlobalSizeLimit = nBytes;
  if (nBytes != 0) Recount();
}

// Brings the total to what the databases hold now: it does not know of a segment that was found to hold less when a
// read opened it.
void Databases::Recount() {
  for (DatabaseSlot& Slot : m_Slots) Count(&Slot);
  for (const NamedDatabaseRef& Known : AllNamed()) Count(Known.Get());
}

void Databases::Count(DatabaseSlot* pSlot) {
  const SizeTotal::Change Counted(&m_Total, pSlot);
}

bool Databases::IsTotalTheSum() const {
  std::uint64_t nSum = 0;
  for (const DatabaseSlot& Slot : m_Slots) nSum += Slot.nCounted;
  for (const NamedDatabaseRef& Known : AllNamed()) nSum += Known->nCounted;
  return nSum == m_Total.Bytes();
}

namespace {

// Looks for the database whose oldest segment has the greatest age, among those that may lose one: those that count in
// the size total and hold more than one segment. Only an age above 0 qualifies; the first of equal ones stays.
class OldestSearch {
 public:
  bool Offer(DatabaseSlot& Slot) {
    if (!Slot.Counts() || Slot.Manager.GetSegmentCount() <= 1) return false;
    const std::uint64_t nAge = Slot.Manager.GetOldestAge();
    if (nAge <= m_nGreatestAge) return false;
    m_nGreatestAge = nAge;
    return true;
  }

 private:
  std::uint64_t m_nGreatestAge = 0;  // seconds
};

}  // namespace

// Behind an event that was added, whose answer does not depend on it. What fails or throws here is done at the next
// add.
void Databases::EnforceGlobalLimit() {
  try {
    CheckLimits();
  } catch (...) {
    TraceFailedStep(ResultFromCurrentException());
  }
}

// Drops one segment at most: a store far over its limit shrinks with each further add. A named database loses one only
// when no numbered one can, however old it is.
void Databases::CheckLimits() {
  if (m_nGlobalSizeLimit == 0 || m_Total.Bytes() < m_nGlobalSizeLimit) return;
  OldestSearch Search;
  DatabaseSlot* pChosen = nullptr;
  for (DatabaseSlot& Slot : m_Slots) {
    if (Search.Offer(Slot)) pChosen = &Slot;
  }
  if (pChosen == nullptr) return CheckLimitsNamed();
  if (!IsOverGlobalLimit()) return;
  Trace(m_Owner.Handle(), traceRoutine, "lmb\tCheckLimits: going to delete a segment (%X,%I64X,%I64X)", pChosen->nId,
        m_Total.Bytes(), m_nGlobalSizeLimit);
  DropOldestSegment(pChosen);
}

void Databases::CheckLimitsNamed() {
  OldestSearch Search;
  NamedDatabaseRef Chosen;
  for (const NamedDatabaseRef& Known : AllNamed()) {
    if (Search.Offer(*Known.Get())) Chosen = Known;
  }
  if (Chosen.Get() == nullptr || !IsOverGlobalLimit()) return;
  Trace(m_Owner.Handle(), traceRoutine, "lmb\tCheckLimitsNamed: going to delete a segment (%X,%I64X,%I64X)",
        Chosen->nId, m_Total.Bytes(), m_nGlobalSizeLimit);
  DropOldestSegment(Chosen.Get());
}

// Looks once more before a segment goes.
bool Databases::IsOverGlobalLimit() {
  Recount();
  return m_Total.Bytes() >= m_nGlobalSizeLimit;
}

void Databases::DropOldestSegment(DatabaseSlot* pSlot) {
  const SizeTotal::Change Shrinking(&m_Total, pSlot);
  (void)pSlot->Manager.DeleteOldestSegment();  // what cannot be done now is done at the next add
}

}  // namespace lumbra
