#include "platform/io_priority.h"

namespace lumbra {

IoPriorityGuard::~IoPriorityGuard() {
  os::SetThreadPointer(m_pOuter);
  if (m_Saved.nLevel != os::kIoPriorityNormal) (void)os::SetIoPriority(m_Saved);  // the work is done all the same
}

void IoPriorityGuard::Enter() noexcept {
  m_bEntered = true;
  os::IoPriority Found{};
  if (os::QueryIoPriority(&Found) != os::kSuccess) return;
  m_Saved = Found;
  if (m_Saved.nLevel != os::kIoPriorityNormal) (void)os::SetNormalIoPriority();
}

}  // namespace lumbra
