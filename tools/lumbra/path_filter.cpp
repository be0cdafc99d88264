#include "path_filter.h"

#include "events/path_root.h"
#include "host/text.h"
#include "lumbra/lumbra.h"
#include "platform/os.h"

namespace lumbra::tool {
namespace {

std::u16string Folded(std::string_view Name) {
  std::u16string Wide = host::NameToUtf16(Name);
  os::UpperCase(Wide.data(), static_cast<std::uint32_t>(Wide.size()));
  return Wide;
}

template <class Text>
bool IsAtOrBelow(const Text& Name, const Text& Path) {
  if (!Name.starts_with(Path)) return false;
  return Name.size() == Path.size() || Name[Path.size()] == '/' || Name[Path.size()] == '\\';
}

}  // namespace

PathFilter::PathFilter(std::string_view Path) : m_bAll(Path.empty()) {
  const std::u16string Wide = host::NameToUtf16(Path);
  for (const std::uint8_t nType : {typeFile, typeRegistryKey})
    m_bNoCase = m_bNoCase || FindPathRoot(nType, Wide).nLength != 0;
  while (Path.ends_with('/') || Path.ends_with('\\')) Path.remove_suffix(1);
  m_Path = Path;
  m_Folded = Folded(Path);
}

bool PathFilter::Matches(std::string_view Name) const {
  if (m_bAll) return true;
  return m_bNoCase ? IsAtOrBelow(Folded(Name), m_Folded) : IsAtOrBelow(Name, std::string_view(m_Path));
}

}  // namespace lumbra::tool
