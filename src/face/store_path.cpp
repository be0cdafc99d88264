#include "face/store_path.h"

#include <algorithm>
#include <string>
#include <system_error>

#include "face/state.h"
#include "host/text.h"

namespace lumbra {
inline namespace v1 {
namespace detail {
namespace {

namespace fs = std::filesystem;

fs::path WithoutTrailingSeparator(const fs::path& Path) {
  return Path.has_filename() || Path == Path.root_path() ? Path : Path.parent_path();
}

// Why a path is none that a store can have; empty where it is one.
std::string WhyNoStorePath(const fs::path& Folder) {
  if (Folder.empty()) return "the path is empty";
  if (Folder.native().find(fs::path::value_type{}) != fs::path::string_type::npos) return "the path has a zero inside";
  constexpr std::size_t kLongest = 32767;  // units, for the tables
  if (Folder.native().size() > kLongest) return "the path is too long";
#ifndef _WIN32
  if (!host::IsUtf8(Folder.string()) || Folder.string().find('\\') != std::string::npos)
    return "the path must be UTF-8, and without '\\'";
#endif
  return {};
}

}  // namespace

fs::path CanonicalStorePath(const fs::path& Folder) {
  std::error_code Refused;
  const fs::path Found = fs::weakly_canonical(Folder, Refused);
  return Refused ? Folder : WithoutTrailingSeparator(Found);
}

// What stands before a ".." may be a link, so it is not just left out; what stands last may be one as well, and stays.
fs::path AbsoluteStorePath(const fs::path& Folder) {
  const auto Check = [&Folder](std::string Why) {
    if (!Why.empty()) throw MakeError(errPATH_NAME_INVALID, "open", Folder, std::move(Why));
  };
  Check(WhyNoStorePath(Folder));
  std::error_code Refused;
  const fs::path Path = WithoutTrailingSeparator(fs::absolute(Folder, Refused));
  Check(Refused ? "the path begins at the current folder, which cannot be found" : WhyNoStorePath(Path));
  if (std::find(Path.begin(), Path.end(), fs::path("..")) == Path.end())
    return WithoutTrailingSeparator(Path.lexically_normal());
  const fs::path Last = Path.filename();
  return Last == "." || Last == ".." ? CanonicalStorePath(Path) : CanonicalStorePath(Path.parent_path()) / Last;
}

}  // namespace detail
}  // namespace v1
}  // namespace lumbra
