#include <dlfcn.h>

#include <atomic>
#include <filesystem>
#include <string>

#include "host/loaded_module.h"
#include "host/printed_text.h"
#include "host/trust.h"

namespace lumbra::host {
namespace {

// Where the file is that is open, whatever has its name by then, with all links followed; empty when that is not known.
std::filesystem::path PlaceOf(const HeldFile& File) {
  std::error_code Refused;
  return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(File.Handle()), Refused);
}

// What others may write to would run what they want.
ModuleProblem WhyNotTrusted(const HeldFile& File) {
  std::string Why = WhyNotTrusted(static_cast<int>(File.Handle()), TrustedOwner::UserOrRoot);
  if (!Why.empty()) return {errACCESS_DENIED, Why};
  const std::filesystem::path Path = PlaceOf(File);
  std::error_code Refused;
  if (!std::filesystem::is_directory(Path.parent_path(), Refused))
    return {errPATH_NAME_INVALID, "cannot be found again"};
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

// What the loader said last. It has names from the module in it, and the one that we have made up for its file.
std::string LoaderMessage(const std::string& FreshName, const std::filesystem::path& Path) {
  std::string Text = dlerror();
  const std::string Shown = Printable(Path.string());
  for (std::size_t nAt = 0; (nAt = Text.find(FreshName, nAt)) != std::string::npos; nAt += Shown.size())
    Text.replace(nAt, FreshName.size(), Shown);
  return PrintableSentence(Text);
}

}  // namespace

void LoadedModule::Unloader::operator()(void* pModule) const {
  dlclose(pModule);
}

ModuleProblem LoadedModule::Load(const ModuleFile& File) {
  if (ModuleProblem Problem = WhyForeign(File)) return Problem;
  if (ModuleProblem Problem = WhyNotTrusted(*File.pHeld)) return Problem;
  m_pFile = File.pHeld;
  const std::string Name = FreshNameOf(*m_pFile);
  m_pModule.reset(dlopen(Name.c_str(), RTLD_NOW | RTLD_LOCAL));
  if (m_pModule == nullptr) return {errPLATFORM_UNSPECIFIED, "cannot be loaded: " + LoaderMessage(Name, File.Path)};
  m_pEntry = reinterpret_cast<ModuleEntry>(dlsym(m_pModule.get(), "LumbraModuleEntry"));
  if (m_pEntry != nullptr) return {};
  m_pModule.reset();
  return {errSYMBOL_NOT_FOUND, "has no entry"};
}

}  // namespace lumbra::host
