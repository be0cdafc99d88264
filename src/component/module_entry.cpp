// The module entry: binds the module to the host that loads it.
#include "component/factory.h"
#include "component/host_binding.h"
#include "lumbra/lumbra.h"
#include "platform/trace.h"

namespace lumbra {
namespace {

// Each failing call ends the loading: its code, in *pnError before anything is traced, is the outcome, and what follows
// is not attempted.
bool Load(HostObject* pRoot, ResultCode* pnError) {
  *pnError = errOK;
  binding::SetRoot(pRoot);
  *pnError = binding::ResolveImports(pRoot);
  if (Failed(*pnError)) {
    Trace(pRoot, traceFailure, "cannot resolve import table for ...");
    return false;
  }
  *pnError = binding::RegisterInterface(pRoot, kSharedInstance, &LumbraFactory);
  if (Failed(*pnError)) {
    Trace(pRoot, traceFailure, "cannot register \"Lumbra\" interface");
    return false;
  }
  for (const std::uint32_t nInterfaceId : {kSeparateInstance, kNewSharedInstance}) {
    *pnError = binding::RegisterInterface(pRoot, nInterfaceId, &LumbraFactory);
    if (Failed(*pnError)) {
      Trace(pRoot, traceFailure, "cannot register multiple instance \"Lumbra\" interface");
      return false;
    }
  }
  return true;
}

}  // namespace

extern "C" int LUMBRA_ENTRY_CALL LumbraModuleEntry(void* pRoot, std::uint32_t nReason, void* pError) {
  switch (nReason) {
    case kModuleLoad:
      return Load(static_cast<HostObject*>(pRoot), static_cast<ResultCode*>(pError)) ? 1 : 0;
    case kModuleUnload:
      binding::SetRoot(nullptr);
      return 1;
    default:
      return 1;
  }
}

}  // namespace lumbra
