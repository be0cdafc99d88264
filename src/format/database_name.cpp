#include "format/database_name.h"

#include <algorithm>
#include <string>

#include "format/file_names.h"
#include "lumbra/lumbra.h"

namespace lumbra {
namespace {

constexpr std::u16string_view kOwnNames[] = {kIndexFile,        kSharedTreeFile,    kSharedIdsFile, kSharedDataFile,
                                             kCompactedIdsFile, kCompactedDataFile, kSegmentsFile,  kIdentityFile,
                                             kSetAsideFolder,   kReplacingFile,     kManifestFile,  kSourceFile};
constexpr std::u16string_view kOwnEndings[] = {u".schema", kHealingEnding};

// The store's own names have no other letters.
std::u16string LowerCase(std::u16string_view Text) {
  std::u16string Lower(Text);
  for (char16_t& c : Lower) {
    if (c >= u'A' && c <= u'Z') c = static_cast<char16_t>(c + (u'a' - u'A'));
  }
  return Lower;
}

bool IsControl(char16_t c) {
  return c < 0x20 || (c >= 0x7F && c < 0xA0);
}

bool HasUnpairedSurrogate(std::u16string_view Name) {
  const auto IsHigh = [](char16_t c) {
    return c >= 0xD800 && c < 0xDC00;
  };
  const auto IsLow = [](char16_t c) {
    return c >= 0xDC00 && c < 0xE000;
  };
  for (std::size_t i = 0; i < Name.size(); ++i) {
    if (IsHigh(Name[i]) && i + 1 < Name.size() && IsLow(Name[i + 1])) {
      ++i;
    } else if (IsHigh(Name[i]) || IsLow(Name[i])) {
      return true;
    }
  }
  return false;
}

bool IsNumberedFolder(const std::u16string& Lower) {
  for (std::uint32_t nDatabase = 0; nDatabase < kFirstNamedDatabase; ++nDatabase) {
    if (Lower == LowerCase(NumberedFolder(nDatabase))) return true;
  }
  return false;
}

bool IsTheStores(const std::u16string& Lower) {
  const auto EndsTheName = [&](std::u16string_view Ending) {
    return Lower.ends_with(Ending);
  };
  return std::ranges::find(kOwnNames, Lower) != std::end(kOwnNames) || std::ranges::any_of(kOwnEndings, EndsTheName);
}

#ifdef _WIN32
// A device, whatever stands behind a point: "con", "nul.txt", "com1".
bool IsDevice(const std::u16string& Lower) {
  std::u16string_view Stem = std::u16string_view(Lower).substr(0, Lower.find(u'.'));
  while (Stem.ends_with(u' ')) Stem.remove_suffix(1);
  for (const std::u16string_view Device : {u"con", u"prn", u"aux", u"nul", u"conin$", u"conout$"}) {
    if (Stem == Device) return true;
  }
  const bool bPort = Stem.starts_with(u"com") || Stem.starts_with(u"lpt");
  constexpr std::u16string_view kNumbers = u"0123456789\u00B9\u00B2\u00B3";
  return bPort && Stem.size() == 4 && kNumbers.find(Stem[3]) != std::u16string_view::npos;
}

constexpr std::u16string_view kNotInNames = {u"/\\:\0", 4};

// Of which the system drops all.
bool LeadsElsewhere(std::u16string_view Name) {
  return Name.find_first_not_of(u". ") == std::u16string_view::npos;
}

bool SystemTakes(const std::u16string& Lower) {
  constexpr std::u16string_view kNotInNewNames = u"<>\"|?*";
  return !IsDevice(Lower) && !Lower.ends_with(u'.') && !Lower.ends_with(u' ') &&
         Lower.find_first_of(kNotInNewNames) == std::u16string::npos;
}
#else
constexpr std::u16string_view kNotInNames = {u"/\\\0", 3};

bool LeadsElsewhere(std::u16string_view Name) {
  return Name.empty() || Name == u"." || Name == u"..";
}

bool SystemTakes(const std::u16string&) {
  return true;
}
#endif

}  // namespace

bool IsPlainFolderName(std::u16string_view Name) {
  return Name.find_first_of(kNotInNames) == std::u16string_view::npos && !LeadsElsewhere(Name) &&
         !IsNumberedFolder(LowerCase(Name));
}

bool IsDatabaseName(std::u16string_view Name) {
  if (!IsPlainFolderName(Name) || std::ranges::any_of(Name, &IsControl) || HasUnpairedSurrogate(Name)) return false;
  const std::u16string Lower = LowerCase(Name);
  return !IsTheStores(Lower) && SystemTakes(Lower);
}

}  // namespace lumbra
