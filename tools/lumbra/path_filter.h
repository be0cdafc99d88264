// Which names are those of a path and of what is below it.
#pragma once

#include <string>
#include <string_view>

namespace lumbra::tool {

class PathFilter {
 public:
  // Every name for an empty path. A path with a root of those systems where case does not count is compared without it.
  explicit PathFilter(std::string_view Path);

  bool Matches(std::string_view Name) const;

 private:
  bool m_bAll;
  bool m_bNoCase = false;
  std::string m_Path;       // without separators at its end
  std::u16string m_Folded;  // the same in upper case
};

}  // namespace lumbra::tool
