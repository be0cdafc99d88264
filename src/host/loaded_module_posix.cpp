#include <dlfcn.h>

#include "host/loaded_module.h"

namespace lumbra::host {

void LoadedModule::Unloader::operator()(void* pModule) const {
  dlclose(pModule);
}

ModuleProblem LoadedModule::Load(const ModuleFile& File) {
  if (ModuleProblem Problem = WhyForeign(File)) return Problem;
  // With its folder: a bare name would be looked for among the system's libraries.
  std::error_code Ignored;
  const std::filesystem::path Path = std::filesystem::absolute(File.Path, Ignored);
  m_pModule.reset(dlopen(Path.c_str(), RTLD_NOW | RTLD_LOCAL));
  if (m_pModule == nullptr) return {errPLATFORM_UNSPECIFIED, std::string("cannot be loaded: ") + dlerror()};
  m_pEntry = reinterpret_cast<StandaloneHost::ModuleEntry>(dlsym(m_pModule.get(), "LumbraModuleEntry"));
  if (m_pEntry != nullptr) return {};
  m_pModule.reset();
  return {errSYMBOL_NOT_FOUND, "has no entry"};
}

}  // namespace lumbra::host
