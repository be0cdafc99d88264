// The module's entry point as Windows knows it. The C runtime's entry point runs before it and hands on every reason,
// the host's own as well as the system's.
#include <windows.h>

#include "lumbra/lumbra.h"
#include "unwind_x86_win32.h"

extern "C" BOOL WINAPI DllMain(HINSTANCE pInstance, DWORD nReason, LPVOID pReserved) {
  if (nReason == DLL_PROCESS_ATTACH) lumbra::EnterFrames();
  if (nReason == DLL_PROCESS_DETACH) lumbra::LeaveFrames();
  return lumbra::LumbraModuleEntry(pInstance, nReason, pReserved);
}
