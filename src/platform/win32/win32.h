// What the sources of the Windows side share.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/os.h"

namespace lumbra::os {

// The error of the call that has just failed; never success, also when the system left the number alone.
SystemError LastError();

// What a call answered that tells success by a boolean.
SystemError ErrorUnless(BOOL bDone);

// UTF-16 text as the system's functions take it, and back: one type is the other under another name.
inline const wchar_t* Wide(const std::u16string& Text) {
  return reinterpret_cast<const wchar_t*>(Text.c_str());
}
inline const char16_t* Utf16(const wchar_t* pText) {
  return reinterpret_cast<const char16_t*>(pText);
}

// A path as the system's functions take it: one that is longer than they bear otherwise in its absolute, long form.
std::u16string NativePath(std::u16string_view Path);

struct OpenedFolder {
  std::u16string Path;  // with a separator at its end

  std::u16string PathOf(std::u16string_view Name) const { return NativePath(Path + std::u16string(Name)); }
};

// A function of a module that every process has loaded, or null where the system has none of that name.
template <class Function>
Function FindFunction(const wchar_t* pModule, const char* pName) {
  const HMODULE Module = GetModuleHandleW(pModule);
  if (Module == nullptr) return nullptr;
  return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(Module, pName)));
}

}  // namespace lumbra::os
