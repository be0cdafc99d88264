#include <dlfcn.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

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

// The files by whose descriptors the loader may know a module. The loader takes two modules of one name for one, and
// gives a file that it knows already the new name beside the old one: so a file has one descriptor here, however often
// it is loaded, and that stays open, and its number in use, as long as the file is in the process, be it for others.
class KnownFiles {
 public:
  static KnownFiles& Instance() {
    static KnownFiles& Known = *new KnownFiles;  // for ever: a module may be unloaded at the very end
    return Known;
  }

  // Held while the loader works. A module that is loaded or unloaded may load and unload others.
  std::recursive_mutex Lock;

  // The file itself, or the one that stands for it already.
  std::shared_ptr<const HeldFile> Enter(const std::shared_ptr<const HeldFile>& pFile) {
    const auto Known =
        std::find_if(m_Files.begin(), m_Files.end(), [&](const auto& pOther) { return IsOneFile(*pFile, *pOther); });
    if (Known != m_Files.end()) return *Known;
    m_Files.push_back(pFile);
    return pFile;
  }

  void ForgetIfUnloaded(const std::shared_ptr<const HeldFile>& pFile) {
    if (void* const pLoaded = dlopen(NameOf(*pFile).c_str(), RTLD_LAZY | RTLD_NOLOAD)) {
      dlclose(pLoaded);
    } else {
      std::erase(m_Files, pFile);
    }
  }

  static std::string NameOf(const HeldFile& File) { return "/proc/self/fd/" + std::to_string(File.Handle()); }

 private:
  static bool IsOneFile(const HeldFile& One, const HeldFile& Other) {
    struct stat OfOne {};
    struct stat OfOther {};
    return fstat(static_cast<int>(One.Handle()), &OfOne) == 0 &&
           fstat(static_cast<int>(Other.Handle()), &OfOther) == 0 && OfOne.st_dev == OfOther.st_dev &&
           OfOne.st_ino == OfOther.st_ino;
  }

  std::vector<std::shared_ptr<const HeldFile>> m_Files;
};

}  // namespace

void LoadedModule::Unloader::operator()(void* pModule) const {
  KnownFiles& Known = KnownFiles::Instance();
  const std::lock_guard Hold(Known.Lock);
  dlclose(pModule);
  Known.ForgetIfUnloaded(pFile);
}

ModuleProblem LoadedModule::Load(const ModuleFile& File) {
  if (ModuleProblem Problem = WhyForeign(File)) return Problem;
  if (ModuleProblem Problem = WhyNotTrusted(File)) return Problem;
  KnownFiles& Known = KnownFiles::Instance();
  const std::lock_guard Hold(Known.Lock);
  const std::shared_ptr<const HeldFile> pFile = Known.Enter(File.pHeld);
  void* const pLoaded = dlopen(KnownFiles::NameOf(*pFile).c_str(), RTLD_NOW | RTLD_LOCAL);
  if (pLoaded == nullptr) {
    const ModuleProblem Problem{errPLATFORM_UNSPECIFIED, std::string("cannot be loaded: ") + dlerror()};
    Known.ForgetIfUnloaded(pFile);
    return Problem;
  }
  m_pModule = {pLoaded, Unloader{pFile}};
  m_pEntry = reinterpret_cast<StandaloneHost::ModuleEntry>(dlsym(m_pModule.get(), "LumbraModuleEntry"));
  if (m_pEntry != nullptr) return {};
  m_pModule.reset();
  return {errSYMBOL_NOT_FOUND, "has no entry"};
}

}  // namespace lumbra::host
