// The component: construction, initialisation, messages and shutdown.
#include <mutex>
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

// The members follow in the reverse order of their declaration: named databases, locks, slots.
Lumbra::~Lumbra() {
  ForgetSharedInstance(this);
}

Lumbra& Lumbra::Of(HostObject* pHandle) {
  auto* const pBytes = reinterpret_cast<std::byte*>(pHandle) - offsetof(LumbraInstance, Handle);
  return Of(reinterpret_cast<LumbraInstance*>(pBytes));
}

bool Lumbra::Owner::ExactFileSizes() {
  return binding::ReadProperty(m_pHandle, propEXACT_FILE_SIZES) != 0;
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
  ResultCode nIgnored = errOK;
  HostText Folder = m_ReportFolder.Empty() ? Expand(u"%Report%", &nIgnored) : m_ReportFolder.Copy();
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
  HostText IndexPath = Folder.Copy();
  IndexPath.Join(kIndexFile);
  m_IndexPath = IndexPath.View();
  ReadCheckMode();

  const ResultCode nShared = SharedObjects::AddUser(Folder.Text(), m_nCheckMode != 0, m_nEnvironmentFlag != 0);
  if (Failed(nShared)) return errOPEN_FAILED;
  m_bUsesSharedObjects = true;

  Folder.Append(NumberedFolder(kSystemDatabase));
  Folder.EnsureTrailingSeparator();
  DatabaseSlot& System = m_Slots[kSystemDatabase];
  if (!InitEnvironment(&System.Environment, Folder)) return errOPEN_FAILED;
  constexpr std::uint32_t kSystemEventSize = 1;  // the system database has objects alone
  const ResultCode nOpened = InitManager(&System.Manager, &System.Environment, kSystemEventSize);

  RegisterWellKnownObjects();
  if (Succeeded(nOpened)) {
    const ResultCode nCode = LoadIndexAndCheck();
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

ResultCode Lumbra::LoadIndexAndCheck() {
  Trace(&Handle, traceRoutine, "lmb\tObjectInitDone: trying to load persistent indexes, from file '%S'",
        m_IndexPath.c_str());
  bool bCorrupted = false;
  if (Failed(LoadPersistentIndexes(m_IndexPath, &m_Index, &bCorrupted))) return errOPEN_FAILED;
  if (!bCorrupted) {
    bCorrupted = m_Slots[kSystemDatabase].Manager.Check(StoreChoice::Global) == errDATA_CORRUPTED;
  }
  // Damage that was met on the way here waits to be marked in the file.
  m_nCorrupted = bCorrupted || m_bMarkUnsaved ? 1 : 0;
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
  m_Slots[kSystemDatabase].Manager.TearDown();
  m_bMarkUnsaved = false;  // the next attempt may be in another folder
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

void Lumbra::Flush() {
  const SharedHold Hold(m_Lock);
  // What fails is traced; a slot that is not open has nothing to flush.
  for (DatabaseSlot& Slot : m_Slots) (void)Slot.Manager.Flush();
  // One at a time, and without the main lock: a flush waits for the disk, and adds to other databases need not wait
  // with it.
  for (std::size_t i = 0;; ++i) {
    const NamedDatabaseRef Named = NamedAt(i);
    if (Named.Get() == nullptr) break;
    (void)Named->Manager.Flush();
  }
  SaveMark();
}

ResultCode Lumbra::ObjectShutdown() {
  ForgetSharedInstance(this);
  SaveMark();
  UnregisterHandler();
  if (std::exchange(m_bUsesSharedObjects, false)) SharedObjects::RemoveUser();
  for (DatabaseSlot& Slot : m_Slots) Slot.Manager.TearDown();
  std::vector<NamedDatabaseRef> Dropped;
  {
    const std::lock_guard Hold(m_MainLock);
    Dropped.swap(m_NamedDatabases);
  }
  return errOK;
}

}  // namespace lumbra
