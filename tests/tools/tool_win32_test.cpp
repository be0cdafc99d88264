// What of the tool is Windows' own: names of folders.
#include "tools/tool_fixture.h"

namespace lumbra::test {
namespace {

using ToolWin32Test = ToolTest;

// Two databases in one folder, or in none, would lose their names.
TEST_F(ToolWin32Test, TakesForDatabasesWhatFoldersCanBeCalled) {
  for (const std::string Name : {"Ab", "COM", "com12", "nul-l"}) Run("record --db " + Name);
  Fails("record --db aB", "errOBJECT_ALREADY_EXISTS (0x800000D1): the store cannot tell it from database \"Ab\"");
  Run("record --db a:b", 2);
  for (const std::string Name : {"a?", "a.", "'a '", "nul", "Com1", "aux.txt", "LPT9.a.b"})
    Fails("record --db " + Name, "a new database cannot have this name");
}

}  // namespace
}  // namespace lumbra::test
