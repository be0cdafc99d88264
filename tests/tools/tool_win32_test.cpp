// What of the tool is Windows' own: names of folders, and paths.
#include <windows.h>
// Behind it, what builds on it.
#include "tools/tool_fixture.h"

namespace lumbra::test {
namespace {

class ToolWin32Test : public ToolTest {};

// Two databases in one folder, or in none, would lose their names.
TEST_F(ToolWin32Test, TakesForDatabasesWhatFoldersCanBeCalled) {
  for (const std::string Name : {"Ab", "COM", "com12", "nul-l"}) Run("record --db " + Name);
  Fails("record --db aB", "errOBJECT_ALREADY_EXISTS (0x800000D1): the store cannot tell it from database \"Ab\"");
  Run("record --db a:b", 2);
  for (const std::string Name : {"a?", "a.", "'a '", "nul", "Com1", "aux.txt", "LPT9.a.b"})
    Fails("record --db " + Name, "a new database cannot have this name");
}

TEST_F(ToolWin32Test, ScansFoldersOfEveryDepthAndRefusesSuchAStore) {
  const fs::path Deep =
      u"\\\\?\\" + WideFolder() + u"\\tree\\" + std::u16string(150, u'x') + u"\\" + std::u16string(150, u'y');
  for (const fs::path& Made : {Deep.parent_path().parent_path(), Deep.parent_path(), Deep}) {
    CreateDirectoryW(Made.c_str(), nullptr);
  }
  Run("scan --db 1 tree");
  EXPECT_EQ(Deep.u8string().substr(4), fs::u8path(Names("1")[2].get<std::string>()).u8string());
  RunProgram({LUMBRA_TOOL, "--store", std::string(200, 's'), "scan", "--db", "1", "tree"}, 1);
  EXPECT_THAT(ReadText("err"), HasSubstr("errPATH_NAME_INVALID (0x80010109): the store's path has more than 176"));
  for (const fs::path& Made : {Deep, Deep.parent_path()}) RemoveDirectoryW(Made.c_str());
}

}  // namespace
}  // namespace lumbra::test
