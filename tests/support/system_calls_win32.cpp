// Detours in the table through which this program reaches the functions that it imports: the system's own are kept, and
// ours stand in their place. What the libraries of the system call among themselves does not come by here.
#include <windows.h>
// Behind it, what builds on it.
#include <io.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <utility>

#include "support/gauges.h"

namespace lumbra::test {
namespace {

// A function of ours, and where the system's is kept whose place it takes: in the table of imports, and for who looks
// for it by its name.
struct Detour {
  template <class Function>
  Detour(const char* pOf, Function* pTaker, void* pKeeper)
      : pName(pOf),
        pOurs(reinterpret_cast<void*>(pTaker)),
        ppSystems(static_cast<void**>(pKeeper)),
        pNext(std::exchange(pFirst, this)) {}

  static const Detour* Find(const char* pName) {
    const Detour* pDetour = pFirst;
    while (pDetour != nullptr && std::strcmp(pDetour->pName, pName) != 0) pDetour = pDetour->pNext;
    return pDetour;
  }

  const char* pName;
  void* pOurs;
  void** ppSystems;
  const Detour* pNext;
  inline static const Detour* pFirst = nullptr;
};

bool Fails(SystemCall Call) {
  const int nError = CountCall(Call);
  if (nError != 0) SetLastError(static_cast<DWORD>(nError));
  return nError != 0;
}

// Windows finds no path of this length, unless it has the form that takes any; Wine does.
bool IsTooLong(const wchar_t* pPath) {
  const bool bTooLong = std::wcslen(pPath) >= MAX_PATH && std::wcsncmp(pPath, L"\\\\?\\", 4) != 0;
  if (bTooLong) SetLastError(ERROR_PATH_NOT_FOUND);
  if (bTooLong) errno = ENOENT;
  return bTooLong;
}

bool Fails(SystemCall Call, const wchar_t* pPath) {
  return IsTooLong(pPath) || Fails(Call);
}

// The C runtime's functions tell their errors otherwise.
bool FailsInRuntime(SystemCall Call) {
  const int nError = CountCall(Call);
  const bool bMissing = nError == ERROR_FILE_NOT_FOUND || nError == ERROR_PATH_NOT_FOUND;
  if (nError != 0) errno = bMissing ? ENOENT : nError == ERROR_NOT_ENOUGH_MEMORY ? ENOMEM : EINVAL;
  return nError != 0;
}

// And so do those on threads: by a status, here the one that stands for the error.
LONG StatusOf(SystemCall Call) {
  const int nError = CountCall(Call);
  return nError == 0 ? 0 : static_cast<LONG>(0x80070000u | static_cast<unsigned>(nError));
}

// A seek from the start and the transfer that follows it on its thread are one transfer at an offset. In a slot of the
// system's, since the compiler's thread_local allocates.
const DWORD g_nSoughtFile = TlsAlloc();

SystemCall Transfer(HANDLE File, SystemCall Plain, SystemCall AtOffset) {
  const bool bAtOffset = TlsGetValue(g_nSoughtFile) == File;
  if (bAtOffset) ForgetCall(SystemCall::Seek);
  TlsSetValue(g_nSoughtFile, nullptr);
  return bAtOffset ? AtOffset : Plain;
}

DWORD Shortened(DWORD nSize) {
  return TransfersAreRagged() ? (nSize + 1) / 2 : nSize;
}

#define DETOUR(type, name, parameters, arguments, bFails, failed) \
  decltype(&::name) g_p##name;                                    \
  type Our##name parameters {                                     \
    return (bFails) ? failed : g_p##name arguments;               \
  }                                                               \
  const Detour g_##name(#name, &Our##name, &g_p##name);
#define CALL(name, parameters, arguments, call) \
  DETOUR(BOOL WINAPI, name, parameters, arguments, Fails(SystemCall::call), FALSE)

DETOUR(HANDLE WINAPI, CreateFileW, (LPCWSTR p, DWORD a, DWORD s, SECURITY_ATTRIBUTES* t, DWORD d, DWORD f, HANDLE h),
       (p, a, s, t, d, f, h), Fails(SystemCall::Open, p), INVALID_HANDLE_VALUE)
DETOUR(BOOL WINAPI, ReadFile, (HANDLE f, void* p, DWORD n, DWORD* d, OVERLAPPED* o), (f, p, Shortened(n), d, o),
       Fails(Transfer(f, SystemCall::Read, SystemCall::ReadAt)), FALSE)
DETOUR(BOOL WINAPI, WriteFile, (HANDLE f, const void* p, DWORD n, DWORD* d, OVERLAPPED* o), (f, p, Shortened(n), d, o),
       Fails(Transfer(f, SystemCall::Write, SystemCall::WriteAt)), FALSE)
CALL(GetFileSizeEx, (HANDLE f, LARGE_INTEGER* n), (f, n), Size)
CALL(SetEndOfFile, (HANDLE f), (f), SetSize)
CALL(SetFileInformationByHandle, (HANDLE f, FILE_INFO_BY_HANDLE_CLASS c, void* p, DWORD n), (f, c, p, n), SetSize)
CALL(FlushFileBuffers, (HANDLE f), (f), Sync)
CALL(GetFileTime, (HANDLE f, FILETIME* c, FILETIME* a, FILETIME* w), (f, c, a, w), Look)
DETOUR(BOOL WINAPI, DeleteFileW, (LPCWSTR p), (p), Fails(SystemCall::Remove, p), FALSE)
DETOUR(BOOL WINAPI, CreateDirectoryW, (LPCWSTR p, SECURITY_ATTRIBUTES* a), (p, a), Fails(SystemCall::MakeFolder, p),
       FALSE)
CALL(OpenThreadToken, (HANDLE h, DWORD a, BOOL s, HANDLE* t), (h, a, s, t), Token)
DETOUR(DWORD WINAPI, GetFileAttributesW, (LPCWSTR p), (p), Fails(SystemCall::Look, p), INVALID_FILE_ATTRIBUTES)
DETOUR(DWORD WINAPI, WaitForSingleObjectEx, (HANDLE h, DWORD n, BOOL a), (h, n, a), Fails(SystemCall::Wait),
       GetLastError() == static_cast<DWORD>(os::kWaitAbandoned) ? WAIT_ABANDONED : WAIT_FAILED)
DETOUR(HANDLE WINAPI, FindFirstFileExW,
       (LPCWSTR p, FINDEX_INFO_LEVELS i, void* d, FINDEX_SEARCH_OPS o, void* f, DWORD a), (p, i, d, o, f, a),
       IsTooLong(p), INVALID_HANDLE_VALUE)
DETOUR(std::intptr_t, _wfindfirst64, (const wchar_t* p, _wfinddata64_t* d), (p, d),
       IsTooLong(p) || FailsInRuntime(SystemCall::Look), -1)
DETOUR(int, _wfindnext64, (std::intptr_t h, _wfinddata64_t* d), (h, d), FailsInRuntime(SystemCall::Look), -1)
DETOUR(int, _wsopen, (const wchar_t* p, int f, int s, int m), (p, f, s, m),
       IsTooLong(p) || FailsInRuntime(SystemCall::Look), -1)
DETOUR(void*, malloc, (std::size_t n), (n), CountAllocation(), nullptr)
DETOUR(void*, calloc, (std::size_t c, std::size_t n), (c, n), CountAllocation(), nullptr)

bool FailsToSeek(HANDLE File, DWORD nOrigin) {
  TlsSetValue(g_nSoughtFile, nOrigin == FILE_BEGIN ? File : nullptr);
  return Fails(SystemCall::Seek);
}
DETOUR(BOOL WINAPI, SetFilePointerEx, (HANDLE f, LARGE_INTEGER n, LARGE_INTEGER* p, DWORD o), (f, n, p, o),
       FailsToSeek(f, o), FALSE)

constexpr std::int64_t kSecondsTo1970 = 11644473600;
constexpr std::int64_t kUnitsPerSecond = 10000000;
void PutClockOfTest(FILETIME* pTime) {
  const std::int64_t nNow = (ClockOfTest() + kSecondsTo1970) * kUnitsPerSecond;
  *pTime = {static_cast<DWORD>(nNow), static_cast<DWORD>(nNow >> 32)};
}
DETOUR(void WINAPI, GetSystemTimeAsFileTime, (FILETIME * t), (t), ClockOfTest() != 0, PutClockOfTest(t))

std::atomic<ULONG> g_nIoPriority{2};
LONG WINAPI OurNtQueryInformationThread(HANDLE, int, void* pPriority, ULONG, ULONG*) {
  const LONG nStatus = StatusOf(SystemCall::Priority);
  if (nStatus >= 0) *static_cast<ULONG*>(pPriority) = g_nIoPriority;
  return nStatus;
}
LONG WINAPI OurNtSetInformationThread(HANDLE, int, void* pPriority, ULONG) {
  const LONG nStatus = StatusOf(SystemCall::Priority);
  if (nStatus >= 0) g_nIoPriority = *static_cast<ULONG*>(pPriority);
  return nStatus;
}
void* g_pUnused;
const Detour g_Query("NtQueryInformationThread", &OurNtQueryInformationThread, &g_pUnused);
const Detour g_Set("NtSetInformationThread", &OurNtSetInformationThread, &g_pUnused);

decltype(&::GetProcAddress) g_pGetProcAddress;
FARPROC WINAPI OurGetProcAddress(HMODULE Module, LPCSTR pName) {
  if (Fails(SystemCall::FindFunction)) return nullptr;
  const FARPROC pSystems = g_pGetProcAddress(Module, pName);
  const bool bByNumber = reinterpret_cast<std::uintptr_t>(pName) <= 0xFFFF;
  const Detour* const pDetour = bByNumber ? nullptr : Detour::Find(pName);
  if (pDetour == nullptr) return pSystems;
  *pDetour->ppSystems = reinterpret_cast<void*>(pSystems);
  return reinterpret_cast<FARPROC>(pDetour->pOurs);
}
const Detour g_GetProcAddress("GetProcAddress", &OurGetProcAddress, &g_pGetProcAddress);

template <class Record>
Record* AtOffset(DWORD nOffset) {
  return reinterpret_cast<Record*>(reinterpret_cast<std::byte*>(GetModuleHandleW(nullptr)) + nOffset);
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
      const Detour* const pDetour = Detour::Find(reinterpret_cast<const char*>(pText));
      if (pDetour != nullptr) *pDetour->ppSystems = std::exchange(*pFunction, pDetour->pOurs);
    }
  }
  return true;
}
[[maybe_unused]] const bool g_bExchanged = ExchangeImports();

}  // namespace

int NativeError(os::SystemError nError) {
  return static_cast<int>(nError);
}

void WatchChanges(ChangeWatch) {}

std::uintptr_t CurrentThread() {
  return GetCurrentThreadId();
}

const std::uint32_t kNormalIoPriority = 2;
const std::uint32_t kLowestIoPriority = 0;
std::uint32_t GetIoPriority() {
  return g_nIoPriority;
}
void SetIoPriority(std::uint32_t nPriority) {
  g_nIoPriority = nPriority;
}

}  // namespace lumbra::test
