// The C++ runtime that the DLL brings along takes a slot of thread-local storage when the DLL is loaded, and never
// gives it back. A process has about a thousand: a host that loads the DLL again and again would run out of them and be
// ended by that runtime. So the slots that the DLL takes are noted (the linker leads its calls here, see
// CMakeLists.txt), and those that are left when it goes are given back.
#include <windows.h>

#include <atomic>

// 32-bit names of the system's functions are decorated.
#if defined(__i386__)
#define LUMBRA_REAL(name, bytes) __asm__("___real__imp__" name "@" bytes)
#define LUMBRA_WRAP(name, bytes) __asm__("___wrap__imp__" name "@" bytes)
#else
#define LUMBRA_REAL(name, bytes) __asm__("__real___imp_" name)
#define LUMBRA_WRAP(name, bytes) __asm__("__wrap___imp_" name)
#endif

namespace {

using AllocateSlot = DWORD(WINAPI*)();
using FreeSlot = BOOL(WINAPI*)(DWORD);

}  // namespace

extern "C" {
extern AllocateSlot g_pSystemsTlsAlloc LUMBRA_REAL("TlsAlloc", "0");
extern FreeSlot g_pSystemsTlsFree LUMBRA_REAL("TlsFree", "4");
}

namespace {

constexpr DWORD kNone = 0;
constexpr DWORD kPast = 1;  // noted as one more, since slots count from 0

// Those that are taken; more than these are not noted, and lost as they would be without us.
std::atomic<DWORD> g_Taken[16];

void Exchange(DWORD nFrom, DWORD nTo) {
  for (std::atomic<DWORD>& Slot : g_Taken) {
    DWORD nExpected = nFrom;
    if (Slot.compare_exchange_strong(nExpected, nTo)) return;
  }
}

DWORD WINAPI TakeSlot() {
  const DWORD nSlot = g_pSystemsTlsAlloc();
  if (nSlot != TLS_OUT_OF_INDEXES) Exchange(kNone, nSlot + kPast);
  return nSlot;
}

BOOL WINAPI GiveSlotBack(DWORD nSlot) {
  Exchange(nSlot + kPast, kNone);
  return g_pSystemsTlsFree(nSlot);
}

// Made before every other object of the module, so that it goes after them.
struct SlotKeeper {
  ~SlotKeeper() {
    for (std::atomic<DWORD>& Slot : g_Taken) {
      if (const DWORD nTaken = Slot.exchange(kNone); nTaken != kNone) g_pSystemsTlsFree(nTaken - kPast);
    }
  }
};
[[gnu::init_priority(101)]] SlotKeeper g_Keeper;

}  // namespace

extern "C" {
extern const AllocateSlot g_pOurTlsAlloc LUMBRA_WRAP("TlsAlloc", "0");
extern const FreeSlot g_pOurTlsFree LUMBRA_WRAP("TlsFree", "4");
const AllocateSlot g_pOurTlsAlloc = &TakeSlot;
const FreeSlot g_pOurTlsFree = &GiveSlotBack;
}
