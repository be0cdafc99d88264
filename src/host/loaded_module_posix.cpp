#include <dlfcn.h>

#include "host/loaded_module.h"

namespace lumbra::host {

void LoadedModule::Unloader::operator()(void* pModule) const {
  dlclose(pModule);
}

ModuleProblem LoadedModule::Load(const ModuleFile& File) {
  if (ModuleProblem Problem = WhyForeign(File)) return Problem;
  // With its folder: a bare name would be looked for among the system's libraries.
  std::error_code Refused;
  const std::filesystem::path Path = std::filesystem::absolute(File.Path, Refused);
  if (Refused) return {errPATH_NAME_INVALID, "cannot be loaded: " + Refused.message()};
  // What the loader puts in place of "$ORIGIN" and the like would make it another file than the one that was read.
  if (Path.native().find('$') != std::string::npos)
    return {errPATH_NAME_INVALID, "cannot be loaded with a $ in its path"};
  m_pModule.reset(dlopen(Path.c_str(), RTLD_NOW | RTLD_LOCAL));
  if (m_pModule == nullptr) return {errPLATFORM_UNSPECIFIED, std::string("cannot be loaded: ") + dlerror()};
  m_pEntry = reinterpret_cast<StandaloneHost::ModuleEntry>(dlsym(m_pModule.get(), "LumbraModuleEntry"));
  if (m_pEntry != nullptr) return {};
  m_pModule.reset();
  return {errSYMBOL_NOT_FOUND, "has no entry"};
}

}  // namespace lumbra::host
