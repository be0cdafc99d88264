// A path taken apart behind its root.
#pragma once

#include <cstddef>
#include <string_view>

namespace lumbra {

constexpr bool IsSeparator(char16_t c) {
  return c == u'\\' || c == u'/';
}

struct Component {
  std::u16string_view Name;
  bool bMoreFollows;
};

// Takes the next component off a path. A '/' before it is part of it, a '\' is not.
inline bool NextComponent(std::u16string_view Path, std::size_t* pnPosition, Component* pComponent) {
  std::size_t nStart = *pnPosition;
  while (nStart < Path.size() && IsSeparator(Path[nStart])) ++nStart;
  if (nStart == Path.size()) return false;
  std::size_t nEnd = nStart;
  while (nEnd < Path.size() && !IsSeparator(Path[nEnd])) ++nEnd;
  if (nStart > 0 && Path[nStart - 1] == u'/') --nStart;
  *pComponent = {Path.substr(nStart, nEnd - nStart), nEnd < Path.size()};
  *pnPosition = nEnd;
  return true;
}

}  // namespace lumbra
