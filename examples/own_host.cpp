// The store with a host of one's own (own_host.h), linked into the program.
#include "own_host.h"

int main() {
  return own_host::run(&lumbra::LumbraModuleEntry);
}
