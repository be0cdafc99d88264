// lumbra databases: what can stand behind --db in a store, for the shell's completion.
#include <cstdio>

#include "commands.h"
#include "host/text.h"
#include "lumbra/lumbra.h"
#include "reading.h"

namespace lumbra::tool {

int ListDatabases(const CommonOptions& Common, const NoOptions&) {
  for (const inspect::Database& One : OpenToRead(Common)->Databases()) {
    if (One.Id == kSystemDatabase) continue;
    const bool bNumbered = One.Id && *One.Id < kFirstNamedDatabase;
    std::puts((bNumbered ? std::to_string(*One.Id) : host::ToUtf8(One.Folder)).c_str());
  }
  return kExitOk;
}

}  // namespace lumbra::tool
