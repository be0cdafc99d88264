#include <windows.h>

#include "host/loaded_module.h"

namespace lumbra::host {
namespace {

// The entry of a DLL that exports nothing: its entry point, as the headers in memory tell it. Null without one.
StandaloneHost::ModuleEntry EntryPointOf(HMODULE pModule) {
  const auto* const pImage = reinterpret_cast<const BYTE*>(pModule);
  const auto* const pDos = reinterpret_cast<const IMAGE_DOS_HEADER*>(pImage);
  const auto* const pHeaders = reinterpret_cast<const IMAGE_NT_HEADERS*>(pImage + pDos->e_lfanew);
  const DWORD nEntry = pHeaders->OptionalHeader.AddressOfEntryPoint;
  return nEntry == 0 ? nullptr : reinterpret_cast<StandaloneHost::ModuleEntry>(const_cast<BYTE*>(pImage) + nEntry);
}

}  // namespace

void LoadedModule::Unloader::operator()(void* pModule) const {
  FreeLibrary(static_cast<HMODULE>(pModule));
}

ModuleProblem LoadedModule::Load(const ModuleFile& File) {
  if (ModuleProblem Problem = WhyForeign(File)) return Problem;
  // With its folder: a bare name would be looked for among the system's libraries.
  std::error_code Ignored;
  const std::filesystem::path Path = std::filesystem::absolute(File.Path, Ignored);
  const HMODULE pModule = LoadLibraryW(Path.c_str());
  if (pModule == nullptr) {
    return {errPLATFORM_UNSPECIFIED, "cannot be loaded: error " + std::to_string(GetLastError()) + " of the system"};
  }
  m_pModule.reset(pModule);
  m_pEntry = EntryPointOf(pModule);
  if (m_pEntry != nullptr) return {};
  m_pModule.reset();
  return {errSYMBOL_NOT_FOUND, "has no entry"};
}

}  // namespace lumbra::host
