// Exceptions in the DLL for 32-bit Windows, where the unwinder finds the frames of a module in a list. The module has
// an unwinder of its own, but the compiler's start-up code enters its frames with that of "libgcc_s_dw2-1.dll" where
// the host has loaded that: then the first exception, which the component means to turn into a code, would end the
// host. So they are entered with the own one as well.
#include "unwind_x86_win32.h"

#include <windows.h>

#include <cstring>

extern "C" {
extern const IMAGE_DOS_HEADER __ImageBase;  // the linker's: where the module begins
void __register_frame_info(const void* pFrames, void* pEntry);
void* __deregister_frame_info(const void* pFrames);
}

namespace lumbra {
namespace {

// What the unwinder keeps of one list of frames.
void* g_Entry[8];

const void* g_pEntered = nullptr;

// The frames stand in a section; the linker cuts its name to the 8 characters that the headers hold.
const void* FindFrames() {
  const auto* const pImage = reinterpret_cast<const BYTE*>(&__ImageBase);
  const auto* const pHeaders = reinterpret_cast<const IMAGE_NT_HEADERS*>(pImage + __ImageBase.e_lfanew);
  const IMAGE_SECTION_HEADER* pSection = IMAGE_FIRST_SECTION(pHeaders);
  for (int nLeft = pHeaders->FileHeader.NumberOfSections; nLeft > 0; --nLeft, ++pSection) {
    if (std::memcmp(pSection->Name, ".eh_frame", sizeof(pSection->Name)) == 0) return pImage + pSection->VirtualAddress;
  }
  return nullptr;
}

}  // namespace

void EnterFrames() {
  if (GetModuleHandleW(L"libgcc_s_dw2-1.dll") == nullptr) return;  // they are entered where they belong
  g_pEntered = FindFrames();
  if (g_pEntered != nullptr) __register_frame_info(g_pEntered, g_Entry);
}

void LeaveFrames() {
  if (g_pEntered != nullptr) __deregister_frame_info(g_pEntered);
  g_pEntered = nullptr;
}

}  // namespace lumbra
