// The store inside a program of your own: one event about one file goes in, and comes out with the file's
// name.
#include <cstdio>

#include "host/standalone_host.h"

int main() {
  using namespace lumbra;
  host::StandaloneHost host;
  host.SetPlaceholder(u"%Report%", u"embed-store");  // the folder that holds the store
  host::Store store = host.Create();
  if (Failed(store.Init()) || Failed(store.Call(&LumbraOperations::InitDB, 1, 16))) return 1;

  std::uint64_t event[2] = {42, 0};  // 16 bytes of your own; bytes 8 to 15 refer to an object
  ResultCode code = store.Call(&LumbraOperations::FindObjectSimple, 1, typeFile, u"C:\\Reports\\today.txt",
                               kZeroTerminated, 1, 0, &event[1]);
  if (Succeeded(code)) code = store.Call(&LumbraOperations::AddEvent, 1, event, sizeof(event), nullptr);
  if (Succeeded(code)) code = host.SendFlush();  // the system has it by now; this brings it to the disk

  char16_t name[260] = {};
  if (Succeeded(code)) code = store.Call(&LumbraOperations::GetEvents, 1, 0, event, sizeof(event), 1, nullptr, nullptr);
  if (Succeeded(code)) {
    code = store.Call(&LumbraOperations::GetObjectName, event[1], name, sizeof(name), nullptr, 0, nullptr);
  }
  if (Failed(code)) return 1;
  std::printf("event %u is about ", static_cast<unsigned>(event[0]));
  for (const char16_t* c = name; *c != 0; ++c) std::putchar(static_cast<char>(*c));
  std::puts("");
}
