// The tool among names, links, streams and signals that posix alone has.
#include "tools/tool_fixture.h"

namespace lumbra::test {
namespace {

using ToolPosixTest = ToolTest;

TEST_F(ToolPosixTest, ScansEveryNameAndFollowsNoLink) {
  MakeTree();
  for (const std::string Name : {"makefile", "a/back\\\\slash\\", "a.b/c.d/\\x"})
    WriteFile("tree/" + Name, Bytes(Name.size()));
  fs::create_symlink("makefile", Folder() / "tree/link");
  fs::create_symlink("nowhere", Folder() / "tree/dangling");
  ExpectScanned("1");
}

TEST_F(ToolPosixTest, WritesNothingIntoTheStoreThatItCannotPrint) {
  std::string Many;  // more than a stream keeps back until it ends
  for (int i = 0; i < 50; ++i) Many += "{'name':'x'}\n";
  Run("record --db a", 0, Many);
  const Bytes kTree = ReadFile("store/g_objbt.dat");
  RunProgram({"/bin/sh", "-c", "'" LUMBRA_TOOL "' --store store --host h events --json --db a >&-"}, 1);
  EXPECT_EQ(kTree, ReadFile("store/g_objbt.dat"));
}

TEST_F(ToolPosixTest, TakesNothingForMissingThatItCannotLookAt) {
  Run("record --db a --segment-events 1", 0, "{'name':'x'}\n{'name':'y'}");
  fs::remove(Folder() / "store/g_db_id.dat");  // the tool itself looks into a database that the store does not know
  const fs::path Segment = At("store/a/00000002_events.dat");
  fs::remove(Segment);
  EXPECT_EQ(1, json::parse(Run("info --json")).at("databases")[1]["records"]);
  fs::create_symlink(Segment.filename(), Segment);  // a link to itself, to which every look fails
  Fails("info", "lumbra: look at " + Segment.string() + ": ");
  fs::remove(At("store/a/segments.dat"));
  fs::create_directory(At("store/a/segments.dat"));
  Fails("record --db a", "lumbra: look at " + At("store/a/segments.dat: "));
}

TEST_F(ToolPosixTest, ModuleShowsItsEntryAlone) {
  EXPECT_THAT(RunProgram({"/bin/sh", "-c", "nm -D --defined-only '" LUMBRA_MODULE "'"}),
              ::testing::MatchesRegex("[0-9a-f]+ T LumbraModuleEntry\n"));
}

TEST_F(ToolPosixTest, EndsCleanlyOnInterrupt) {
  // The shell keeps the other end of the input open: it is not over when the tool is interrupted.
  const char* const pScript = "mkfifo input && exec 3<>input\n'" LUMBRA_TOOL
                              "'"
                              " --store store record --db 1 <input &\n"
                              "printf '%s\\n' '{\"name\":\"C:\\\\a\"}' >&3\n"
                              "until [ \"$(wc -c <store/01/00000001_events.dat)\" = 44 ]; do sleep 0.01; done\n"
                              "kill -INT $! && wait $!";
  EXPECT_THAT(RunProgram({"/bin/sh"}, 130, pScript), StartsWith("recorded 1 events in "));
  EXPECT_EQ(json({"C:\\a"}), Names("1"));
}

}  // namespace
}  // namespace lumbra::test
