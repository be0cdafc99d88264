// What every object has that the host drives: the lifecycle table, the handle with its two operation tables,
// and a lifecycle of its own in which nothing happens, for a class to replace.
#pragma once

#include <new>

#include "component/host_binding.h"
#include "lumbra/lumbra.h"

namespace lumbra {

// Lives in memory of the host. Until the host installs its own system operations in the handle, they refuse
// all.
class HostedInstance : public LumbraInstance {
 public:
  HostedInstance();

 protected:
  ~HostedInstance() = default;

  // Ends an instance of a derived class.
  template <class Derived>
  static void Destroy(Derived* pInstance) {
    pInstance->~Derived();
  }

  // The same, and gives its memory back through its own handle, which outlives it by that one call.
  template <class Derived>
  static void DestroyAndFree(Derived* pInstance) {
    const HostObject Saved = pInstance->Handle;
    HostObject* const pPlace = &pInstance->Handle;
    Destroy(pInstance);
    binding::Free(new (pPlace) HostObject(Saved), pInstance);
  }

 private:
  static const LumbraLifecycle kEmptyLifecycle;
};

}  // namespace lumbra
