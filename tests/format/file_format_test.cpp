// docs/file-format.md shows the files of a small store byte by byte: here that store is made, and compared with them.
#include <fstream>
#include <map>
#include <sstream>

#include "component/component_fixture.h"

namespace lumbra::test {
namespace {

using Files = std::map<std::string, std::string>;  // contents by names in the store's folder

// A heading "### `name`, `name`: 12 bytes" begins files of equal content. A line below it tells some of the bytes: up
// to 7 digits of their offset, two blanks, the bytes, two blanks, what they mean. All others are 0.
Files ReadDocument() {
  Files Shown;
  std::vector<std::string*> Contents;
  std::ifstream Document(LUMBRA_DOCS "/file-format.md");
  for (std::string Line; std::getline(Document, Line);) {
    if (Line.starts_with("### `")) {
      const std::size_t nSize = std::stoul(Line.substr(Line.rfind(": ") + 2));
      std::istringstream Heading(Line);
      Contents.clear();
      for (std::string Name; std::getline(std::getline(Heading, Name, '`'), Name, '`');)
        Contents.push_back(&(Shown[Name] = std::string(nSize, '\0')));
    } else if (Line.starts_with("   ")) {
      constexpr std::size_t kFirst = 9;
      for (std::string* const pContent : Contents) {
        const Bytes Told = FromHex(Line.substr(kFirst, Line.find("  ", kFirst) - kFirst));
        pContent->replace(std::stoul(Line), Told.size(), std::string(Told.begin(), Told.end()));
      }
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
