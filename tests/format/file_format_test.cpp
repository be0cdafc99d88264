// docs/file-format.md shows the files of a small store byte by byte: here that store is made, and compared with them.
#include <fstream>
#include <map>
#include <regex>

#include "component/component_fixture.h"

namespace lumbra::test {
namespace {

using Files = std::map<std::string, std::string>;  // contents by names in the store's folder

// A heading "### `name`, `name`: 12 bytes" begins files of equal content, and a line "  8  01 00  meaning" tells the
// bytes from an offset on. All others are 0.
Files ReadDocument() {
  const std::regex kHeading("### .*: (\\d+) bytes");
  const std::regex kName("`([^`]+)`");
  const std::regex kBytes(" +(\\d+)  ([0-9a-f]{2}(?: [0-9a-f]{2})*)  .*");
  Files Shown;
  std::vector<std::string*> Contents;
  std::ifstream Document(LUMBRA_DOCS "/file-format.md");
  for (std::string Line; std::getline(Document, Line);) {
    std::smatch Found;
    if (std::regex_match(Line, Found, kHeading)) {
      Contents.clear();
      for (std::sregex_iterator Name(Line.begin(), Line.end(), kName); Name != std::sregex_iterator(); ++Name)
        Contents.push_back(&(Shown[(*Name)[1]] = std::string(std::stoul(Found[1]), '\0')));
    } else if (std::regex_match(Line, Found, kBytes)) {
      const Bytes Told = FromHex(Found[2].str());
      for (std::string* const pContent : Contents)
        pContent->replace(std::stoul(Found[1]), Told.size(), std::string(Told.begin(), Told.end()));
    }
  }
  return Shown;
}

class FileFormatTest : public ComponentTest {
 protected:
  Files ReadStore() const {
    Files Made;
    for (const fs::directory_entry& Entry : fs::recursive_directory_iterator(Folder())) {
      const fs::path Name = Entry.path().lexically_relative(Folder());
      if (Entry.is_regular_file()) Made[Name.generic_string()] = ReadText(Name);
    }
    return Made;
  }

  static std::string Hex(const std::string& Content) { return ToHex(Bytes(Content.begin(), Content.end())); }
};

TEST_F(FileFormatTest, IsWhatTheDocumentShows) {
  const std::uint64_t nFile = Find(5, u"C:\\Dir\\file");
  ASSERT_CODE(errOK, Call(&Ops::SetObjectData, nFile, "data", 4, 7));
  for (const std::uint64_t nTime : {0x01DA3C457689C000, 0x01DA3C457689C001}) ASSERT_CODE(errOK, Add(5, nTime, nFile));
  Unload();
  Files Shown = ReadDocument();
  const Files Made = ReadStore();
  for (const auto& [Name, Content] : Made) EXPECT_EQ(Hex(Shown[Name]), Hex(Content)) << Name;
  EXPECT_EQ(Made.size(), Shown.size());  // none beside them
}

}  // namespace
}  // namespace lumbra::test
