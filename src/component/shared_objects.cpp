#include "component/shared_objects.h"

#include <cstddef>
#include <memory>
#include <new>

#include "component/host_binding.h"
#include "format/file_names.h"
#include "platform/failed_step.h"
#include "platform/os.h"
#include "platform/result.h"

namespace lumbra {
namespace {

// The environment outlives the instance that opened it, and sums no file sizes.
class NoOwner final : public StorageOwner {
 public:
  bool ExactFileSizes() override { return false; }
};

struct SharedStore {
  os::CriticalSection Lock;  // an instance that comes second waits until the first has opened the store
  std::uint32_t nUsers GUARDED_BY(Lock) = 0;
  NoOwner Owner;
  std::unique_ptr<StorageEnvironment> pEnvironment GUARDED_BY(Lock);
  std::unique_ptr<ObjectDB> pStore GUARDED_BY(Lock);

  ResultCode Open(const StorageEnvironment& Folder, bool bCheckMode, bool bEnvironmentFlag) REQUIRES(Lock);
  void Close() REQUIRES(Lock);
};

// Never destroyed: instances may be among the last to go. Without users it has no memory.
SharedStore& Shared() {
  alignas(SharedStore) static std::byte s_Storage[sizeof(SharedStore)];
  static SharedStore* const s_pInstance = new (s_Storage) SharedStore;
  return *s_pInstance;
}

ResultCode SharedStore::Open(const StorageEnvironment& Folder, bool bCheckMode, bool bEnvironmentFlag) {
  pEnvironment = std::make_unique<StorageEnvironment>();
  if (!pEnvironment->InitAt(&Owner, Folder, bEnvironmentFlag)) return errOPEN_FAILED;
  pStore = std::make_unique<ObjectDB>(bCheckMode);
  ObjectFiles Files;
  // A file that cannot be opened is handed on as absent: the store refuses it, whatever the reason.
  (void)pEnvironment->OpenFile(kSharedTreeFile, 0, true, true, &Files.pTree);
  (void)pEnvironment->OpenFile(kSharedIdsFile, 0, true, true, &Files.pIds);
  (void)pEnvironment->OpenFile(kSharedDataFile, 0, true, true, &Files.pData);
  std::uint64_t nRecorded = 1;
  const bool bNew = Files.pIds != nullptr && Files.pIds->GetSize(&nRecorded) && nRecorded == 0;
  if (Failed(pStore->Open(0, Files, TreeHead::Large))) return errOPEN_FAILED;
  // The heads of a new store are on the disk before its first name: a power cut leaves no names whose records have lost
  // theirs, which could not be told from a store that has lost all its records.
  if (bNew) (void)pStore->Flush();  // answers errOK always
  // At once, and not only when the first instance has created its well-known objects: those would be the newest, known
  // to the tree, and the quick check would not miss the others. A refill that fails is no reason not to start: the
  // store tries it again before it takes a name for missing.
  const ResultCode nRefilled = pStore->RefillEmptyTree();
  if (Failed(nRefilled)) TraceFailedStep(nRefilled);
  return errOK;
}

void SharedStore::Close() {
  pStore.reset();
  pEnvironment.reset();
}

}  // namespace

ResultCode SharedObjects::AddUser(const StorageEnvironment& Folder, bool bCheckMode, bool bEnvironmentFlag) {
  SharedStore& Now = Shared();
  const os::Hold Hold(Now.Lock);
  if (binding::AtomicIncrement(&Now.nUsers) != 1) return errOK;
  ResultCode nCode = errOK;
  try {
    nCode = Now.Open(Folder, bCheckMode, bEnvironmentFlag);
  } catch (...) {
    nCode = ResultFromCurrentException();
  }
  if (Succeeded(nCode)) return errOK;
  Now.Close();
  binding::AtomicDecrement(&Now.nUsers);
  return errOPEN_FAILED;
}

void SharedObjects::RemoveUser() {
  SharedStore& Now = Shared();
  const os::Hold Hold(Now.Lock);
  if (binding::AtomicDecrement(&Now.nUsers) == 0) Now.Close();
}

ObjectDB* SharedObjects::Store() {
  SharedStore& Now = Shared();
  const os::Hold Hold(Now.Lock);
  return Now.pStore.get();
}

StorageEnvironment* SharedObjects::Environment() {
  SharedStore& Now = Shared();
  const os::Hold Hold(Now.Lock);
  return Now.pEnvironment.get();
}

}  // namespace lumbra
