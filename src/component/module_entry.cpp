// The module entry: binds the module to the host that loads it.
#include "component/factory.h"
#include "component/host_binding.h"
#include "lumbra/lumbra.h"
#include "platform/trace.h"

namespace lumbra {
namespace {

// Each failing call ends the loading: its code is the answer, and what follows is not attempted.
ResultCode Load(HostObject* pRoot) {
  binding::SetRoot(pRoot);
  ResultCode nCode = binding::ResolveImports(pRoot);
  if (Failed(nCode)) {
    Trace(pRoot, traceFailure, "cannot resolve import table for ...");
    return nCode;
  }
  nCode = binding::RegisterInterface(pRoot, kSharedInstance, &LumbraFactory);
  if (Failed(nCode)) {
    Trace(pRoot, traceFailure, "cannot register \"Lumbra\" interface");
    return nCode;
  }
  for (const std::uint32_t nInterfaceId : {kSeparateInstance, kNewSharedInstance}) {
    nCode = binding::RegisterInterface(pRoot, nInterfaceId, &LumbraFactory);
    if (Failed(nCode)) {
      Trace(pRoot, traceFailure, "cannot register multiple instance \"Lumbra\" interface");
      return nCode;
    }
  }
  return nCode;
}

}  // namespace

extern "C" int LumbraModuleEntry(void* pRoot, std::uint32_t nReason, void* pError) {
  switch (nReason) {
    case kModuleLoad: {
      auto* const pnError = static_cast<ResultCode*>(pError);
      *pnError = errOK;
      *pnError = Load(static_cast<HostObject*>(pRoot));
      return Failed(*pnError) ? 0 : 1;
    }
    case kModuleUnload:
      binding::SetRoot(nullptr);
      return 1;
    default:
      return 1;
  }
}

}  // namespace lumbra
