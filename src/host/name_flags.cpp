#include "host/name_flags.h"

#include "host/text.h"
#include "lumbra/lumbra.h"

namespace lumbra::host {

std::uint32_t FlagsFor(std::uint32_t nType, std::string_view Name) {
  // What stands for bytes that are no UTF-8 would be lost where the store keeps a name as UTF-8.
  const std::uint32_t nForm = IsUtf8(Name) ? 0 : RemoveObjectFlags(fObjUtf8);
  const bool bPath = nType == typeFile || nType == typeFolder;
  if (!bPath || !Name.starts_with('/')) return nForm;
  const bool bSplits = Name != "/" && Name.find('\\') == std::string_view::npos;
  return nForm | RemoveObjectFlags(bSplits ? fObjNoCase : fObjNoCase | fObjSplitPath);
}

}  // namespace lumbra::host
