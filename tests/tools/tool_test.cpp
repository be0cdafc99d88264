// The command-line tool, run as a user runs it.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "support/world.h"

namespace lumbra::test {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using Strings = std::vector<std::string>;

class ToolTest : public World {
 protected:
  // Runs the tool on the test's store; what it wrote to standard output.
  std::string Run(const std::string& Arguments, int nStatus = 0, const std::string& Input = "") {
    std::ofstream(Folder() / "in") << Input;
    const std::string Command = std::string(LUMBRA_TOOL) + " --store " + (Folder() / "store").string() + " --host h " +
                                Arguments + " <" + (Folder() / "in").string() + " 2>" + (Folder() / "err").string();
    std::FILE* const pPipe = popen(Command.c_str(), "r");
    std::string Output;
    for (int c = 0; (c = std::getc(pPipe)) != EOF;) Output += static_cast<char>(c);
    EXPECT_EQ(nStatus, WEXITSTATUS(pclose(pPipe))) << Arguments << '\n' << Errors();
    return Output;
  }
  std::string Errors() {
    const Bytes Text = ReadFile("err");
    return {Text.begin(), Text.end()};
  }

  std::vector<json> Events(const std::string& Options) {
    std::istringstream Lines(Run("events --json " + Options));
    std::vector<json> Parsed;
    for (std::string Line; std::getline(Lines, Line);) Parsed.push_back(json::parse(Line));
    return Parsed;
  }
  static Strings Names(const std::vector<json>& Shown) {
    Strings Found;
    for (const json& One : Shown) Found.push_back(One["name"]);
    return Found;
  }

  // A folder with what makes trouble: case, links, names that are no paths of this store, and nothing at all.
  fs::path MakeTree() {
    const fs::path Tree = Folder() / "tree";
    for (const char* const pName : {"Makefile", "makefile", "a/deep/er/file", "a/back\\\\slash\\", "\xC3\xA9t\xC3\xA9",
                                    "two  spaces", "a.b/c.d/\\x"}) {
      fs::create_directories((Tree / pName).parent_path());
      std::ofstream(Tree / pName) << pName;
    }
    fs::create_directory(Tree / "empty");
    fs::create_symlink("makefile", Tree / "link");
    fs::create_symlink("nowhere", Tree / "dangling");
    return Tree;
  }
};

TEST_F(ToolTest, ScanThenEventsGivesTheFolder) {
  const fs::path Tree = MakeTree();
  Strings Expected{Tree};
  for (const fs::directory_entry& Entry : fs::recursive_directory_iterator(Tree)) Expected.push_back(Entry.path());
  std::sort(Expected.begin(), Expected.end());
  for (const char* const pOptions : {"--db 1", "--db named", "--db 2 --check-mode", "--db 3 --segment-events 2"}) {
    const std::string Database = std::string(pOptions).substr(0, std::string(pOptions).find(' ', 5));
    EXPECT_TRUE(Run(std::string("scan ") + pOptions + ' ' + (Folder() / "tree/").string())
                    .starts_with("recorded 16 events in "));
    const std::vector<json> Shown = Events(Database);
    Strings Found = Names(Shown);
    std::sort(Found.begin(), Found.end());
    EXPECT_EQ(Expected, Found) << pOptions;
    for (const json& One : Shown) {
      const fs::path Path = One["name"].get<std::string>();
      const bool bLink = fs::is_symlink(Path);
      EXPECT_EQ(bLink ? 3 : fs::is_directory(Path) ? 2 : 1, One["kind"].get<int>()) << Path;
      EXPECT_EQ(!bLink && fs::is_directory(Path) ? 2 : 1, One["type"].get<int>()) << Path;
      if (!bLink && !fs::is_directory(Path)) {
        EXPECT_EQ(fs::file_size(Path), One["value"].get<std::uint64_t>()) << Path;
      }
    }
  }
  const json Info = json::parse(Run("info --json"));
  EXPECT_FALSE(Info["corrupted"].get<bool>());
  Strings Databases;
  for (const json& One : Info["databases"]) {
    Databases.push_back(One["folder"].get<std::string>() + ' ' + std::to_string(One["id"].get<int>()) + ' ' +
                        std::to_string(One["event_size"].get<int>()) + ' ' + std::to_string(One["records"].get<int>()) +
                        ' ' + std::to_string(One["segments"].get<int>()));
  }
  EXPECT_EQ((Strings{"00 0 1 0 1", "01 1 32 16 1", "02 2 32 16 1", "03 3 32 16 8", "named 48 32 16 1"}), Databases);
}

TEST_F(ToolTest, KeepsNamesWithTheirEvents) {
  MakeTree();
  Run("scan --db 1 --segment-events 2 --max-events 4 " + (Folder() / "tree").string());
  const std::vector<json> Shown = Events("--db 1");
  EXPECT_GE(4u, Shown.size());
  for (const json& One : Shown) EXPECT_TRUE(One["name"].is_string()) << One;
}

TEST_F(ToolTest, RecordsLinesAndShowsThem) {
  EXPECT_TRUE(Run("record --db notes", 1,
                  "{\"name\":\"C:\\\\Dir\\\\f\",\"time\":\"2026-11-24T13:34:00.1234567Z\",\"kind\":7,"
                  "\"value\":18446744073709551615}\n"
                  "nonsense\n\n{\"name\":\"\"}\n{\"type\":\"file\"}\n"
                  "{\"name\":\"HKLM\\\\Key\",\"type\":\"key\",\"time\":\"2026-11-24T15:04:00+01:30\"}\n"
                  "{\"name\":\"x\",\"time\":\"yesterday\"}\n{\"name\":\"x\",\"kind\":-1}\n{\"name\":\"x\","
                  "\"type\":256}\n{\"name\":\"x\",\"type\":\"thing\"}\n"
                  "{\"name\":\"/\"}\n{\"name\":\"plain\",\"type\":32,\"time\":\"2026-12-31t23:59:60.123456789z\"}")
                  .starts_with("recorded 4 events in "));
  const std::string Problems = Errors();
  for (const char* const pLine : {"line 2: not a JSON object\n", "line 4: \"name\"", "line 5: \"name\"",
                                  "line 7: \"time\"", "line 8: \"kind\"", "line 9: \"type\"", "line 10: \"type\""}) {
    EXPECT_NE(std::string::npos, Problems.find(pLine)) << pLine << Problems;
  }
  const std::vector<json> Shown = Events("--db notes");
  EXPECT_EQ((Strings{"C:\\Dir\\f", "HKLM\\Key", "/", "plain"}), Names(Shown));
  EXPECT_EQ("2026-11-24T13:34:00.1234567Z", Shown[0]["time"]);
  EXPECT_EQ("2026-11-24T13:34:00.0000000Z", Shown[1]["time"]);
  EXPECT_EQ("2027-01-01T00:00:00.1234567Z", Shown[3]["time"]);
  EXPECT_EQ(7, Shown[0]["kind"].get<int>());
  EXPECT_EQ(UINT64_MAX, Shown[0]["value"].get<std::uint64_t>());
  EXPECT_EQ(3, Shown[1]["type"].get<int>());
  EXPECT_EQ("0x3000000100000003", Shown[3]["id"]);
}

TEST_F(ToolTest, ChoosesEvents) {
  std::string Input;
  for (int i = 0; i < 25; ++i) Input += "{\"name\":\"n" + std::to_string(i) + "\",\"type\":\"name\"}\n";
  Run("record --db 1 --segment-events 10", 0, Input);
  const auto Count = [this](const std::string& Options) {
    return Events("--db 1 " + Options);
  };
  EXPECT_EQ(25u, Count("").size());
  EXPECT_EQ((Strings{"n18", "n19", "n20"}), Names(Count("--last 7 --count 3")));
  EXPECT_EQ((Strings{"n23", "n24"}), Names(Count("--from 0x0100000300000003")));
  EXPECT_EQ((Strings{"n20", "n21"}),
            Names(Count("--from 0100000200000063 --count 2")));  // behind a segment's last
  EXPECT_EQ(25u, Count("--last 100").size());
  EXPECT_EQ(0u, Count("--last 0").size());
  Run("events --db 1 --from 0x0200000100000000", 1);
  EXPECT_NE(std::string::npos, Errors().find("this is no event of database 1"));
}

TEST_F(ToolTest, FindsNamesAndLinksObjects) {
  const fs::path Tree = MakeTree();
  Run("scan --db 1 " + Tree.string());
  const std::string Folder = Run("find --db 1 --type folder " + (Tree / "a").string());
  const std::string File = Run("find --db 1 " + (Tree / "a/deep/er/file").string() + ' ' + (Tree / "none").string(), 1);
  EXPECT_EQ("not found\n", File.substr(19));
  const std::string Id = File.substr(0, 18);
  EXPECT_EQ(Id + "  file    " + (Tree / "a/deep/er/file").string() + '\n', Run("name " + Id));
  const std::string Deep = Run("find --db 1 --type folder --parent " + Folder.substr(0, 18) + " /deep");
  EXPECT_EQ((Tree / "a/deep").string() + '\n', Run("name " + Deep.substr(2, 16)).substr(28));
  EXPECT_EQ("0x0000000000000002  file    h\n0x0100000100009999  not found\n", Run("name 2 100000100009999", 1));
  Run("find --db 1 --parent 2 x", 1);
  Run("find --db other x", 1);
  const std::vector<json> Shown = Events("--db 1 --parents --last 1");
  EXPECT_EQ(fs::path(Shown[0]["name"].get<std::string>()).parent_path().string() + '\n',
            Run("name " + Shown[0]["parent"].get<std::string>()).substr(28));

  const std::string Key = Run("find --db keys --create --type key 'HKLM\\One'").substr(0, 18);
  const std::string Other = Run("find --db keys --create --type 3 'HKLM\\Two'").substr(0, 18);
  EXPECT_EQ("0x30", Key.substr(0, 4));
  Run("link " + Key + ' ' + Other);
  EXPECT_EQ(Key + "  key     HKLM\\Two\n", Run("name " + Key));
  const std::string Shared = Run("find --db 0 --create --type key 'HKLM\\Two'").substr(0, 18);
  const std::string BelowFile = Run("find --db keys --create --type key --parent " +
                                    Run("find --db keys --create 'C:\\file'").substr(0, 18) + " below")
                                    .substr(0, 18);
  const std::string Root = Run("find --db keys --type 20 C:").substr(0, 18);
  for (const auto& [Wrong, Reason] :
       std::vector<std::pair<std::string, std::string>>{{Other + ' ' + Key, "would run in a circle"},
                                                        {Key + ' ' + Id, "it stands for " + Other + " already"},
                                                        {Other + ' ' + Other, "would run in a circle"},
                                                        {Other + ' ' + Id, "they are in two stores"},
                                                        {Root + ' ' + Other, "the store would not follow this link"},
                                                        {Shared + " 2", "2 stands for the host's name"},
                                                        {Other + ' ' + BelowFile, "nothing can stand for a file"}}) {
    Run("link " + Wrong, 1);
    EXPECT_NE(std::string::npos, Errors().find(Reason)) << Errors();
  }
}

TEST_F(ToolTest, KeepsDataOfObjects) {
  const std::string Id = Run("find --db 0 --create thing").substr(0, 18);
  const std::string kBytes("a\0b\n\xFF", 5);
  Run("data set " + Id + " 0x10", 0, kBytes);
  EXPECT_EQ(kBytes, Run("data get " + Id + " 16"));
  Run("data set " + Id + " 7 " + (Folder() / "in").string(), 0, "from a file");
  Run("data get " + Id + " 7 " + (Folder() / "out").string());
  const Bytes Copy = ReadFile("out");
  EXPECT_EQ("from a file", std::string(Copy.begin(), Copy.end()));
  Run("data clear " + Id);
  Run("data get " + Id + " 7", 1);
  EXPECT_NE(std::string::npos, Errors().find("errNOT_FOUND (0x8000004C): there is nothing under this id or key"));
  Run("data set 0100000100000001 1", 1);
  EXPECT_NE(std::string::npos, Errors().find("there is no such database in this store"));
  for (const char* const pUsage : {"data", "data get 1", "data get 1 x", "data set 1 4294967296", "data clear", "name",
                                   "name 0x", "link 1", "find --db 1", "find --db 1 --type 256 x", "clear --db 1",
                                   "clear --db 1 --yes=false", "name 0", "find --db 1 ''", "events --db 1 --last -1"}) {
    Run(pUsage, 2);
  }
}

TEST_F(ToolTest, ChecksCompactsAndClears) {
  EXPECT_TRUE(Run("find --db 0 --create a b c --check-mode").starts_with("0x"));
  EXPECT_NE(std::string::npos, Run("check").find("6 shared objects\nThe newest objects are sound.\n"));
  Patch("store/g_objbt.dat", 1040, {1, 2, 3, 4});
  EXPECT_NE(std::string::npos,
            Run("check").find("have been put back\n    (BT was repaired, 6 object hashes were added)"));
  Patch("store/g_objdt.dat", 4, {'?'});  // the oldest name: no matter of the quick check
  Run("check");
  const std::string Told = Run("compact", 1);
  EXPECT_NE(std::string::npos,
            Told.find("Compact: name crc mismatch, entry id: 0, offset: 4, the object is marked as"));
  EXPECT_NE(std::string::npos, Told.find("g_objidcompacted.dat " + std::string(13, ' ') + "210 bytes"));
  EXPECT_NE(std::string::npos, Told.find("beside the live one"));
  Run("name 1", 1);  // met, and marked
  EXPECT_NE(std::string::npos, Run("check", 1).find("The store is marked corrupted"));
  Run("record --db 1", 0, "{\"name\":\"x\"}");
  for (const Bytes& Header : {ReadFile("store/01/segments.dat"), Bytes{1, 2, 3}}) {
    WriteFile("store/01/segments.dat", Header);
    Run("clear --db 1 --yes");
    EXPECT_EQ(0u, Events("--db 1").size());
  }
  WriteFile("store/g_db_id.dat", Bytes(64, '?'));
  EXPECT_NE(std::string::npos, Run("check", 1).find("has been replaced by an empty one"));
}

TEST_F(ToolTest, NamesObjectsOfOtherDatabases) {
  const std::string Id = Run("find --db 2 --create 'C:\\elsewhere'").substr(0, 18);
  Run("record --db 1", 0, "{\"name\":\"x\"}");
  Bytes Object(8);
  const std::uint64_t nId = std::stoull(Id, nullptr, 16);
  std::memcpy(Object.data(), &nId, sizeof(nId));
  Patch("store/01/00000001_events.dat", 12 + 8, Object);
  const json Shown = Events("--db 1 --parents")[0];
  EXPECT_EQ("C:\\elsewhere", Shown["name"]);
  EXPECT_EQ("0x0200000100000001", Shown["parent"]);
  Run("record --db 2", 0, "{\"name\":\"x\"}");
  const Bytes kEvents = ReadFile("store/02/00000001_events.dat");
  Patch("store/02/segments.dat", 4, {9});  // leads nowhere: to open it would start it anew
  EXPECT_NE(std::string::npos, Run("events --db 1", 1).find("(its name cannot be read)"));
  Run("info", 1);
  EXPECT_EQ(kEvents, ReadFile("store/02/00000001_events.dat"));
  fs::remove_all(Folder() / "store/02");
  EXPECT_EQ(json(), Events("--db 1")[0]["name"]);
}

TEST_F(ToolTest, SaysWhatFailed) {
  EXPECT_EQ("", Run("info", 1));
  EXPECT_EQ(
      "lumbra: open " + (Folder() / "store").string() + ": errOBJECT_NOT_FOUND (0x800000C5): there is no store here\n",
      Errors());
  for (const char* const pUsage : {"", "frob", "events", "events --db 0", "events --db 48", "events --db 12345",
                                   "events --db ..", "events --db a/b", "events --db 2f", "events --db 1 --from xyz",
                                   "events --db 1 --last 1 --from 1", "scan --db 1", "scan --db 1 --max-size x /"}) {
    Run(pUsage, 2);
  }
  Run("record --db 1", 0, "{\"name\":\"x\"}");
  Run("events --db 2", 1);
  EXPECT_EQ("lumbra: open database 2: errOBJECT_NOT_FOUND (0x800000C5): there is no such database in this store\n",
            Errors());
  Run("record --db 1 /does/not/exist", 1);

  // A database that would start anew if it were opened is not opened.
  const Bytes kHeader = ReadFile("store/01/segments.dat");
  fs::remove(Folder() / "store/01/segments.dat");
  Run("record --db 1", 1);
  WriteFile("store/01/segments.dat", {1, 2, 3});
  for (const char* const pCommand : {"events --db 1", "record --db 1", "scan --db 1 /dev/null"}) Run(pCommand, 1);
  EXPECT_NE(std::string::npos, Errors().find("errDATA_CORRUPTED"));
  EXPECT_EQ((Bytes{1, 2, 3}), ReadFile("store/01/segments.dat"));
  Run("info", 1);
  WriteFile("store/01/segments.dat", kHeader);
  EXPECT_EQ(1u, Events("--db 1").size());
  Run("record --db a", 0, "{\"name\":\"x\"}");
  Run("record --db \xC3\xA1", 1);  // of the same key in the index
  EXPECT_NE(std::string::npos, Errors().find("the store cannot tell it from database \"a\""));
  const Bytes kTree = ReadFile("store/g_objbt.dat");
  Run("events --db 1 >&-", 1);  // what it cannot print does not land in a file of the store
  EXPECT_EQ(kTree, ReadFile("store/g_objbt.dat"));

  const auto pHeld = OpenFile(u"store/g_objid.dat");
  Run("info", 1);
  EXPECT_NE(std::string::npos, Errors().find("errSHARING_VIOLATION (0x80010104): another process holds the store"));
}

TEST_F(ToolTest, EndsCleanlyOnInterrupt) {
  int Pipe[2];
  ASSERT_EQ(0, pipe(Pipe));
  const pid_t nChild = fork();
  if (nChild == 0) {
    dup2(Pipe[0], 0);
    close(Pipe[1]);
    std::freopen((Folder() / "out").c_str(), "w", stdout);
    execl(LUMBRA_TOOL, LUMBRA_TOOL, "--store", (Folder() / "store").c_str(), "record", "--db", "1", nullptr);
    _exit(99);
  }
  close(Pipe[0]);
  const std::string_view Line = "{\"name\":\"C:\\\\a\"}\n";
  ASSERT_EQ(static_cast<ssize_t>(Line.size()), write(Pipe[1], Line.data(), Line.size()));
  while (!fs::exists(Folder() / "store/01/00000001_events.dat") || FileSize("store/01/00000001_events.dat") < 44)
    usleep(1000);
  kill(nChild, SIGINT);
  int nStatus = 0;
  ASSERT_EQ(nChild, waitpid(nChild, &nStatus, 0));
  close(Pipe[1]);
  EXPECT_EQ(130, WEXITSTATUS(nStatus));
  const Bytes Output = ReadFile("out");
  EXPECT_TRUE(std::string(Output.begin(), Output.end()).starts_with("recorded 1 events in "));
  EXPECT_EQ(Strings{"C:\\a"}, Names(Events("--db 1")));
}

TEST(Example, EmbedsTheStore) {
  std::FILE* const pPipe = popen("cd \"$(mktemp -d)\" && " LUMBRA_EMBED " && rm -r embed-store", "r");
  char Line[100] = {};
  EXPECT_NE(nullptr, std::fgets(Line, sizeof(Line), pPipe));
  EXPECT_STREQ("event 42 is about C:\\Reports\\today.txt\n", Line);
  EXPECT_EQ(0, pclose(pPipe));
}

}  // namespace
}  // namespace lumbra::test
