// The path of a store's folder, as a program gives it.
#pragma once

#include <filesystem>

namespace lumbra {
inline namespace v1 {
namespace detail {

// The path from a root on, without "." and "..", and without a separator at its end. Throws an Error
// (errPATH_NAME_INVALID) for one that no store can have.
std::filesystem::path AbsoluteStorePath(const std::filesystem::path& Folder);

// What leads to the folder, or will when it is made: without links.
std::filesystem::path CanonicalStorePath(const std::filesystem::path& Folder);

}  // namespace detail
}  // namespace v1
}  // namespace lumbra
