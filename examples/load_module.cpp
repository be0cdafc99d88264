// The store as a module that a program loads at run time, with a host of its own (own_host.h): one event about one file
// goes in and comes out with the file's name, and the module is unloaded again.
//
//     load_module /usr/lib/x86_64-linux-gnu/lumbra/lumbra.so
//
// A module runs with all the rights of the program: load it by a whole path, from a folder that nobody else may write
// to.
#ifdef _WIN32
#include <windows.h>
#else
#include <dlfcn.h>
#endif

#include "own_host.h"

namespace {

using lumbra::ModuleEntry;

#ifdef _WIN32
// A DLL that exports nothing is entered at its entry point, as the headers at its start in memory tell.
ModuleEntry entry_of(void* module) {
  auto* const image = static_cast<unsigned char*>(module);
  const auto* const dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(image);
  const auto* const headers = reinterpret_cast<const IMAGE_NT_HEADERS*>(image + dos->e_lfanew);
  return reinterpret_cast<ModuleEntry>(image + headers->OptionalHeader.AddressOfEntryPoint);
}
void* load(const char* path) {
  return LoadLibraryA(path);
}
void unload(void* module) {
  FreeLibrary(static_cast<HMODULE>(module));
}
#else
ModuleEntry entry_of(void* module) {
  return reinterpret_cast<ModuleEntry>(dlsym(module, "LumbraModuleEntry"));
}
void* load(const char* path) {
  return dlopen(path, RTLD_NOW | RTLD_LOCAL);
}
void unload(void* module) {
  dlclose(module);
}
#endif

}  // namespace

int main(int count, char** arguments) {
  if (count != 2) return 2;
  void* const module = load(arguments[1]);
  const ModuleEntry entry = module != nullptr ? entry_of(module) : nullptr;
  if (entry == nullptr) {
    std::fprintf(stderr, "%s is no module of the store\n", arguments[1]);
    return 1;
  }
  const int status = own_host::run(entry);
  unload(module);  // nothing of it is in use any more
  return status;
}
