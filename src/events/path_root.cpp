#include "events/path_root.h"

#include <algorithm>

#include "lumbra/lumbra.h"

namespace lumbra {
namespace {

constexpr std::size_t kLongPrefix = 4;

// \\?\ and \??\ .
bool HasLongPrefix(std::u16string_view Path) {
  return Path.size() >= kLongPrefix && Path[0] == u'\\' && (Path[1] == u'\\' || Path[1] == u'?') && Path[2] == u'?' &&
         Path[3] == u'\\';
}

// \\?\Volume{...}\ with 36 units between the braces, which are not looked at.
std::size_t VolumeRootLength(std::u16string_view Path) {
  constexpr std::size_t kLength = 49;
  const bool bVolume = Path.size() >= kLength && HasLongPrefix(Path) &&
                       Path.substr(kLongPrefix).starts_with(u"Volume{") && Path[47] == u'}' && Path[48] == u'\\';
  return bVolume ? kLength : 0;
}

// \\server or UNC\server: up to the separator, without the share.
std::size_t ServerRootLength(std::u16string_view Path) {
  if (Path.size() < 3) return 0;
  const std::size_t nServer = Path.starts_with(u"\\\\") ? 2 : Path.starts_with(u"UNC\\") ? 4 : 0;
  if (nServer == 0) return 0;
  constexpr std::u16string_view kEnds(u"\0\\/", 3);
  return std::min(Path.find_first_of(kEnds, nServer), Path.size());
}

std::size_t DriveRootLength(std::u16string_view Path) {
  if (Path.size() < 2 || Path[1] != u':') return 0;
  const char16_t c = Path[0];
  return (c >= u'A' && c <= u'Z') || (c >= u'a' && c <= u'z') ? 2 : 0;
}

// A name of just two units that are one of the predefined handles, an abbreviation, or the first of the full names
// that the path starts with. What follows the name is not looked at.
std::size_t RegistryRootLength(std::u16string_view Path, bool bHalfUnit) {
  if (Path.size() == 2 && !bHalfUnit) {
    const std::uint32_t nHandle = Path[0] | (std::uint32_t{Path[1]} << 16);
    return nHandle >= 0x80000000u && nHandle <= 0x80000006u ? 2 : 0;
  }
  for (const std::u16string_view Root : {u"HKLM", u"HKCR", u"HKCU"}) {
    if (Path.starts_with(Root)) return Root.size();
  }
  for (const std::u16string_view Root :
       {u"HKEY_CLASSES_ROOT", u"HKEY_CURRENT_USER", u"HKEY_LOCAL_MACHINE", u"HKEY_USERS", u"HKEY_PERFORMANCE_DATA",
        u"HKEY_CURRENT_CONFIG", u"HKEY_DYN_DATA"}) {
    if (Path.starts_with(Root)) return Root.size();
  }
  return 0;
}

}  // namespace

PathRoot FindPathRoot(std::uint8_t nObjectType, std::u16string_view Path, bool bHalfUnit) {
  if (nObjectType == typeRegistryKey || nObjectType == typeRegistryValue) {
    return {typeRegistryRoot, 0, RegistryRootLength(Path, bHalfUnit)};
  }
  if (const std::size_t nLength = VolumeRootLength(Path); nLength != 0) return {typeVolumeRoot, 0, nLength};
  const std::size_t nStart = HasLongPrefix(Path) ? kLongPrefix : 0;
  const std::u16string_view Rest = Path.substr(nStart);
  if (const std::size_t nLength = ServerRootLength(Rest); nLength != 0) return {typeServerRoot, nStart, nLength};
  return {typeDriveRoot, nStart, DriveRootLength(Rest)};
}

}  // namespace lumbra
