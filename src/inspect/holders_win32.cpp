// Who holds a store, on Windows: nothing tells that without asking for the files.
#include "inspect/store.h"

namespace lumbra::inspect {

std::vector<Holder> Store::Holders() const {
  return {};
}

}  // namespace lumbra::inspect
