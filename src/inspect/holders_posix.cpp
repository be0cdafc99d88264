#include "inspect/store.h"
namespace lumbra::inspect {
std::vector<Holder> Store::Holders() const {
  return {};
}
}  // namespace lumbra::inspect
