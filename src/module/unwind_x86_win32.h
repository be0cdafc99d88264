// Makes exceptions work in the DLL for 32-bit Windows; nothing is to do elsewhere.
#pragma once

namespace lumbra {

// When the module comes into a process, and when it leaves it.
#if defined(__i386__)
void EnterFrames();
void LeaveFrames();
#else
inline void EnterFrames() {}
inline void LeaveFrames() {}
#endif

}  // namespace lumbra
