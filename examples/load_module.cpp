// The store as a module that a program loads: what its file says is read, the module is loaded, one event about one
// file goes in and comes out with the file's name, and the module is unloaded again.
#include <cstdio>

#include "host/loaded_module.h"
#include "host/standalone_host.h"

using namespace lumbra;

namespace {

// Adds an event and reads it back. False for whatever fails.
bool UseStore(host::Store& store) {
  std::uint64_t event[2] = {42, 0};  // 16 bytes of your own; bytes 8 to 15 refer to an object
  if (Failed(store.Init()) || Failed(store.Call(&LumbraOperations::InitDB, 1, sizeof(event)))) return false;
  ResultCode code = store.Call(&LumbraOperations::FindObjectSimple, 1, typeFile, u"C:\\Reports\\today.txt",
                               kZeroTerminated, 1, 0, &event[1]);
  if (Succeeded(code)) code = store.Call(&LumbraOperations::AddEvent, 1, event, sizeof(event), nullptr);

  char16_t name[260] = {};
  if (Succeeded(code)) code = store.Call(&LumbraOperations::GetEvents, 1, 0, event, sizeof(event), 1, nullptr, nullptr);
  if (Succeeded(code)) {
    code = store.Call(&LumbraOperations::GetObjectName, event[1], name, sizeof(name), nullptr, 0, nullptr);
  }
  if (Failed(code)) return false;
  std::printf("event %u is about ", static_cast<unsigned>(event[0]));
  for (const char16_t* c = name; *c != 0; ++c) std::putchar(static_cast<char>(*c));
  std::puts("");
  return true;
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 2) return 2;
  host::ModuleFile file;
  host::LoadedModule module;  // stays until the host has let go of it
  host::ModuleProblem problem = host::ReadModuleFile(arguments[1], &file);
  if (!problem) {
    std::printf("%s module with plug-in id 0x%X\n", file.Format.c_str(), file.Metadata.Module.nPluginId);
    problem = module.Load(file);
  }
  if (problem) {
    std::fprintf(stderr, "%s %s\n", arguments[1], problem.Text.c_str());
    return 1;
  }

  host::StandaloneHost host(module.Entry());
  host.SetPlaceholder(u"%Report%", u"module-store");  // the folder that holds the store
  host::Store store = host.Create();                  // none, if the module did not take this host
  return store && UseStore(store) ? 0 : 1;
}
