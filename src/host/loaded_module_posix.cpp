#include <dlfcn.h>

#include <filesystem>
#include <string>

#include "host/loaded_module.h"
#include "host/trust.h"

namespace lumbra::host {
namespace {

// What others may write to would run what they want.
ModuleProblem WhyNotTrusted(const ModuleFile& File) {
  std::string Why = WhyNotTrusted(static_cast<int>(File.pHeld->Handle()), TrustedOwner::UserOrRoot);
  if (!Why.empty()) return {errACCESS_DENIED, Why};
  std::error_code Refused;
  const std::filesystem::path Path = std::filesystem::canonical(File.Path, Refused);
  if (Refused) return {errPATH_NAME_INVALID, "cannot be found again: " + Refused.message()};
  Why = WhyNotTrusted(Path.parent_path(), TrustedOwner::UserOrRoot);
  if (!Why.empty()) return {errACCESS_DENIED, "lies in a folder that " + Why};
  return {};
}

}  // namespace

void LoadedModule::Unloader::operator()(void* pModule) const {
  dlclose(pModule);
}

ModuleProblem LoadedModule::Load(const ModuleFile& File) {
  if (ModuleProblem Problem = WhyForeign(File)) return Problem;
  if (ModuleProblem Problem = WhyNotTrusted(File)) return Problem;
  // By the descriptor that was looked at. The loader takes two modules of one name for one: so the descriptor stays
  // open, and its number in use, as long as the module is loaded.
  m_pFile = File.pHeld;
  const std::string Path = "/proc/self/fd/" + std::to_string(m_pFile->Handle());
  m_pModule.reset(dlopen(Path.c_str(), RTLD_NOW | RTLD_LOCAL));
  if (m_pModule == nullptr) return {errPLATFORM_UNSPECIFIED, std::string("cannot be loaded: ") + dlerror()};
  m_pEntry = reinterpret_cast<StandaloneHost::ModuleEntry>(dlsym(m_pModule.get(), "LumbraModuleEntry"));
  if (m_pEntry != nullptr) return {};
  m_pModule.reset();
  return {errSYMBOL_NOT_FOUND, "has no entry"};
}

}  // namespace lumbra::host
