#include "component/factory.h"

#include <cstring>
#include <new>

#include "component/host_binding.h"
#include "component/lumbra.h"
#include "platform/os.h"

namespace lumbra {
namespace {

// The pointer to the shared instance. Its lock is taken alone.
struct SharedPointer {
  os::CriticalSection Lock;
  Lumbra* pInstance GUARDED_BY(Lock) = nullptr;
};

SharedPointer& Shared() {
  static SharedPointer Pointer;
  return Pointer;
}

Lumbra* MakeInstance(HostObject* pRequester) {
  static_assert(alignof(Lumbra) <= 8, "a host's memory bears no more");
  void* const pMemory = binding::Allocate(pRequester, sizeof(Lumbra));
  if (pMemory == nullptr) return nullptr;
  std::memset(pMemory, 0, sizeof(Lumbra));
  return new (pMemory) Lumbra;
}

Lumbra* SharedInstance(HostObject* pRequester) {
  SharedPointer& Pointer = Shared();
  Lumbra* pShared = nullptr;
  {
    const os::Hold Hold(Pointer.Lock);
    if (Pointer.pInstance == nullptr) Pointer.pInstance = MakeInstance(pRequester);
    pShared = Pointer.pInstance;
  }
  if (pShared != nullptr) binding::ReferenceShared(&pShared->Handle);
  return pShared;
}

Lumbra* NewSharedInstance(HostObject* pRequester) {
  Lumbra* const pNew = MakeInstance(pRequester);
  if (pNew == nullptr) return nullptr;
  SharedPointer& Pointer = Shared();
  const os::Hold Hold(Pointer.Lock);
  Pointer.pInstance = pNew;
  return pNew;
}

}  // namespace

void* LumbraFactory(std::uint32_t /*nIgnored*/, HostObject* pRequester, std::uint32_t nInterfaceId) {
  Lumbra* pInstance = nullptr;
  switch (nInterfaceId) {
    case kSharedInstance:
      pInstance = SharedInstance(pRequester);
      break;
    case kSeparateInstance:
      pInstance = MakeInstance(pRequester);
      break;
    case kNewSharedInstance:
      pInstance = NewSharedInstance(pRequester);
      break;
    default:
      break;
  }
  return static_cast<LumbraInstance*>(pInstance);
}

void ForgetSharedInstance(const LumbraInstance* pInstance) {
  SharedPointer& Pointer = Shared();
  const os::Hold Hold(Pointer.Lock);
  if (Pointer.pInstance == pInstance) Pointer.pInstance = nullptr;
}

}  // namespace lumbra
