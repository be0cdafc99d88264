// Holds the calling thread's I/O priority at normal while it works on objects, so that a thread of low
// priority does not keep a lock that others wait for while its reads stand in the disk's queue.
#pragma once

#include "platform/os.h"

namespace lumbra {

// Active from construction to destruction, for the thread that made it; guards nest. It acts at the first
// file access below it: then the thread's priority is queried and, unless it is normal, set to normal, until
// the guard ends and what was found is put back. Work that is answered from memory costs no system call. A
// query or set that fails changes nothing and is not reported.
class IoPriorityGuard {
 public:
  IoPriorityGuard() noexcept : m_pOuter(Innermost()) { os::SetThreadPointer(this); }
  ~IoPriorityGuard();
  IoPriorityGuard(const IoPriorityGuard&) = delete;
  IoPriorityGuard& operator=(const IoPriorityGuard&) = delete;

  // Called before a file is opened, read, written, or given another size.
  static void BeforeFileAccess() noexcept {
    IoPriorityGuard* const pInnermost = Innermost();
    if (pInnermost != nullptr && !pInnermost->m_bEntered) pInnermost->Enter();
  }

 private:
  static IoPriorityGuard* Innermost() noexcept { return static_cast<IoPriorityGuard*>(os::GetThreadPointer()); }
  void Enter() noexcept;

  IoPriorityGuard* m_pOuter;
  bool m_bEntered = false;
  os::IoPriority m_Saved{os::kIoPriorityNormal, 0};  // normal also when the query fails
};

}  // namespace lumbra
