// Detours in the table through which this program reaches the functions that it imports: the system's own are kept, and
// ours stand in their place. They make Wine as strict with long paths as Windows, and let a test watch an opening.
#include <windows.h>
// Behind it, what builds on it.
#include <gtest/gtest.h>
#include <io.h>

#include <cerrno>
#include <cstring>
#include <cwchar>
#include <utility>

#include "support/system_calls.h"

namespace lumbra::test {
namespace {

struct Detour {
  template <class Function>
  Detour(const char* pOf, Function* pTaker, void* pKeeper)
      : pName(pOf),
        pOurs(reinterpret_cast<void*>(pTaker)),
        ppSystems(static_cast<void**>(pKeeper)),
        pNext(std::exchange(pFirst, this)) {}

  const char* pName;
  void* pOurs;
  void** ppSystems;
  const Detour* pNext;
  inline static const Detour* pFirst = nullptr;
};

void (*g_pWatchOpen)() = nullptr;

// Windows finds no path of this length, unless it has the form that takes any; Wine does.
bool IsTooLong(const wchar_t* pPath) {
  const bool bTooLong = std::wcslen(pPath) >= MAX_PATH && std::wcsncmp(pPath, L"\\\\?\\", 4) != 0;
  if (bTooLong) SetLastError(ERROR_PATH_NOT_FOUND);
  if (bTooLong) errno = ENOENT;
  return bTooLong;
}

bool FailsToOpen(const wchar_t* pPath) {
  if (g_pWatchOpen != nullptr) g_pWatchOpen();
  return IsTooLong(pPath);
}

#define DETOUR(type, name, parameters, arguments, bFails, failed) \
  decltype(&::name) g_p##name;                                    \
  type Our##name parameters {                                     \
    return (bFails) ? failed : g_p##name arguments;               \
  }                                                               \
  const Detour g_##name(#name, &Our##name, &g_p##name);

DETOUR(HANDLE WINAPI, CreateFileW, (LPCWSTR p, DWORD a, DWORD s, SECURITY_ATTRIBUTES* t, DWORD d, DWORD f, HANDLE h),
       (p, a, s, t, d, f, h), FailsToOpen(p), INVALID_HANDLE_VALUE)
DETOUR(BOOL WINAPI, DeleteFileW, (LPCWSTR p), (p), IsTooLong(p), FALSE)
DETOUR(BOOL WINAPI, CreateDirectoryW, (LPCWSTR p, SECURITY_ATTRIBUTES* a), (p, a), IsTooLong(p), FALSE)
DETOUR(DWORD WINAPI, GetFileAttributesW, (LPCWSTR p), (p), IsTooLong(p), INVALID_FILE_ATTRIBUTES)
DETOUR(HANDLE WINAPI, FindFirstFileExW,
       (LPCWSTR p, FINDEX_INFO_LEVELS i, void* d, FINDEX_SEARCH_OPS o, void* f, DWORD a), (p, i, d, o, f, a),
       IsTooLong(p), INVALID_HANDLE_VALUE)
DETOUR(std::intptr_t, _wfindfirst64, (const wchar_t* p, _wfinddata64_t* d), (p, d), IsTooLong(p), -1)
DETOUR(int, _wsopen, (const wchar_t* p, int f, int s, int m), (p, f, s, m), IsTooLong(p), -1)

template <class Record>
Record* AtOffset(DWORD nOffset) {
  return reinterpret_cast<Record*>(reinterpret_cast<std::byte*>(GetModuleHandleW(nullptr)) + nOffset);
}

void Exchange(const char* pName, void** ppFunction) {
  for (const Detour* pDetour = Detour::pFirst; pDetour != nullptr; pDetour = pDetour->pNext) {
    if (std::strcmp(pDetour->pName, pName) == 0) *pDetour->ppSystems = std::exchange(*ppFunction, pDetour->pOurs);
  }
}

// One table for each module that something is imported from: names, and beside them the functions, which the linker
// leaves writable.
bool ExchangeImports() {
  const auto* const pHeaders = AtOffset<IMAGE_NT_HEADERS>(static_cast<DWORD>(AtOffset<IMAGE_DOS_HEADER>(0)->e_lfanew));
  const IMAGE_DATA_DIRECTORY& Directory = pHeaders->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
  for (const auto* pModule = AtOffset<IMAGE_IMPORT_DESCRIPTOR>(Directory.VirtualAddress); pModule->Name != 0;
       ++pModule) {
    const auto* pName = AtOffset<IMAGE_THUNK_DATA>(pModule->OriginalFirstThunk);
    auto* pFunction = AtOffset<void*>(pModule->FirstThunk);
    for (; pName->u1.AddressOfData != 0; ++pName, ++pFunction) {
      if (IMAGE_SNAP_BY_ORDINAL(pName->u1.Ordinal)) continue;
      const auto* const pText = AtOffset<IMAGE_IMPORT_BY_NAME>(static_cast<DWORD>(pName->u1.AddressOfData))->Name;
      Exchange(reinterpret_cast<const char*>(pText), pFunction);
    }
  }
  return true;
}
[[maybe_unused]] const bool g_bExchanged = ExchangeImports();

}  // namespace

void PosixAlone::EndTest() {
  [] {
    GTEST_SKIP() << "calls are counted and made to fail on posix alone";
  }();
  // What the test library takes for a failure that has been told already, and here ends the test without one.
  throw ::testing::AssertionException(
      ::testing::TestPartResult(::testing::TestPartResult::kSkip, __FILE__, __LINE__, "skipped"));
}

void ResetSystem() {
  g_pWatchOpen = nullptr;
}
void WatchOpen(void (*pWatch)()) {
  g_pWatchOpen = pWatch;
}

}  // namespace lumbra::test
