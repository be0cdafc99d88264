// The component: opening, limiting, describing and clearing databases, and the limit on all of them together.
//
// The size total is the sum of the data sizes of the open databases 1 to 254 that have no size limit of their
// own. It is kept by taking a database's size out before a change and putting it back after.
#include <algorithm>
#include <mutex>

#include "component/lumbra.h"
#include "component/shared_objects.h"
#include "format/file_names.h"
#include "platform/failed_step.h"
#include "platform/result.h"
#include "platform/trace.h"

namespace lumbra {
namespace {

constexpr std::size_t kMaxNameLength = 63;

bool CountsInTotal(const SegmentManager& Manager) {
  return Manager.GetDbMaxSize() == 0;
}

// Sets one of the limits that do not decide whether the database counts in the size total.
ResultCode SetLimit(SegmentManager& Manager, std::uint32_t nKind, std::uint64_t nValue) {
  switch (nKind) {
    case limitDatabaseAge:
      Manager.SetDbMaxAge(nValue);
      return errOK;
    case limitDatabaseEvents:
      Manager.SetDbMaxEvents(nValue);
      return errOK;
    case limitSegmentSize:
      Manager.SetSegmentMaxSize(nValue);
      return errOK;
    case limitSegmentAge:
      Manager.SetSegmentMaxAge(nValue);
      return errOK;
    case limitSegmentEvents:
      Manager.SetSegmentMaxEvents(nValue);
      return errOK;
    default:
      return errNOT_SUPPORTED;
  }
}

}  // namespace

// ---- Which database ---------------------------------------------------------------------------------------

Lumbra::Database Lumbra::FindDatabase(std::uint32_t nDatabase) {
  if (nDatabase < kFirstNamedDatabase) return Database(&m_Slots[nDatabase].Manager);
  return Database(FindNamed(nDatabase));
}

NamedDatabaseRef Lumbra::FindNamed(std::uint32_t nDatabase) {
  const std::lock_guard Hold(m_MainLock);
  for (const NamedDatabaseRef& Named : m_NamedDatabases) {
    if (Named->nId == nDatabase) return Named;
  }
  return {};
}

NamedDatabaseRef Lumbra::FindNamed(const char16_t* pName) {
  const std::lock_guard Hold(m_MainLock);
  for (const NamedDatabaseRef& Named : m_NamedDatabases) {
    if (Named->Name.Equals(pName)) return Named;
  }
  return {};
}

NamedDatabaseRef Lumbra::NamedAt(std::size_t nPosition) {
  const std::lock_guard Hold(m_MainLock);
  return nPosition < m_NamedDatabases.size() ? m_NamedDatabases[nPosition] : NamedDatabaseRef();
}

// ---- The size total ---------------------------------------------------------------------------------------

Lumbra::SizeChange::SizeChange(std::uint64_t* pnTotal, SegmentManager& Manager)
    : m_pnTotal(CountsInTotal(Manager) ? pnTotal : nullptr), m_Manager(Manager) {
  if (m_pnTotal != nullptr) *m_pnTotal -= m_Manager.GetTotalSize();
}

Lumbra::SizeChange::~SizeChange() {
  if (m_pnTotal != nullptr) *m_pnTotal += m_Manager.GetTotalSize();
}

// ---- Opening ----------------------------------------------------------------------------------------------

HostText Lumbra::DatabaseFolder(std::u16string_view Name) {
  HostText Folder = ReportFolder();
  if (Folder.Empty()) return Folder;  // nowhere, rather than in the current folder of the process
  Folder.Append(Name);
  Folder.EnsureTrailingSeparator();
  return Folder;
}

bool Lumbra::InitEnvironment(StorageEnvironment* pEnvironment, const HostText& Folder) {
  return pEnvironment->Init(&m_Owner, Folder.Text(), FolderContent::Keep, m_nEnvironmentFlag != 0);
}

ResultCode Lumbra::InitManager(SegmentManager* pManager, StorageEnvironment* pEnvironment, std::uint32_t nEventSize) {
  // An instance that does not count as a user of the shared store may not use that of others, which can go at any time.
  ObjectDB* const pShared = m_bUsesSharedObjects ? SharedObjects::Store() : nullptr;
  return pManager->Init(pEnvironment, nEventSize, pShared, m_nCheckMode != 0);
}

ResultCode Lumbra::InitDB(std::uint32_t nDatabase, std::uint32_t nEventSize) {
  if (nDatabase >= kFirstNamedDatabase) return errPARAMETER_INVALID;
  const SharedHold Hold(m_Lock);
  if (m_nWritesSuspended != 0) return errREAD_ONLY;
  const std::lock_guard MainHold(m_MainLock);
  DatabaseSlot& Slot = m_Slots[nDatabase];
  ResultCode nCode = errALREADY_DONE;
  // The environment of an open database is in use: it is left as it is.
  if (!Slot.Manager.IsInitialized()) {
    const HostText Folder = DatabaseFolder(NumberedFolder(nDatabase));
    if (!InitEnvironment(&Slot.Environment, Folder)) return errOPEN_FAILED;
    nCode = InitManager(&Slot.Manager, &Slot.Environment, nEventSize);
  }
  const bool bCounts = nDatabase != kSystemDatabase && CountsInTotal(Slot.Manager);
  if (Succeeded(nCode) && bCounts) m_nSizeTotal += Slot.Manager.GetTotalSize();
  Trace(&Handle, traceRoutine, "lmb\tLumbra::InitDB(%X, %d) = %terr, events/size/time: %u/%I64u/%I64u", nDatabase,
        nEventSize, nCode, static_cast<std::uint32_t>(Slot.Manager.GetTotalEvents()), Slot.Manager.GetTotalSize(),
        Slot.Manager.GetOldestCreationTime());
  return nCode;
}

ResultCode Lumbra::InitDBByName(const char16_t* pName, std::uint32_t nEventSize, std::uint32_t* pnDatabase) {
  Trace(&Handle, traceRoutine, "lmb\tLumbra::InitDBByName method: name = %ws", pName);
  if (pName == nullptr || pName[0] == 0 || pnDatabase == nullptr) return errPARAMETER_INVALID;
  if (std::char_traits<char16_t>::find(pName, kMaxNameLength + 1, u'\0') == nullptr) return errPARAMETER_INVALID;
  const SharedHold Hold(m_Lock);
  if (m_nWritesSuspended != 0) return errREAD_ONLY;
  const std::lock_guard MainHold(m_MainLock);
  if (const NamedDatabaseRef Open = FindNamed(pName); Open.Get() != nullptr && Open->Manager.IsInitialized()) {
    *pnDatabase = Open->nId;
    Trace(&Handle, traceRoutine, "lmb\tLumbra::InitDBByName method: db already initialized, dbId = %d", Open->nId);
    return errOK;
  }
  return OpenNamed(pName, nEventSize, pnDatabase);
}

ResultCode Lumbra::OpenNamed(const char16_t* pName, std::uint32_t nEventSize, std::uint32_t* pnDatabase) {
  const std::string Key = IndexKey(pName);
  auto nPosition = static_cast<std::uint32_t>(m_Index.size());
  const bool bKnown = FindPersistentIndex(m_Index, Key, &nPosition);
  if (!bKnown && IsPersistentIndexFull(m_Index)) return errINDEX_INVALID;
  const std::uint32_t nId = kFirstNamedDatabase + nPosition;
  NamedDatabaseRef Named = FindNamed(nId);  // one that a failed clearing has left closed, with the limits it has
  const bool bListed = Named.Get() != nullptr;
  // Of another name: the index knows both by one key, and their events could not be told apart.
  if (bListed && !Named->Name.Equals(pName)) return errOBJECT_ALREADY_EXISTS;
  // Not in the list yet: this is the one reference, with which the database goes unless it is kept.
  if (!bListed) Named = NamedDatabaseRef(new NamedDatabase(HostText(pName), nId));

  const HostText Folder = DatabaseFolder(pName);
  if (!InitEnvironment(&Named->Environment, Folder)) return errOPEN_FAILED;
  ValidateDatabaseId(Folder.View(), kIdentityFile, nId);
  SegmentManager& Manager = Named->Manager;
  const ResultCode nCode = InitManager(&Manager, &Named->Environment, nEventSize);
  if (Succeeded(nCode)) {
    const ResultCode nKept = bListed ? errOK : KeepNamed(Named, bKnown ? nullptr : &Key);
    if (Failed(nKept)) return nKept;
    if (CountsInTotal(Manager)) m_nSizeTotal += Manager.GetTotalSize();
  }
  *pnDatabase = nId;
  Trace(&Handle, traceRoutine, "lmb\tLumbra::InitDBByName(%u, %X) = %terr, events/size/time: %u/%I64u/%I64u",
        nEventSize, nId, nCode, static_cast<std::uint32_t>(Manager.GetTotalEvents()), Manager.GetTotalSize(),
        Manager.GetOldestCreationTime());
  return nCode;
}

// Takes an open named database into the list, and a key that is new into the index: into the file first, so
// that a name which was handed out has its id for ever.
ResultCode Lumbra::KeepNamed(const NamedDatabaseRef& Named, const std::string* pNewKey) {
  m_NamedDatabases.reserve(m_NamedDatabases.size() + 1);
  if (pNewKey != nullptr) {
    m_Index.reserve(m_Index.size() + 1);
    std::string Key = *pNewKey;
    const auto nPosition = static_cast<std::uint32_t>(m_Index.size());
    Trace(&Handle, traceRoutine, "lmb\tInitDBByName: trying to save persistent index(%u), to file '%S'", nPosition,
          m_IndexPath.c_str());
    const ResultCode nCode = SavePersistentIndex(m_IndexPath, nPosition, Key);
    if (Failed(nCode)) return ToHostResult(nCode);
    m_Index.push_back(std::move(Key));
  }
  m_NamedDatabases.push_back(Named);
  return errOK;
}

// ---- Limits -----------------------------------------------------------------------------------------------

// Runs an operation on the databases 1 to 47, and then on the named ones from 48 on up to the first that is
// not open. Answers the failure of the last database that failed.
template <class Operation>
ResultCode Lumbra::OnEveryDatabase(Operation Do) {
  ResultCode nAnswer = errOK;
  for (std::uint32_t nDatabase = 1; nDatabase <= kLastNamedDatabase; ++nDatabase) {
    const ResultCode nCode = Do(nDatabase);
    const bool bMissing = nDatabase >= kFirstNamedDatabase && nCode == errPARAMETER_INVALID;
    if (bMissing) break;
    if (Failed(nCode)) nAnswer = nCode;
  }
  return nAnswer;
}

ResultCode Lumbra::SetDBParams(std::uint32_t nDatabase, std::uint32_t nKind, std::uint64_t nValue) {
  const SharedHold Hold(m_Lock);
  if (m_nWritesSuspended != 0) return errREAD_ONLY;
  if (nDatabase != kAllDatabases) return SetOneDBParam(nDatabase, nKind, nValue);
  Trace(&Handle, traceRoutine, "lmb\tLumbra::SetDBParams(%X, %u, %I64u)", nDatabase, nKind, nValue);
  if (nKind == limitGlobalSize) {
    const std::lock_guard MainHold(m_MainLock);
    m_nGlobalSizeLimit = nValue;
    RecomputeSizeTotal();
    return errOK;
  }
  return OnEveryDatabase([&](std::uint32_t nOne) { return SetOneDBParam(nOne, nKind, nValue); });
}

ResultCode Lumbra::SetOneDBParam(std::uint32_t nDatabase, std::uint32_t nKind, std::uint64_t nValue) {
  Trace(&Handle, traceRoutine, "lmb\tLumbra::SetDBParams(%X, %u, %I64u)", nDatabase, nKind, nValue);
  const Database Found = FindDatabase(nDatabase);
  if (!Found.IsOpen()) return errPARAMETER_INVALID;
  SegmentManager& Manager = Found.Manager();
  const std::lock_guard Hold(m_MainLock);
  if (nKind == limitDatabaseSize) {
    Manager.SetDbMaxSize(nValue);
    RecomputeSizeTotal();
    return errOK;
  }
  if (nDatabase == kSystemDatabase) return SetLimit(Manager, nKind, nValue);
  // A limit starts and drops segments at once, so the size total changes with it.
  const SizeChange Change(&m_nSizeTotal, Manager);
  return SetLimit(Manager, nKind, nValue);
}

void Lumbra::RecomputeSizeTotal() {
  const std::lock_guard Hold(m_MainLock);
  if (m_nGlobalSizeLimit == 0) return;
  m_nSizeTotal = 0;
  const auto Add = [this](SegmentManager& Manager) {
    if (CountsInTotal(Manager)) m_nSizeTotal += Manager.GetTotalSize();
  };
  for (std::uint32_t nDatabase = 1; nDatabase < kSlots; ++nDatabase) Add(m_Slots[nDatabase].Manager);
  for (const NamedDatabaseRef& Named : m_NamedDatabases) Add(Named->Manager);
}

namespace {

// Looks for the database whose oldest segment is the oldest of all, among those that may lose one: those that
// count in the size total and hold more than one segment. Only an age above 0 qualifies; the first of equal
// ones stays.
class OldestSearch {
 public:
  bool Offer(SegmentManager& Manager) {
    if (!CountsInTotal(Manager) || Manager.GetSegmentCount() <= 1) return false;
    const std::uint64_t nAge = Manager.GetOldestAge();
    if (nAge <= m_nGreatestAge) return false;
    m_nGreatestAge = nAge;
    return true;
  }

 private:
  std::uint64_t m_nGreatestAge = 0;  // seconds
};

}  // namespace

// Called with the main lock held. Drops one segment at most: a store far over its limit shrinks with each
// further add.
ResultCode Lumbra::CheckLimits() {
  if (m_nGlobalSizeLimit == 0 || m_nSizeTotal < m_nGlobalSizeLimit) return errOK;
  OldestSearch Search;
  std::uint32_t nChosen = 0;
  for (std::uint32_t nDatabase = 1; nDatabase < kSlots; ++nDatabase) {
    if (Search.Offer(m_Slots[nDatabase].Manager)) nChosen = nDatabase;
  }
  if (nChosen == 0) return CheckLimitsNamed();
  if (!IsOverGlobalLimit()) return errOK;
  Trace(&Handle, traceRoutine, "lmb\tCheckLimits: going to delete a segment (%X,%I64X,%I64X)", nChosen, m_nSizeTotal,
        m_nGlobalSizeLimit);
  return DropOldestSegment(m_Slots[nChosen].Manager);
}

// Looks once more before a segment goes: the total does not know of a segment that was found to hold less when a read
// opened it.
bool Lumbra::IsOverGlobalLimit() {
  RecomputeSizeTotal();
  return m_nSizeTotal >= m_nGlobalSizeLimit;
}

ResultCode Lumbra::CheckLimitsNamed() {
  const std::lock_guard Hold(m_MainLock);
  OldestSearch Search;
  NamedDatabaseRef Chosen;
  for (const NamedDatabaseRef& Named : m_NamedDatabases) {
    if (Search.Offer(Named->Manager)) Chosen = Named;
  }
  if (Chosen.Get() == nullptr) return errUNSPECIFIED;
  if (!IsOverGlobalLimit()) return errOK;
  Trace(&Handle, traceRoutine, "lmb\tCheckLimitsNamed: going to delete a segment (%X,%I64X,%I64X)", Chosen->nId,
        m_nSizeTotal, m_nGlobalSizeLimit);
  return DropOldestSegment(Chosen->Manager);
}

ResultCode Lumbra::DropOldestSegment(SegmentManager& Manager) {
  const SizeChange Change(&m_nSizeTotal, Manager);
  return Manager.DeleteOldestSegment();
}

// Behind an event that was added, whose answer does not depend on it. What fails or throws here is done at the next
// add.
void Lumbra::EnforceGlobalLimit() {
  try {
    (void)CheckLimits();
  } catch (...) {
    TraceFailedStep(ResultFromCurrentException());
  }
}

// ---- Information and clearing -----------------------------------------------------------------------------

ResultCode Lumbra::GetDBInfo(std::uint32_t nDatabase, std::uint32_t* pnRecords, std::uint64_t* pnDataSize,
                             std::uint64_t* pnTime) {
  Trace(&Handle, traceRoutine, "lmb\tLumbra::GetDBInfo method: db = %u", nDatabase);
  const SharedHold Hold(m_Lock);
  std::uint32_t nRecords = 0;
  std::uint64_t nDataSize = 0;
  std::uint64_t nTime = 0;
  if (nDatabase == kAllDatabases) {
    GetTotals(&nRecords, &nDataSize, &nTime);
  } else {
    const Database Found = FindDatabase(nDatabase);
    if (!Found.IsOpen()) {
      Trace(&Handle, traceRoutine,
            "lmb\tLumbra::GetDBInfo method: this is invalid named db, return errPARAMETER_INVALID");
      return errPARAMETER_INVALID;
    }
    nRecords = static_cast<std::uint32_t>(Found.Manager().GetTotalEvents());
    nDataSize = Found.Manager().GetTotalSize();
    nTime = Found.Manager().GetOldestCreationTime();
    Trace(&Handle, traceRoutine, "lmb\tLumbra::GetDBInfo method: records = %u, datasize = %I64u, timestamp = %I64u",
          nRecords, nDataSize, nTime);
  }
  if (pnRecords != nullptr) *pnRecords = nRecords;
  if (pnDataSize != nullptr) *pnDataSize = nDataSize;
  if (pnTime != nullptr) *pnTime = nTime;
  return errOK;
}

// Sums, and the greatest age in seconds.
void Lumbra::GetTotals(std::uint32_t* pnRecords, std::uint64_t* pnDataSize, std::uint64_t* pnTime) {
  const auto Add = [&](SegmentManager& Manager) {
    *pnRecords += static_cast<std::uint32_t>(Manager.GetTotalEvents());
    *pnDataSize += Manager.GetTotalSize();
    *pnTime = std::max(*pnTime, Manager.GetOldestAge());
  };
  for (std::uint32_t nDatabase = 1; nDatabase < kSlots; ++nDatabase) Add(m_Slots[nDatabase].Manager);
  const std::lock_guard Hold(m_MainLock);
  for (const NamedDatabaseRef& Named : m_NamedDatabases) Add(Named->Manager);
}

ResultCode Lumbra::ClearDB(std::uint32_t nDatabase) {
  const SharedHold Hold(m_Lock);
  if (m_nWritesSuspended != 0) return errREAD_ONLY;
  if (nDatabase == kSystemDatabase) return errPARAMETER_INVALID;
  if (nDatabase == kAllDatabases) return OnEveryDatabase([this](std::uint32_t nOne) { return ClearOneDB(nOne); });
  return ClearOneDB(nDatabase);
}

ResultCode Lumbra::ClearOneDB(std::uint32_t nDatabase) {
  const Database Found = FindDatabase(nDatabase);
  if (!Found.IsOpen()) return errPARAMETER_INVALID;
  SegmentManager& Manager = Found.Manager();
  const std::lock_guard Hold(m_MainLock);
  ResultCode nCode = errOK;
  {
    const SizeChange Change(&m_nSizeTotal, Manager);
    nCode = Manager.Clear();
  }
  Trace(&Handle, traceRoutine, "lmb\tLumbra::ClearDB(%X) = %terr", nDatabase, nCode);
  return nCode;
}

}  // namespace lumbra
