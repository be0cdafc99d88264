// The component: construction, initialisation, messages and shutdown.
#include <utility>

#include "component/factory.h"
#include "component/lumbra.h"
#include "component/shared_objects.h"
#include "format/file_names.h"
#include "platform/failed_step.h"
#include "platform/result.h"
#include "platform/trace.h"

namespace lumbra {

Lumbra::Lumbra() {
  pLifecycle = &kLifecycle;
  Handle.pOperations = &kOperations;
}

// The members follow in the reverse order of their declaration, the databases first.
Lumbra::~Lumbra() {
  ForgetSharedInstance(this);
}

Lumbra& Lumbra::Of(HostObject* pHandle) {
  auto* const pBytes = reinterpret_cast<std::byte*>(pHandle) - offsetof(LumbraInstance, Handle);
  return Of(reinterpret_cast<LumbraInstance*>(pBytes));
}

os::FolderRules Lumbra::Owner::RulesOfFolders() {
  return {.ForWhom = m_Instance.m_nGroupReadable != 0 ? os::Readers::OwnerAndGroup : os::Readers::OwnerAlone,
          .bOwnFolders = m_Instance.m_nOwnFolders != 0};
}

bool Lumbra::Owner::ExactFileSizes() {
  return binding::ReadProperty(Handle(), propEXACT_FILE_SIZES) != 0;
}

// An instance that does not count as a user of the shared store may not use that of others, which can go at any time.
DatabasesOwner::OpenSettings Lumbra::Owner::Settings() {
  ObjectDB* const pShared = m_Instance.m_bUsesSharedObjects ? SharedObjects::Store() : nullptr;
  return {m_Instance.m_nCheckMode != 0, m_Instance.m_nEnvironmentFlag != 0, pShared};
}

// ---- Texts from the host ----------------------------------------------------------------------------------

// The value that the host's handlers give for a placeholder; the placeholder itself when none knows it.
// *pnSent is 1 when one did.
HostText Lumbra::Expand(const char16_t* pPlaceholder, ResultCode* pnSent) {
  const binding::StringObject Value(binding::Root(), pPlaceholder);
  *pnSent = binding::Send(&Handle, kExpandMessageClass, kExpandMessageId, Value.Get());
  HostText Expanded;
  Expanded.Append(Value);
  return Expanded;
}

HostText Lumbra::ReportFolder() {
  HostText Folder;
  {
    const os::Hold Hold(m_FolderLock);
    Folder = m_ReportFolder.Copy();
  }
  ResultCode nIgnored = errOK;
  if (Folder.Empty()) Folder = Expand(u"%Report%", &nIgnored);
  Folder.EnsureTrailingSeparator();
  return Folder;
}

void Lumbra::ReadCheckMode() {
  if (m_nCheckMode == 0) {
    ResultCode nSent = errOK;
    const HostText Value = Expand(u"%LumbraCheckData%", &nSent);
    if (nSent == kMessageExpanded && Value.Equals(u"1")) m_nCheckMode = 1;
  }
  if (m_nCheckMode != 0) Trace(&Handle, traceNotable, "lmb\t Lumbra check mode on");
}

// ---- Initialisation ---------------------------------------------------------------------------------------

// One attempt to initialise: unless it is kept, everything that it took is given back when it ends.
class InitAttempt {
 public:
  explicit InitAttempt(Lumbra* pInstance) : m_pInstance(pInstance) {}
  ~InitAttempt() {
    if (m_pInstance != nullptr) m_pInstance->GiveBack();
  }
  InitAttempt(const InitAttempt&) = delete;
  InitAttempt& operator=(const InitAttempt&) = delete;

  void Keep() { m_pInstance = nullptr; }

 private:
  Lumbra* m_pInstance;
};

ResultCode Lumbra::ObjectInitDone() {
  if (m_bInitialized) {
    Trace(&Handle, traceNotable, "lmb\tObjectInitDone: Lumbra already initialized");
    return errOK;
  }
  InitAttempt Attempt(this);
  if (Failed(binding::RegisterFlushHandler(&Handle))) return errOPEN_FAILED;
  m_bHandlerRegistered = true;
  if (Failed(m_Lock.Create())) return errOPEN_FAILED;
  const ResultCode nCode = OpenStore();
  if (Failed(nCode)) return nCode;
  m_bInitialized = true;
  Attempt.Keep();
  return nCode;
}

ResultCode Lumbra::OpenStore() {
  HostText Folder = ReportFolder();
  if (Folder.Empty()) return errOPEN_FAILED;  // rather than the current folder of the process
  ReadCheckMode();
  OpenSegments::SetLimit(m_nOpenSegments);
  BlockBudget::SetLimit(std::uint64_t{m_nCacheSize} * 1024);
  if (!m_Databases.OpenStoreFolder(Folder)) return errOPEN_FAILED;

  const ResultCode nShared = m_Databases.InStoreFolder([&](const StorageEnvironment& Store) {
    return SharedObjects::AddUser(Store, m_nCheckMode != 0, m_nEnvironmentFlag != 0);
  });
  if (Failed(nShared)) return errOPEN_FAILED;
  m_bUsesSharedObjects = true;

  Database System;
  const ResultCode nOpened = m_Databases.OpenSystem(std::move(Folder), &System);
  if (!System.IsOpen()) return nOpened;

  RegisterWellKnownObjects();
  if (Succeeded(nOpened)) {
    const ResultCode nCode = LoadIndexAndCheck(System);
    if (Failed(nCode)) return nCode;
  }
  RegisterHostName();
  return nOpened;
}

void Lumbra::RegisterWellKnownObjects() {
  m_nHostObjectId = kNoHostObject;
  for (const char16_t* const pName : {u"System", u"QOR"}) {
    // A failure is traced, and costs nothing: they are found or created again at the next start.
    (void)FindObject(kSystemDatabase, typeFile, pName, kZeroTerminated, findOrCreate, 0, 0, nullptr);
  }
}

ResultCode Lumbra::LoadIndexAndCheck(const Database& System) {
  bool bCorrupted = false;
  if (Failed(m_Databases.LoadIndex(&bCorrupted))) return errOPEN_FAILED;
  if (!bCorrupted) bCorrupted = System.Manager().Check(StoreChoice::Global) == errDATA_CORRUPTED;
  // Damage that was met on the way here waits to be marked in the file.
  m_nCorrupted = bCorrupted || m_Databases.IsMarkUnsaved() ? 1 : 0;
  return errOK;
}

void Lumbra::RegisterHostName() {
  // Here the string object itself is what the message is sent about.
  const binding::StringObject Name(&Handle, u"%host%");
  if (binding::Send(Name.Get(), kExpandMessageClass, kExpandMessageId, nullptr) != kMessageExpanded) return;
  HostText Expanded;
  Expanded.Append(Name);
  std::uint64_t nHostObjectId = kNoHostObject;
  const ResultCode nCode =
      FindObject(kSystemDatabase, typeFile, Expanded.Text(), kZeroTerminated, findOrCreate, 0, 0, &nHostObjectId);
  if (Succeeded(nCode)) m_nHostObjectId = nHostObjectId;
}

void Lumbra::GiveBack() {
  m_Databases.CloseSystem();
  m_Databases.NeedMark(false);  // the next attempt may be in another folder
  if (std::exchange(m_bUsesSharedObjects, false)) SharedObjects::RemoveUser();
  UnregisterHandler();
}

// A host that does not let go of the handler has no instance for it any more; there is nothing else to do here.
void Lumbra::UnregisterHandler() {
  if (std::exchange(m_bHandlerRegistered, false)) (void)binding::UnregisterFlushHandler(&Handle);
}

// ---- Messages and shutdown --------------------------------------------------------------------------------

ResultCode Lumbra::MessageReceive(std::uint32_t nClass, std::uint32_t nMessageId) {
  if (nClass != kFlushMessageClass || nMessageId != kFlushMessageId) return errOK;
  try {
    Flush();
  } catch (...) {
    TraceFailedStep(ResultFromCurrentException());  // the line from which the host sees that not all is on the disk
  }
  return errOK;
}

// Without the main lock, since a flush waits for the disk. An add to the database that is being flushed holds that lock
// while it waits for the database, and adds to all others then wait as well.
void Lumbra::Flush() {
  const SharedHold Hold(m_Lock);
  // What fails is traced; a slot that is not open has nothing to flush. The shared store comes once, under no
  // database's lock, and last: so none of the events that are on the disk by then names an object that is not.
  m_Databases.ForEach([](SegmentManager& Manager) { (void)Manager.Flush(Segment::Flushing::OwnFiles); });
  if (m_bInitialized && m_bUsesSharedObjects) (void)SharedObjects::Store()->Flush();
  m_Databases.SaveMark();
}

ResultCode Lumbra::ObjectShutdown() {
  ForgetSharedInstance(this);
  m_Databases.SaveMark();
  UnregisterHandler();
  if (std::exchange(m_bUsesSharedObjects, false)) SharedObjects::RemoveUser();
  m_Databases.CloseAll();
  return errOK;
}

}  // namespace lumbra
