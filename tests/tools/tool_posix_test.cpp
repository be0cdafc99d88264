// The tool among names, links, streams and signals that posix alone has.
#include <dlfcn.h>
#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

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

TEST_F(ToolPosixTest, TellsNamesApartThatAreNoUtf8) {
  const std::string kNames[] = {"f\xff", "f\xfe", "f\xEF\xBF\xBD"};
  for (const std::string& Name : kNames) WriteFile("tree/" + Name, {});
  Run("scan tree --db 1");
  const std::string Shown = Run("events --db 1");
  for (const std::string& Name :
       {At("tree") + "/f\xEF\xBF\xBD\n", '"' + At("tree") + "/f\\xfe\"\n", '"' + At("tree") + "/f\\xff\"\n"})
    EXPECT_THAT(Shown, HasSubstr(Name));
  const std::string kIds =
      Run("find --db 1 " + At("tree/f\xff") + ' ' + At("tree/f\xfe") + ' ' + At("tree/f\xEF\xBF\xBD"));
  EXPECT_EQ(kIds.substr(0, 38),
            Run("find --db 1 --escaped '\"" + At("tree") + "/f\\xff\"' '\"" + At("tree") + "/f\\xfe\"'"));
  EXPECT_NE(kIds.substr(0, 18), kIds.substr(19, 18));
  EXPECT_NE(kIds.substr(19, 18), kIds.substr(38, 18));
  Fails("find --db 1 --escaped '\"a\\n\"'", "no name is shown like this");
}

TEST_F(ToolPosixTest, TakesTheStoreThatTheEnvironmentNames) {
  Record("1", {"a"});
  EXPECT_THAT(RunProgram({"/usr/bin/env", "LUMBRA_STORE=store", LUMBRA_TOOL, "events", "--db", "1"}),
              EndsWith("  a\n"));
}

TEST_F(ToolPosixTest, LetsNoNameReachTheTerminal) {
  fs::create_directory(Folder() / "\x1b[2J\nx");
  Run("scan '" + std::string("\x1b[2J\nx") + "' --db 1");
  for (const std::string Command : {"events --db 1", "events --json --db 1"})
    EXPECT_THAT(Run(Command), ::testing::Not(HasSubstr("\x1b"))) << Command;
  Run("record --db a\"b");
  EXPECT_THAT(Run("info -o prometheus"), HasSubstr(",database=\"a\\\"b\"} "));
  Fails("find --db 0 '\x1b'");
  EXPECT_THAT(Run("find --db 0 \x1b", 1) + Errors(), ::testing::Not(HasSubstr("\x1b")));
  Run("record --db 1 --\x1b", 2);
  EXPECT_THAT(Errors(), HasSubstr("--\\x1b"));
}

// Who may write there can lead us to other files, and put into the store what he likes.
TEST_F(ToolPosixTest, UsesNoStoreThatOthersMayChange) {
  Run("record --db 1");
  const auto Set = [this](const char* pName, fs::perms Added) {
    fs::permissions(Folder() / pName, Added, fs::perm_options::add);
  };
  Set("store/01", fs::perms::others_write);
  Fails("record --db 1", At("store/01") + " can be written by others; --trust-store uses it all the same");
  Run("record --db 1 --trust-store");
  Run("events --db 1");  // which believes nothing of it
  fs::permissions(Folder() / "store/01", fs::perms(0700));
  fs::create_directory_symlink("01", Folder() / "store/02");
  Fails("record --db 2", At("store/02") + " is a link\n");
  fs::rename(Folder() / "store/02", Folder() / "link");
  fs::create_hard_link(At("store/01/segments.dat"), At("backup"));
  for (const char* const pCommand : {"record --db 1", "repair"})
    Fails(pCommand, At("store/01/segments.dat") + " has a second name");
  if (geteuid() != 0) GTEST_SKIP() << "only root can give files away";
  ASSERT_EQ(0, chown(At("store").c_str(), 65534, 0));
  Fails("record --db 1", At("store") + " belongs to another user");
  ASSERT_EQ(0, chown(At("store").c_str(), 0, 65534));
  Set("store", fs::perms::group_write);
  Fails("record --db 1", At("store") + " can be written by its group");
  ASSERT_EQ(0, chown(Folder().c_str(), 65534, 0));
  Run("info");  // who only reads does not mind
  RunProgram({LUMBRA_TOOL, "record", "--db", "1"}, 1);
  EXPECT_THAT(Errors(), HasSubstr("root works in a folder of somebody else; name the store with --store"));
}

TEST_F(ToolPosixTest, LeavesAnotherUserNothing) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can work as another user";
  Run("record --db 1");
  fs::permissions(Folder(), fs::perms(0755));
  RunProgram({"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "/bin/sh", "-c",
              "test -d store && ! cat store/01/segments.dat && ! flock -n store/g_objid.dat true"});
  EXPECT_THAT(Errors(), HasSubstr("Permission denied"));
}

TEST_F(ToolPosixTest, LeavesAUserHisStore) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can work in the store of another user";
  Run("record --db 1 --group-readable");
  RunProgram({"/bin/sh", "-c", "chown -R 65534:65533 store && rm store/g_objbt.dat"});
  Run("record --db 2 --trust-store");
  Run("compact --replace --trust-store");
  EXPECT_EQ(
      "", RunProgram({"/bin/sh", "-c", "find store ! -user 65534 -o ! -group 65533 -o -name g_objid.dat ! -perm 640"}));
}

TEST_F(ToolPosixTest, SaysWhatOthersMayRead) {
  Run("record --db 1 --group-readable");
  EXPECT_EQ(fs::perms(0640), fs::status(At("store/01/segments.dat")).permissions());
  EXPECT_THAT(Run("check"), HasSubstr(At("store") + " first\n"));
  fs::remove_all(At("store"));
  Run("record --db 1");
  fs::permissions(At("store/01/segments.dat"), fs::perms(0644));  // which nobody gets to
  EXPECT_THAT(Run("check"), ::testing::Not(HasSubstr("others")));
}

TEST_F(ToolPosixTest, WaitsForNoPipeAndReadsNoMoreThanAFileCanHold) {
  Run("record --db a");
  for (const std::string Name : {"store/g_db_id.dat", "store/a/segments.dat", "store/g_objid.dat"}) {
    fs::rename(At(Name), At("kept"));
    ASSERT_EQ(0, mkfifo(At(Name).c_str(), 0600));
    Run("record --db a", 1);
    Run("info", 3);
    Run("events --db a", Name == "store/a/segments.dat" ? 3 : 0);
    fs::rename(At("kept"), At(Name));
  }
  fs::resize_file(At("store/g_db_id.dat"), std::uint64_t{1} << 40);
  WriteFile("store/b/segments.dat", ReadFile("store/a/segments.dat"));
  EXPECT_THAT(Run("info", 3), HasSubstr("\n  -  b "));
  EXPECT_THAT(Errors(), StartsWith("lumbra: damaged g_db_id.dat: it is longer than an index of names can be"));
}

TEST_F(ToolPosixTest, ModuleShowsItsEntryAlone) {
  EXPECT_THAT(RunProgram({"/bin/sh", "-c", "nm -D --defined-only '" LUMBRA_MODULE "'"}),
              ::testing::MatchesRegex("[0-9a-f]+ T LumbraModuleEntry\n"));
}

TEST_F(ToolPosixTest, ModuleLeavesNoMemoryBehind) {
  constexpr std::size_t kRounds = 50;
  const auto UsedBytes = [] {
    const struct mallinfo2 Now = mallinfo2();
    return Now.uordblks + Now.hblkhd;
  };
  const std::size_t nBefore = UsedBytes();
  for (std::size_t i = 0; i < kRounds; ++i) {
    void* const pModule = dlopen(LUMBRA_MODULE, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(nullptr, pModule) << dlerror();
    dlclose(pModule);
  }
  EXPECT_LT(UsedBytes(), nBefore + kRounds * 1024);
}

TEST_F(ToolPosixTest, ReadsBesideWhoHoldsTheStoreAndNamesHim) {
  Run("record --db 1 --group-readable", 0, "{'name':'C:\\\\a'}");
  const std::string Id = Find("1 C:\\a");
  {
    const auto pHeld = OpenFile(u"store/g_objid.dat");
    const std::string Who = "lumbra_tests (pid " + std::to_string(getpid()) + ", user ";
    EXPECT_THAT(Run("info"), StartsWith(At("store") + "\nheld by " + Who));
    for (const char* const pCommand : {"record --db 1", "repair --yes", "compact"})
      Fails(pCommand, "another process holds the store: " + Who);
    EXPECT_EQ("file    C:\\a\n", Described(Id));
    for (const std::string Command : {"objects --db 1", "find --db 1 C:\\a"}) EXPECT_THAT(Run(Command), HasSubstr(Id));
  }
  EXPECT_THAT(Run("info"), StartsWith(At("store") + "\nholder: unknown\n"));
  // The shell holds the store for a while.
  RunProgram({"/bin/sh", "-c",
              "exec 3<store/g_objid.dat\nflock 3\n(sleep 0.3; exec flock -u 3) &\n'" LUMBRA_TOOL
              "' --store store record --db 1 --wait 20 <in 3<&-"},
             0, "{\"name\":\"b\"}");
  if (geteuid() != 0) GTEST_SKIP() << "only root can work as another user";
  fs::permissions(Folder(), fs::perms(0755));
  RunProgram({"/bin/sh", "-c", "chmod -R go-w,a+rX store"});
  EXPECT_THAT(RunProgram({"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", LUMBRA_TOOL,
                          "--store", "store", "find", "--db", "1", "C:\\a"}),
              StartsWith(Id));
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

// A cursor before a segment knows no event of it. (Elsewhere a file may get the birth of one that had its name.)
TEST_F(ToolPosixTest, TellsLivesOfADatabaseApartByTheirBirths) {
  Record("1 --segment-events 2", {"a", "b", "c"});
  const std::string Shown = Run("events --db 1 --count 0 --show-cursor");
  const std::string Cursor = Shown.substr(Shown.rfind(' '));
  EXPECT_THAT(Run("events --db 1 --after-cursor" + Cursor), EndsWith("  c\n"));
  Run("clear --db 1 --yes");
  Record("1 --segment-events 2", {"d", "e", "f"});
  EXPECT_EQ("", Run("events --db 1 --on-gap error --after-cursor" + Cursor, 12));
}

TEST_F(ToolPosixTest, FollowsUntilItIsInterrupted) {
  Record("1", {"a"});
  const char* const pScript = "'" LUMBRA_TOOL
                              "' --store store events --db 1 -f --json --cursor-file kept >followed &\n"
                              "until grep -q '\"a\"' followed; do sleep 0.01; done\n"
                              "echo '{\"name\":\"b\"}' | '" LUMBRA_TOOL
                              "' --store store record --db 1\n"
                              "until grep -q '\"b\"' followed; do sleep 0.01; done\n"
                              "kill -INT $! && wait $!";
  RunProgram({"/bin/sh"}, 130, pScript);
  EXPECT_EQ("", Run("events --db 1 --cursor-file kept"));
}

}  // namespace
}  // namespace lumbra::test
