#include "inspect/cursor.h"
namespace lumbra::inspect {
std::string FormatCursor(const Cursor&) {
  return {};
}
std::optional<Cursor> ParseCursor(std::string_view) {
  return {};
}
}  // namespace lumbra::inspect
