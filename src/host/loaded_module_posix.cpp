#include <dlfcn.h>

#include <atomic>
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

// A name for the file that is open, which the loader has not heard before. It takes two modules of one name for one,
// and keeps the names of a file as long as that is in the process, while the number of a descriptor comes again. "./"
// and "/" lead nowhere in a path: here they are the digits of a count.
std::string FreshNameOf(const HeldFile& File) {
  static std::atomic<std::uint64_t> s_nLoads{0};
  const std::uint64_t nLoad = s_nLoads++;
  std::string Name = "/proc/self/fd/";
  for (int nBit = 0; nBit < 64; ++nBit) Name += (nLoad >> nBit & 1) != 0 ? "./" : "/";
  return Name + std::to_string(File.Handle());
}

}  // namespace

void LoadedModule::Unloader::operator()(void* pModule) const {
  dlclose(pModule);
}

ModuleProblem LoadedModule::Load(const ModuleFile& File) {
  if (ModuleProblem Problem = WhyForeign(File)) return Problem;
  if (ModuleProblem Problem = WhyNotTrusted(File)) return Problem;
  m_pFile = File.pHeld;
  m_pModule.reset(dlopen(FreshNameOf(*m_pFile).c_str(), RTLD_NOW | RTLD_LOCAL));
  if (m_pModule == nullptr) return {errPLATFORM_UNSPECIFIED, std::string("cannot be loaded: ") + dlerror()};
  m_pEntry = reinterpret_cast<StandaloneHost::ModuleEntry>(dlsym(m_pModule.get(), "LumbraModuleEntry"));
  if (m_pEntry != nullptr) return {};
  m_pModule.reset();
  return {errSYMBOL_NOT_FOUND, "has no entry"};
}

}  // namespace lumbra::host
