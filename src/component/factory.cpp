#include "component/factory.h"

#include <cstring>
#include <mutex>
#include <new>

#include "component/host_binding.h"
#include "component/lumbra.h"
#include "platform/os.h"

namespace lumbra {
namespace {

// Guards the pointer to the shared instance, and nothing else; taken alone.
os::CriticalSection& GlobalLock() {
  static os::CriticalSection Lock;
  return Lock;
}
Lumbra* g_pShared = nullptr;

Lumbra* MakeInstance(HostObject* pRequester) {
  static_assert(alignof(Lumbra) <= 8, "a host's memory bears no more");
  void* const pMemory = binding::Allocate(pRequester, sizeof(Lumbra));
  if (pMemory == nullptr) return nullptr;
  std::memset(pMemory, 0, sizeof(Lumbra));
  return new (pMemory) Lumbra;
}

Lumbra* SharedInstance(HostObject* pRequester) {
  Lumbra* pShared = nullptr;
  {
    const std::lock_guard Hold(GlobalLock());
    if (g_pShared == nullptr) g_pShared = MakeInstance(pRequester);
    pShared = g_pShared;
  }
  if (pShared != nullptr) binding::ReferenceShared(&pShared->Handle);
  return pShared;
}

Lumbra* NewSharedInstance(HostObject* pRequester) {
  Lumbra* const pNew = MakeInstance(pRequester);
  if (pNew == nullptr) return nullptr;
  const std::lock_guard Hold(GlobalLock());
  g_pShared = pNew;
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
  const std::lock_guard Hold(GlobalLock());
  if (g_pShared == pInstance) g_pShared = nullptr;
}

}  // namespace lumbra
