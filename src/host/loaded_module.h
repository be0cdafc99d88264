// A module in the process: loaded from its file, unloaded at the end.
//
//   host::ModuleFile File;
//   host::LoadedModule Module;                    // outlives the host, and the host its stores
//   if (const auto Problem = host::ReadModuleFile(Path, &File)) ...
//   if (const auto Problem = Module.Load(File)) ...
//   host::StandaloneHost Host(Module.Entry());
//
// loaded_module_posix.cpp and loaded_module_win32.cpp are its two sources.
#pragma once

#include <memory>

#include "host/module_file.h"
#include "host/standalone_host.h"

namespace lumbra::host {

class LoadedModule {
 public:
  // Loads a module that ReadModuleFile has read, the very file, whatever has its name by now; called once. One for
  // another system or machine is refused before any code of it runs, and so is one that others may change: on posix it
  // and its folder belong to the effective user or to root, and nobody else may write to them (host/trust.h). The
  // host's reasons are not the business of this class: it finds the entry and does not call it.
  ModuleProblem Load(const ModuleFile& File);

  // Null until a module is loaded.
  ModuleEntry Entry() const { return m_pEntry; }

 private:
  struct Unloader {
    void operator()(void* pModule) const;
  };

  std::shared_ptr<const HeldFile> m_pFile;    // open as long as it is loaded
  std::unique_ptr<void, Unloader> m_pModule;  // the system's handle
  ModuleEntry m_pEntry = nullptr;
};

}  // namespace lumbra::host
