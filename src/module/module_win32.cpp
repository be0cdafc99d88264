// The module's entry point as Windows knows it. The C runtime's entry point runs before it and hands on every reason,
// the host's own as well as the system's.
#include <windows.h>

#include "lumbra/lumbra.h"

extern "C" BOOL WINAPI DllMain(HINSTANCE pInstance, DWORD nReason, LPVOID pReserved) {
  return lumbra::LumbraModuleEntry(pInstance, nReason, pReserved);
}
