// Time, locks, semaphores, and the calling thread on Windows.
#include <atomic>
#include <new>

#include "platform/win32/win32.h"

namespace lumbra::os {

std::uint32_t ProcessId() {
  return GetCurrentProcessId();
}

std::uint64_t CurrentTime() {
  FILETIME Now{};
  GetSystemTimeAsFileTime(&Now);
  return std::uint64_t{Now.dwHighDateTime} << 32 | Now.dwLowDateTime;
}

// ---- Locks ------------------------------------------------------------------------------------------------

namespace {

CRITICAL_SECTION* SectionIn(std::byte* pStorage) {
  return std::launder(reinterpret_cast<CRITICAL_SECTION*>(pStorage));
}

HANDLE NativeHandle(Semaphore* pSemaphore) {
  return reinterpret_cast<HANDLE>(pSemaphore);
}

}  // namespace

CriticalSection::CriticalSection() {
  static_assert(sizeof(CRITICAL_SECTION) <= sizeof(m_Storage) && alignof(CRITICAL_SECTION) <= alignof(CriticalSection));
  InitializeCriticalSection(new (m_Storage) CRITICAL_SECTION);
}

CriticalSection::~CriticalSection() {
  DeleteCriticalSection(SectionIn(m_Storage));
}
void CriticalSection::lock() {
  EnterCriticalSection(SectionIn(m_Storage));
  m_Holder.Enter();
}
bool CriticalSection::try_lock() {
  if (TryEnterCriticalSection(SectionIn(m_Storage)) == FALSE) return false;
  m_Holder.Enter();
  return true;
}
void CriticalSection::unlock() {
  m_Holder.Leave();
  LeaveCriticalSection(SectionIn(m_Storage));
}

SystemError CreateCountingSemaphore(Semaphore** ppSemaphore) {
  constexpr LONG kMaxCount = 0x7FFFFFFF;
  const HANDLE Created = CreateSemaphoreW(nullptr, 0, kMaxCount, nullptr);
  if (Created == nullptr) return LastError();
  *ppSemaphore = reinterpret_cast<Semaphore*>(Created);
  return kSuccess;
}

SystemError WaitForSemaphore(Semaphore* pSemaphore, CriticalSection& Held) {
  Held.unlock();
  switch (WaitForSingleObjectEx(NativeHandle(pSemaphore), INFINITE, FALSE)) {
    case WAIT_OBJECT_0:
      return kSuccess;
    case WAIT_ABANDONED:
      return kWaitAbandoned;
    default:
      return LastError();
  }
}

void ReleaseSemaphoreBy(Semaphore* pSemaphore, std::uint32_t nCount) {
  ReleaseSemaphore(NativeHandle(pSemaphore), static_cast<LONG>(nCount), nullptr);
}

void CloseSemaphore(Semaphore* pSemaphore) {
  if (pSemaphore != nullptr) CloseHandle(NativeHandle(pSemaphore));
}

// ---- The calling thread -----------------------------------------------------------------------------------

namespace {

// Given back when the module is unloaded.
struct ThreadIndex {
  const DWORD nIndex = TlsAlloc();
  ~ThreadIndex() {
    if (nIndex != TLS_OUT_OF_INDEXES) TlsFree(nIndex);
  }
};
const ThreadIndex g_ThreadPointer;

}  // namespace

void* GetThreadPointer() {
  return TlsGetValue(g_ThreadPointer.nIndex);  // null also without an index
}
void SetThreadPointer(void* pValue) {
  TlsSetValue(g_ThreadPointer.nIndex, pValue);
}

SystemError SuspendImpersonation(void** ppToken) {
  constexpr DWORD kRights = TOKEN_DUPLICATE | TOKEN_IMPERSONATE | TOKEN_QUERY;
  HANDLE Token = nullptr;
  if (!OpenThreadToken(GetCurrentThread(), kRights, TRUE, &Token)) {
    if (const SystemError nError = LastError(); nError != kNoToken) return nError;
    Token = nullptr;
  }
  RevertToSelf();
  *ppToken = Token;
  return kSuccess;
}

void ResumeImpersonation(void* pToken) {
  ImpersonateLoggedOnUser(pToken);
  CloseHandle(pToken);
}

namespace {

// The system has no documented interface for the I/O priority of a thread. A status below 0 is a failure.
constexpr int kThreadIoPriority = 22;
using QueryFunction = LONG(WINAPI*)(HANDLE, int, void*, ULONG, ULONG*);
using SetFunction = LONG(WINAPI*)(HANDLE, int, void*, ULONG);
using ErrorOfStatusFunction = ULONG(WINAPI*)(LONG);

struct ThreadFunctions {
  QueryFunction pQuery = nullptr;
  SetFunction pSet = nullptr;
  ErrorOfStatusFunction pErrorOfStatus = nullptr;

  bool AreAllThere() const { return pQuery != nullptr && pSet != nullptr && pErrorOfStatus != nullptr; }
  SystemError ErrorOf(LONG nStatus) const {
    return nStatus >= 0 ? kSuccess : static_cast<SystemError>(pErrorOfStatus(nStatus));
  }
};

// Looked up until all three are found, and then kept. Threads that look at the same time find the same.
const ThreadFunctions* FindThreadFunctions() {
  static std::atomic<const ThreadFunctions*> pKnown{nullptr};
  if (const ThreadFunctions* const pFound = pKnown.load(std::memory_order_acquire)) return pFound;
  constexpr const wchar_t* pModule = L"ntdll.dll";
  const ThreadFunctions Found{FindFunction<QueryFunction>(pModule, "NtQueryInformationThread"),
                              FindFunction<SetFunction>(pModule, "NtSetInformationThread"),
                              FindFunction<ErrorOfStatusFunction>(pModule, "RtlNtStatusToDosError")};
  if (!Found.AreAllThere()) return nullptr;
  static const ThreadFunctions Kept = Found;
  pKnown.store(&Kept, std::memory_order_release);
  return &Kept;
}

}  // namespace

SystemError QueryIoPriority(IoPriority* pPriority) {
  const ThreadFunctions* const pThread = FindThreadFunctions();
  if (pThread == nullptr) return kNotSupported;
  ULONG nPriority = kIoPriorityNormal;
  const LONG nStatus = pThread->pQuery(GetCurrentThread(), kThreadIoPriority, &nPriority, sizeof(nPriority), nullptr);
  if (nStatus >= 0) *pPriority = {nPriority, nPriority};
  return pThread->ErrorOf(nStatus);
}

SystemError SetIoPriority(const IoPriority& Priority) {
  const ThreadFunctions* const pThread = FindThreadFunctions();
  if (pThread == nullptr) return kNotSupported;
  ULONG nPriority = Priority.nExact;
  return pThread->ErrorOf(pThread->pSet(GetCurrentThread(), kThreadIoPriority, &nPriority, sizeof(nPriority)));
}

SystemError SetNormalIoPriority() {
  return SetIoPriority({kIoPriorityNormal, kIoPriorityNormal});
}

}  // namespace lumbra::os
