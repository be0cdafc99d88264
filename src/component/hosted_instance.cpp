#include "component/hosted_instance.h"

namespace lumbra {

const LumbraLifecycle HostedInstance::kEmptyLifecycle = {
    .Slot0 = [](LumbraInstance*) -> ResultCode { return errOK; },
    .ObjectInitDone = [](LumbraInstance*) -> ResultCode { return errOK; },
    .ObjectShutdown = [](LumbraInstance*) -> ResultCode { return errOK; },
    .Slot3 = [](LumbraInstance*) -> ResultCode { return errOK; },
    .ObjectFree = [](LumbraInstance* pInstance) -> ResultCode {
      DestroyAndFree(static_cast<HostedInstance*>(pInstance));
      return errOK;
    },
    .Slot5 = [](LumbraInstance*) -> ResultCode { return errOK; },
    .MessageReceive = [](LumbraInstance*, std::uint32_t, std::uint32_t) -> ResultCode { return errOK; },
    .PropertyAccess = [](LumbraInstance*, std::uint32_t, PropertyAccessRecord*) -> ResultCode {
      return errNOT_IMPLEMENTED;
    },
    .Destructor =
        [](LumbraInstance* pInstance, std::uint32_t nFree) {
          auto* const pHosted = static_cast<HostedInstance*>(pInstance);
          nFree != 0 ? DestroyAndFree(pHosted) : Destroy(pHosted);
        },
};

HostedInstance::HostedInstance() {
  pLifecycle = &kEmptyLifecycle;
  Handle = {nullptr, binding::DefaultSystemOperations()};
}

}  // namespace lumbra
