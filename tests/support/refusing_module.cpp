// A module whose metadata is sound and whose entry takes no host. It tells when code of it runs.
#include <cstdio>

#include "lumbra/lumbra.h"

namespace lumbra {
namespace {

[[maybe_unused]] const int g_nPrinted = std::puts("code of the module runs");

}  // namespace

extern "C" int LUMBRA_ENTRY_CALL LumbraModuleEntry(void* /*pRoot*/, std::uint32_t nReason, void* pError) {
  if (nReason != kModuleLoad) return 1;
  *static_cast<ResultCode*>(pError) = errACCESS_DENIED;
  return 0;
}

}  // namespace lumbra
