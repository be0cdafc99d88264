// Upper-casing of UTF-16 units, the same on every machine and in every locale: hashes on disk depend on it. On Windows
// the system's own service stands in its place, which docs/file-format.md compares it with.
#pragma once

namespace lumbra {

// The upper-case form of a unit; the unit itself where it has none, or none of a single unit.
char16_t UpperCaseByTable(char16_t c);

}  // namespace lumbra
