// What the compiler's stack protector asks of a runtime: the value that it puts behind the buffers of a function, and
// what happens when that is another one at the function's end. The toolchain's own library gets the value from a
// service of cryptography, which loads further libraries, and would do so inside a DLL's entry point, where that may
// never end.
#include <windows.h>

#include <cstdint>

extern "C" {
std::uintptr_t __stack_chk_guard = 0;
[[noreturn]] void __stack_chk_fail();
}

namespace {

// Before all other objects of the program or module: it must not change while a function that looks at it runs.
struct Guard {
  Guard() {
    LARGE_INTEGER nTicks{};
    QueryPerformanceCounter(&nTicks);
    FILETIME Now{};
    GetSystemTimeAsFileTime(&Now);
    std::uint64_t nMixed = static_cast<std::uint64_t>(nTicks.QuadPart) ^ Now.dwLowDateTime;
    nMixed ^= std::uint64_t{GetCurrentProcessId()} << 32 ^ GetCurrentThreadId();
    nMixed ^= reinterpret_cast<std::uintptr_t>(&nTicks) ^ reinterpret_cast<std::uintptr_t>(&__stack_chk_guard);
    nMixed *= 0x9E3779B97F4A7C15;  // spreads what differs little over all bits
    nMixed ^= nMixed >> 32;
    // The lowest byte stays 0, which ends a text: what copies texts cannot write over it unseen.
    __stack_chk_guard = static_cast<std::uintptr_t>(nMixed) & ~std::uintptr_t{0xFF};
  }
};
[[gnu::init_priority(101)]] Guard g_Guard;

}  // namespace

extern "C" void __stack_chk_fail() {
  constexpr UINT kStackBufferOverrun = 0xC0000409;  // what the system calls it
  TerminateProcess(GetCurrentProcess(), kStackBufferOverrun);
  __builtin_unreachable();
}
