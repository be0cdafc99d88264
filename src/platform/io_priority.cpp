#include "platform/io_priority.h"

namespace lumbra {

IoPriorityGuard::~IoPriorityGuard() {
  os::SetThreadPointer(m_pOuter);
  if (m_Saved.nLevel != os::kIoPriorityNormal) os::SetIoPriority(m_Saved);
}

void IoPriorityGuard::Enter() noexcept {
  m_bEntered = true;
  os::IoPriority Found{};
  if (os::QueryIoPriority(&Found) != os::kSuccess) return;
  m_Saved = Found;
  if (m_Saved.nLevel != os::kIoPriorityNormal) os::SetNormalIoPriority();
}

}  // namespace lumbra
