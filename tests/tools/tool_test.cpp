// The command-line tool: its commands, what they say, and what they refuse.
#include <thread>

#include "host/printed_text.h"
#include "tools/tool_fixture.h"

namespace lumbra::test {
namespace {

TEST_F(ToolTest, ScanThenEventsGivesTheFolder) {
  MakeTree();
  for (const char* const pOptions : {"1", "named", "2 --check-mode", "3 --segment-events 2"}) ExpectScanned(pOptions);
}

TEST_F(ToolTest, InfoDescribesDatabases) {
  Record("3 --segment-events 2", {"a", "b", "c"});
  Record("named", {"x"});
  const json Info = json::parse(Run("info --json"));
  EXPECT_EQ(false, Info.at("corrupted"));
  json Databases;
  for (const json& One : Info.at("databases"))
    Databases.push_back({One["folder"], One["id"], One["event_size"], One["records"], One["segments"]});
  EXPECT_EQ(R"([["00",0,1,0,1],["03",3,32,3,2],["named",48,32,1,1]])", Databases.dump());
}

TEST_F(ToolTest, InfoTellsOfSegmentsAndTimes) {
  Run("record --segment-events 2 --db named", 0,
      "{'name':'x','time':'2026-11-24T15:04:00Z'}\n{'name':'x','time':'2026-11-24T13:00:00Z'}\n"
      "{'name':'x','time':'2026-11-24T14:00:00Z'}");
  const json Named = json::parse(Run("info --json --segments --times"))["databases"][1];
  EXPECT_EQ("2026-11-24T13:00:00.0000000Z", Named["lowest_time"]);
  EXPECT_EQ("2026-11-24T15:04:00.0000000Z", Named["highest_time"]);
  EXPECT_EQ(Named["oldest"], Named["segment_list"][0]["born"]);
  json Segments;
  for (const json& One : Named["segment_list"])
    Segments.push_back({One["number"], One["events"], One["bytes"]["events"], One["bytes"]["tree"]});
  EXPECT_EQ("[[1,2,76,1040],[2,1,44,1040]]", Segments.dump());
  const std::string Text = Run("info -o prometheus --times --segments");
  std::string Store = host::Printable(At("store"));
  for (std::size_t nAt = 0; (nAt = Store.find('\\', nAt)) != std::string::npos; nAt += 2) Store.insert(nAt, 1, '\\');
  const std::string Label = "{store=\"" + Store + "\",database=\"named\"";
  EXPECT_THAT(Text, HasSubstr("# HELP lumbra_database_records Events that the database holds.\n"
                              "# TYPE lumbra_database_records gauge\n"));
  EXPECT_THAT(Text, HasSubstr("lumbra_database_records" + Label + "} 3\n"));
  EXPECT_THAT(Text, HasSubstr("lumbra_database_lowest_time_seconds" + Label + "} 1795525200.000\n"));
  EXPECT_THAT(Text, HasSubstr("lumbra_segment_bytes" + Label + ",segment=\"2\",file=\"events\"} 44\n"));
  Run("schema --db named 'time:unix-us,object:id,_:hex:16'");
  EXPECT_EQ("6228-12-19T10:00:00.0000000Z", json::parse(Run("info --json --times"))["databases"][1]["lowest_time"]);
  Patch("store/g_objdt.dat", 0, {'?'});
  fs::remove(Folder() / "store/named/00000001_objid.dat");
  Run("info", 3);
  EXPECT_EQ(
      "lumbra: damaged g_objdt.dat: it has not the magic of a file of names and data\n"
      "lumbra: damaged named/00000001_objid.dat: it is missing\n",
      Errors());
}

TEST_F(ToolTest, LimitsKeepTheNewestEventsWithTheirNames) {
  Record("1 --segment-events 2 --max-events 4", {"a", "b", "c", "d", "e", "f", "g", "h", "i"});
  EXPECT_EQ(json({"e", "f", "g", "h", "i"}), Names("1"));  // what is there is counted before each event
  Record("1 --max-size 1 --segment-size 0 --global-size 12K --trace 500", {"j"});
  EXPECT_THAT(Errors(), HasSubstr("Lumbra::SetDBParams(FF, 7, 12288)"));
  EXPECT_EQ(json({"i", "j"}), Names("1"));
}

TEST_F(ToolTest, GivesSegmentsASixteenthOfALimit) {
  Record("1 --max-events 32 --max-size 2G --max-age 1h --segment-age 7d", {"a", "b", "c"});
  EXPECT_THAT(Errors(), EndsWith("lumbra: --max-events 32 drops whole segments: --segment-events 2 goes with it\n"
                                 "lumbra: --max-size 2147483648 drops whole segments: --segment-size 134217728 goes "
                                 "with it\n"));
  EXPECT_EQ(2, json::parse(Run("info --json"))["databases"][1]["segments"]);
  Record("1 --global-size 100K", {"d"});
  EXPECT_EQ("lumbra: --global-size 102400 drops whole segments: --segment-size 6400 goes with it\n", Errors());
  Record("1 --global-size 100K --segment-events 9", {"e"});
  EXPECT_EQ("", Errors());
  Run("record --db 1 --max-age 7x", 2);
  Run("record --db 1 --max-size 16777216T", 2);
}

TEST_F(ToolTest, RecordsTheGoodLinesAndTellsOfTheBadOnes) {
  const char* const pLines =
      "{'name':'C:\\\\Dir\\\\f'}\nnonsense\n\n{'name':''}\n{'type':'file'}\n{'name':'HKLM\\\\Key','type':'key'}\n"
      "{'name':'x','time':'yesterday'}\n{'name':'x','kind':-1}\n{'name':'x','type':256}\n{'name':'x','type':'thing'}\n"
      "{'name':'/'}\n{'name':'plain','type':32}";
  EXPECT_THAT(Run("record --db notes", 1, pLines), StartsWith("recorded 4 events in "));
  for (const char* const pLine : {"line 2: not a JSON object\n", "line 4: \"name\"", "line 5: \"name\"",
                                  "line 7: \"time\"", "line 8: \"kind\"", "line 9: \"type\"", "line 10: \"type\""}) {
    EXPECT_THAT(Errors(), HasSubstr(pLine));
  }
  EXPECT_EQ(json({"C:\\Dir\\f", "HKLM\\Key", "/", "plain"}), Names("notes"));
  EXPECT_EQ(json({1, 3, 1, 32}), Events("notes", "/type"));
  EXPECT_EQ("0x3000000100000003", Events("notes", "/id")[3]);
}

TEST_F(ToolTest, RecordsWhatALineSays) {
  Run("record --db 1", 0,
      "{'name':'a','kind':7,'value':18446744073709551615,'time':'2026-11-24T13:34:00.1234567Z'}\n"
      "{'name':'b','time':'2026-11-24T15:04:00+01:30'}\n{'name':'c','time':'2026-12-31t23:59:60.123456789z'}");
  EXPECT_EQ(json({"2026-11-24T13:34:00.1234567Z", "2026-11-24T13:34:00.0000000Z", "2027-01-01T00:00:00.1234567Z"}),
            Events("1", "/time"));
  EXPECT_EQ(json({7, 0, 0}), Events("1", "/kind"));
  EXPECT_EQ(json({UINT64_MAX, 0, 0}), Events("1", "/value"));
}

TEST_F(ToolTest, ChoosesEvents) {
  std::vector<std::string> All;
  for (int i = 0; i < 25; ++i) All.push_back('n' + std::to_string(i));
  Record("1 --segment-events 10", All);
  EXPECT_EQ(json(All), Names("1"));
  EXPECT_EQ(json(All), Names("1 --last 100"));
  EXPECT_EQ(json::array(), Names("1 --last 0"));
  EXPECT_EQ(json({"n18", "n19", "n20"}), Names("1 --last 7 --count 3"));
  EXPECT_EQ(json({"n23", "n24"}), Names("1 --from 0x0100000300000003"));
  EXPECT_EQ(json({"n20", "n21"}), Names("1 --from 0100000200000063 --count 2"));  // behind a segment's last
  Fails("events --db 1 --from 0x0200000100000000", "this is no event of database 1");
}

TEST_F(ToolTest, ShowsWhatIsBehindASegmentThatCannotBeRead) {
  Record("1 --segment-events 2", {"a", "b", "c", "d", "e"});
  WriteFile("store/01/00000002_events.dat", Bytes(76, 'x'));
  for (const std::string Options : {"", " --parents"}) {
    EXPECT_THAT(Run("events --db 1" + Options, 3), ::testing::ContainsRegex("^.*a\n.*b\n.*e\n$"));
    EXPECT_EQ(
        "lumbra: damaged 01/00000002_events.dat: its header is not one of events of 32 bytes\n"
        "lumbra: gap: 2 events from 0x0100000200000000 up to 0x0100000200000002 are missing here: a file is missing or "
        "damaged\n",
        Errors());
  }
}

TEST_F(ToolTest, HealsAStoreBeforeItIsOpened) {
  Record("1 --segment-events 2", {"a", "b", "c", "d", "e"});
  fs::remove(Folder() / "store/01/00000002_events.dat");  // where the chain would end
  Record("1", {"f"});
  EXPECT_EQ(
      "lumbra: healed 01/00000002_events.dat: a segment is missing here; an empty one keeps those behind it in reach\n",
      Errors());
  EXPECT_EQ(json({"a", "b", "e", "f"}), Names("1"));
  for (const char* const pName : {"events", "objid", "objbt", "objdt"}) {
    const std::string Name = "01/00000003_" + std::string(pName) + ".dat";
    WriteFile("copy/" + Name, ReadFile("store/" + Name));
  }
  RunProgram({LUMBRA_TOOL, "--store", "copy", "repair", "--yes"}, 3);
  EXPECT_THAT(RunProgram({LUMBRA_TOOL, "--store", "copy", "events", "--db", "1"}), EndsWith("f\n"));
}

TEST_F(ToolTest, FindsNames) {
  MakeTree();
  Run("scan --db 1 tree");
  const std::string Found = Run("find --db 1 " + At("tree/a/deep/er/file ") + At("tree/none"), 1);
  const std::string Id = Found.substr(0, 18);
  EXPECT_EQ(Id + "\nnot found\n", Found);
  EXPECT_EQ("file    " + At("tree/a/deep/er/file\n"), Described(Id));
  const std::string Below = fs::path("/").make_preferred().string() + "deep --parent ";
  const std::string Deep = Find("1 --type folder " + Below + Find("1 --type folder " + At("tree/a")));
  EXPECT_EQ("folder  " + At("tree/a/deep\n"), Described(Deep));
  EXPECT_EQ("folder  " + At("tree\n"), Described(Events("1 --parents --last 1")[0]["parent"]));
  EXPECT_EQ("0x0000000000000002  file    h\n0x0100000100009999  not found\n", Run("name 2 100000100009999", 1));
}

TEST_F(ToolTest, FindsWhatOldSegmentsHoldAndMakesNothing) {
  Record("1 --segment-events 1", {"old", "both"});
  Run("record --db 1 --segment-events 1", 0,
      "{'name':'both','type':'name'}\n{'name':'C:\\\\Dir\\\\f'}\n{'name':'HKLM\\\\Key','type':'key'}");
  EXPECT_EQ("0x0100000100000001\n0x0100000300000001\n", Run("find --db 1 --type name old both"));
  const std::string File = Find("1 c:\\DIR\\F");
  EXPECT_EQ("file    C:\\Dir\\f\n", Described(File));
  EXPECT_EQ(File + '\n', Run("find --db 1 f --parent " + Find("1 --type folder C:\\Dir")));
  EXPECT_EQ("not found\n", Run("find --db 1 --type key HKLM\\KEY\\x", 1));
  fs::remove(Folder() / "store/01/00000004_objbt.dat");  // which nobody asks
  EXPECT_EQ(File + "\nnot found\n", Run("find --db 1 C:\\Dir\\f D:\\none", 1));
  EXPECT_FALSE(fs::exists(Folder() / "store/01/00000004_objbt.dat"));
  EXPECT_THAT(Run("objects"), ::testing::Not(HasSubstr("D:")));
  fs::remove(Folder() / "store/01/00000002_objid.dat");
  EXPECT_EQ("0x0100000100000001\n", Run("find --db 1 --type name old", 3));
  EXPECT_THAT(Errors(), HasSubstr("damaged 01/00000002_objid.dat: it is missing\n"));
  Fails("find --db 1 //", "errUNSPECIFIED");
}

TEST_F(ToolTest, FindsWhatTheComponentFinds) {
  const std::string kNames[] = {"C:\\a\\\xC3\x84.txt",  "/a/b",    "/a\\b", "\\\\?\\D:\\e",
                                "\\\\server\\share\\f", "plain/g", "/"};
  for (const std::string& Name : kNames) Run("find --db 1 --create '" + Name + '\'');
  const std::string Drive = Find("1 D:");
  Run("link " + Drive + ' ' + Find("1 --type folder C:\\a"));  // what is below D: is below C:\a from now on
  for (const std::string Name :
       {"C:\\A\\\xC3\xA4.TXT", "/a/b", "/A/b", "/a\\b", "D:\\e", "D:\\\xC3\xA4.txt", "D:", "\\\\SERVER\\share/f",
        "\\\\server\\share\\f", "plain\\g", "plain/g", "/", "\\\\", "h", "System"}) {
    for (const Arguments& Type : {Arguments{"1", "file"}, {"0", "file"}, {"1", "folder"}, {"1", "20"}}) {
      const auto Ask = [&](const char* pTraceLevel) {  // from 1 on the component is asked
        const int nStatus = RunIn(Folder(), {LUMBRA_TOOL, "--store", "store", "--host", "h", "--trace", pTraceLevel,
                                             "find", "--db", Type[0], "--type", Type[1], Name});
        return std::to_string(nStatus) + ' ' + ReadText("out");
      };
      const std::string kExpected = Ask("1");  // first: it makes roots
      EXPECT_EQ(kExpected, Ask("0")) << Name << ' ' << Type[0] << ' ' << Type[1];
    }
  }
}

TEST_F(ToolTest, ListsObjects) {
  Run("record --db 1", 0, "{'name':'C:\\\\Dir\\\\f'}\n{'name':'D:\\\\f'}\n{'name':'/x\\u001b'}");
  const std::string Id = Find("1 C:\\Dir\\f");
  Run("data set " + Id + " 0x10", 0, "12345");
  EXPECT_EQ("0x0100000100000002  folder  0x01  C:\\Dir\n" + Id + "  file    0x01  C:\\Dir\\f\n",
            Run("objects --db 1 --under c:\\dir\\"));
  const std::string Tree = Run("objects --db 1 --tree --data");
  EXPECT_THAT(Tree, StartsWith("0x0100000100000001  20      0x01  C:\n0x0100000100000002  folder  0x01    Dir\n"));
  EXPECT_THAT(Tree, HasSubstr("0x01      f\n" + std::string(38, ' ') + "0x00000010  5 bytes\n"));
  EXPECT_THAT(Tree, EndsWith("\"/x\\x1b\"\n"));
  const std::string Line = Run("objects --json --data --under C:\\Dir\\f");
  EXPECT_EQ(R"({"id":")" + Id + R"(","type":1,"flags":1,"parent":"0x0100000100000002","name":"C:\\Dir\\f",)" +
                R"("data":[{"key":16,"size":5}]})" + '\n',
            Line);
}

TEST_F(ToolTest, LinksObjects) {
  const std::string Key = Find("keys --create --type key 'HKLM\\One'");
  const std::string Other = Find("keys --create --type 3 'HKLM\\Two'");
  const std::string File = Find("keys --create 'C:\\file'");
  Run("link " + Key + ' ' + Other);
  EXPECT_EQ("key     HKLM\\Two\n", Described(Key));
  Fails("link " + Other + ' ' + Key, "would run in a circle");
  Fails("link " + Key + ' ' + File, "it stands for " + Other + " already");
}

TEST_F(ToolTest, KeepsDataOfObjects) {
  const std::string Id = Find("0 --create thing");
  const std::string kBytes("a\0b\n\xFF", 5);
  Run("data set " + Id + " 0x10", 0, kBytes);
  EXPECT_EQ(kBytes, Run("data get " + Id + " 16"));
  Run("data clear " + Id);
  Fails("data get " + Id + " 16", "errNOT_FOUND (0x8000004C): there is nothing under this id or key");
}

TEST_F(ToolTest, CheckSaysWhatItFinds) {
  Run("find --db 0 --create a b c --check-mode");
  EXPECT_THAT(Run("check"), HasSubstr("6 shared objects\nThe newest objects are sound.\n"));
  Patch("store/g_objbt.dat", 1040, {1, 2, 3, 4});
  EXPECT_THAT(Run("check", 3), HasSubstr("have been put back\n    (BT was repaired, 6 object hashes were added)"));
  WriteFile("store/g_db_id.dat", Bytes(64, '?'));
  EXPECT_THAT(Run("check", 3), HasSubstr("has been replaced by an empty one"));
}

TEST_F(ToolTest, CompactPutsThePairInItsPlace) {
  const std::string Ids = Run("find --db 0 --create a b c");
  const std::string Id = Ids.substr(0, 18);
  for (const std::string Content : {"short", "longer than that by far"}) Run("data set " + Id + " 1", 0, Content);
  const std::uint64_t nBefore = FileSize("store/g_objdt.dat");
  Run("compact --replace");
  EXPECT_LT(FileSize("store/g_objdt.dat"), nBefore);
  EXPECT_EQ(Ids, Run("find --db 0 a b c"));
  EXPECT_EQ("longer than that by far", Run("data get " + Id + " 1"));
  EXPECT_FALSE(fs::exists(Folder() / "store/g_objidcompacted.dat"));
  Run("repair --yes --undo " + fs::directory_iterator(At("store/set-aside"))->path().filename().string());
  EXPECT_EQ(nBefore, FileSize("store/g_objdt.dat"));
  EXPECT_EQ(Ids, Run("find --db 0 a b c"));
  fs::remove_all(Folder() / "store/set-aside");
  Run("compact --replace");
  const std::string New = Run("find --db 0 --create d");
  Run("repair --yes --undo " + fs::directory_iterator(At("store/set-aside"))->path().filename().string(), 3);
  EXPECT_EQ(New, Run("find --db 0 d"));
}

TEST_F(ToolTest, CompactTellsWhatItLeavesOut) {
  Run("find --db 0 --create a b c --check-mode");
  Patch("store/g_objdt.dat", 4, {'?'});  // the oldest name, which is no matter of the quick check
  const std::string Told = Run("compact", 1);
  EXPECT_THAT(Told, HasSubstr("Compact: name crc mismatch, entry id: 0, offset: 4, the object is marked as"));
  EXPECT_THAT(Told, HasSubstr("g_objidcompacted.dat " + std::string(13, ' ') + "210 bytes"));
  EXPECT_THAT(Told, HasSubstr("beside the live one"));
  const Bytes kLive = ReadFile("store/g_objdt.dat");
  EXPECT_THAT(Run("compact --replace", 1), HasSubstr("--lossy puts it in its place all the same.\n"));
  EXPECT_EQ(kLive, ReadFile("store/g_objdt.dat"));
  Run("compact --replace --lossy", 1);
  EXPECT_NE(kLive, ReadFile("store/g_objdt.dat"));
}

TEST_F(ToolTest, SaysByItsStatusWhatIsDamaged) {
  Record("1 --check-mode", {"a"});
  const std::string Id = Find("1 --type name a");
  Run("data set " + Id + " 1");
  const Bytes kWhole = ReadFile("store/01/00000001_objdt.dat");
  Patch("store/01/00000001_objdt.dat", 4, {'?'});
  Run("name " + Id, 3);
  EXPECT_THAT(Errors(), HasSubstr("errDATA_CORRUPTED"));
  EXPECT_EQ(Id + '\n', Run("find --db 1 --type name a", 3));
  EXPECT_THAT(Run("objects --db 1", 3), EndsWith("(its name cannot be read)\n"));
  Patch("store/01/00000001_objdt.dat", kWhole.size() - 1, {'?'});
  EXPECT_EQ("", Run("data get " + Id + " 1", 3));
}

TEST_F(ToolTest, RepairsAndTakesItBack) {
  Record("1 --segment-events 1", {"a", "b", "c"});
  Run("repair");
  const Bytes kHeader = ReadFile("store/01/segments.dat");
  Patch("store/01/segments.dat", 4, {9});
  const Bytes kDamaged = ReadFile("store/01/segments.dat");
  EXPECT_THAT(
      Run("check", 3),
      EndsWith("The store was not opened. By lumbra repair --yes: 1 healed, 0 set aside, 0 left as they are.\n"));
  EXPECT_EQ(kDamaged, ReadFile("store/01/segments.dat"));
  const std::string Shown = Run("repair", 3);
  EXPECT_THAT(Shown, HasSubstr("- 01/segments.dat: it leads nowhere; the chain starts at segment 1 again\n"));
  EXPECT_THAT(Shown, EndsWith("--yes does what stands behind a -: 1 healed, 0 set aside, 0 left as they are.\n"));
  Run("repair --yes", 3);
  EXPECT_EQ(kHeader, ReadFile("store/01/segments.dat"));
  EXPECT_EQ(json({"a", "b", "c"}), Names("1"));
  const std::string Time = fs::directory_iterator(At("store/01/set-aside"))->path().filename().string();
  EXPECT_THAT(Run("repair"), HasSubstr(Time + "\n  01/segments.dat: it leads nowhere"));
  Run("repair --yes --undo " + Time);
  EXPECT_EQ(9, ReadFile("store/01/segments.dat")[4]);
  fs::remove(Folder() / "store/01/segments.dat");
  WriteFile("store/g_objreplacing.dat", {});
  Fails("repair --discard-set-aside --yes", "being put in its place");
  fs::remove(Folder() / "store/g_objreplacing.dat");
  Run("repair --discard-set-aside --yes");
  EXPECT_FALSE(fs::exists(Folder() / "store/01/set-aside"));
}

TEST_F(ToolTest, GivesTheRoomOfDroppedSegmentsBack) {
  Record("1 --segment-events 1", {"a", "b", "c"});
  Patch("store/01/segments.dat", 4, {2});  // killed before the files went
  Run("check");
  EXPECT_THAT(Run("repair --yes", 3), HasSubstr("- 01/00000001_events.dat: its segment was dropped\n"));
  EXPECT_THAT(Run("verify"), EndsWith(" 0 leftovers\n"));
  EXPECT_EQ(json({"b", "c"}), Names("1"));
}

TEST_F(ToolTest, BacksUpWhatHasChangedAndIsRestored) {
  Record("1 --segment-events 2", {"a", "b", "c"});
  std::this_thread::sleep_for(std::chrono::milliseconds(100));  // what was just written to is copied again
  Run("backup copy");
  const auto nCopied = fs::last_write_time(Folder() / "copy/01/00000001_events.dat");
  Record("1", {"d", "e"});
  Run("backup copy");
  EXPECT_EQ(nCopied, fs::last_write_time(Folder() / "copy/01/00000001_events.dat"));
  RunProgram({LUMBRA_TOOL, "--store", "other", "record", "--db", "1"});
  RunProgram({LUMBRA_TOOL, "--store", "other", "backup", "copy"}, 1);
  EXPECT_THAT(Errors(), HasSubstr("it holds a backup of another store, " + At("store") + "; name another folder"));
  WriteFile("store/01/segments.dat", Bytes(12, 0xFF));
  Run("backup saved", 3);
  for (const std::string Backup : {"copy", "saved"}) {
    fs::remove_all(Folder() / "store");
    fs::copy(Folder() / Backup, Folder() / "store", fs::copy_options::recursive);
    Run("verify --manifest");
    Run("verify");
    Record("1", {"f"});
    EXPECT_EQ(json({"a", "b", "c", "d", "e", "f"}), Names("1"));
  }
}

TEST_F(ToolTest, SaysWhatItLeavesDamaged) {
  Record("1", {"a"});
  WriteFile("store/g_objdtcompacted.dat", {});
  EXPECT_THAT(Run("check", 3), StartsWith("- g_objdtcompacted.dat: half a pair of compaction"));
  Run("record --db 1");
  EXPECT_THAT(Errors(), StartsWith("lumbra: damaged g_objdtcompacted.dat: half a pair of compaction"));
}

TEST_F(ToolTest, PutsBackWhatALostTreeFindsNoMore) {
  const std::string Ids = Run("find --db 0 --create a b c");
  fs::remove(Folder() / "store/g_objbt.dat");
  EXPECT_THAT(Run("check", 3), HasSubstr("- g_objbt.dat: it is built anew from the id records\n"));
  Run("repair --yes", 3);
  EXPECT_EQ(Ids, Run("find --db 0 a b c"));
  EXPECT_THAT(Run("info"), HasSubstr("set aside by healing: "));
  Record("1", {"a", "b", "c"});
  const Bytes kTree = ReadFile("store/01/00000001_objbt.dat");
  fs::remove(Folder() / "store/01/00000001_objbt.dat");
  Run("repair --yes", 3);
  EXPECT_EQ(kTree, ReadFile("store/01/00000001_objbt.dat"));
  Run("repair");
  Run("repair --discard-set-aside");
  EXPECT_TRUE(fs::exists(Folder() / "store/set-aside"));
  Run("repair --discard-set-aside --yes");
  EXPECT_FALSE(fs::exists(Folder() / "store/set-aside"));
}

TEST_F(ToolTest, BeginsSharedObjectsAnewWhereItIsToldTo) {
  for (const auto& Lost : std::vector<std::vector<std::string>>{{"id"}, {"id", "dt"}}) {
    Record("1", {"a"});
    for (const std::string& File : Lost) fs::remove(Folder() / ("store/g_obj" + File + ".dat"));
    Fails("repair --yes", "");
    Fails("record --db 1", "g_objid.dat: it is missing beside the ");
    Run("repair --start-empty --yes", 3);
  }
  Record("1", {"a"});
  EXPECT_EQ(json({"a", "a", "a"}), Names("1"));
}

TEST_F(ToolTest, ClearsAlsoWhatItWouldNotOpen) {
  Run("record --db 1");
  for (const Bytes& Header : {ReadFile("store/01/segments.dat"), Bytes{1, 2, 3}}) {
    WriteFile("store/01/segments.dat", Header);
    Run("clear --db 1 --yes");
    EXPECT_EQ(json::array(), Names("1"));
  }
}

TEST_F(ToolTest, ClearsNoFilesThatAreNotTheStores) {
  Run("record --db named");
  for (const char* const pName : {"notes.txt", "segments.dat.healing"})
    WriteFile(std::string("store/named/") + pName, {'x'});
  Fails("clear --db named --yes", "lumbra: notes.txt is not the store's");
  EXPECT_EQ(json({"x"}), Names("named"));
  Run("clear --db named --yes --force");
  EXPECT_FALSE(fs::exists(Folder() / "store/named/notes.txt"));
}

TEST_F(ToolTest, BoundsWhatInputMayCost) {
  const std::string kLong(32768, 'n');
  EXPECT_THAT(
      Run("record --db 1", 1,
          "{'name':'" + std::string(1 << 20, 'x') + "'}\n{'name':'" + kLong + "'}\n{'name':'" + kLong.substr(1) + "'}"),
      StartsWith("recorded 1 events"));
  EXPECT_THAT(Errors(), HasSubstr("line 1: longer than 1 MiB\nline 2: name it: errSIZE_INVALID"));
  const auto Longest = Events("1", "/object")[0].get<std::string>();
  EXPECT_EQ("file    (name too long)\n", Described(Find("1 --create x --parent " + Longest)));
  Patch("store/01/00000001_events.dat", 12, Bytes(8, 0xFF));
  EXPECT_EQ(json::array({nullptr}), Events("1", "/time"));
  EXPECT_THAT(Run("events --db 1"), HasSubstr("  18446744073709551615  "));
}

TEST_F(ToolTest, SaysThatANameIsUsedUp) {
  Run("record --db new");
  EXPECT_THAT(Errors(), HasSubstr("made database \"new\", number 1 of 207 that a store can have"));
  Run("record --db new");
  EXPECT_EQ("", Errors());
  Bytes Index = ReadFile("store/g_db_id.dat");
  for (int i = 2; i < 180; ++i) {
    const std::string Name = std::to_string(i) + "n";
    Index.insert(Index.end(), Name.begin(), Name.end());
    Index.resize((Index.size() + 63) / 64 * 64);
  }
  WriteFile("store/g_db_id.dat", Index);
  Run("record --db last");
  EXPECT_THAT(Errors(), HasSubstr("lumbra: 27 names of databases are left"));
  Fails("record --db x.schema", "a new database cannot have this name");
}

TEST_F(ToolTest, SaysWhatMayHaveBeenMistyped) {
  for (const auto& [Typed, Meant] :
       {std::pair("evnets --db 1", "evnets; did you mean events?"), std::pair("obj", "obj; did you mean objects?"),
        std::pair("data ste 1 1", "ste; did you mean set?"), std::pair("frob", "frob")}) {
    Run(Typed, 2);
    EXPECT_THAT(Errors(), StartsWith(std::string("lumbra: unknown command ") + Meant + '\n'));
  }
  Run("record --db 1", 0, "{'name':'a','tiem':1}\n{'name':'b','tiem':2,'\\u001b':3}");
  EXPECT_EQ(
      "lumbra: made database 1\nline 1: no event has a field tiem; it is left out wherever it stands\n"
      "line 2: no event has a field \"\\x1b\"; it is left out wherever it stands\n",
      Errors());
}

TEST_F(ToolTest, RefusesWrongUsage) {
  for (const char* const pUsage :
       {"", "frob", "events", "events --db 0", "events --db ..", "events --db 2f", "events --db 1 --from xyz",
        "events --db 1 --last 1 --from 1", "scan --db 1", "scan --db 1 --max-size x /", "data set 1 4294967296",
        "name 0", "find --db 1 ''", "clear --db 1", "clear --db 1 --yes=false"})
    Run(pUsage, 2);
}

TEST_F(ToolTest, SaysWhatIsNotThere) {
  EXPECT_EQ("", Run("info", 1));
  EXPECT_EQ("lumbra: open " + At("store") + ": errOBJECT_NOT_FOUND (0x800000C5): there is no store here\n", Errors());
  Run("record --db a");
  Fails("events --db 2",
        "lumbra: open database 2: errOBJECT_NOT_FOUND (0x800000C5): there is no such database in this");
  Fails("record --db \xC3\xA1", "the store cannot tell it from database \"a\"");  // of the same key in the index
}

TEST_F(ToolTest, SaysThatAnotherProcessHoldsTheStore) {
  Run("record --db 1");
  const auto pHeld = OpenFile(u"store/g_objid.dat");
  for (const char* const pCommand : {"record --db 1", "clear --db 1 --yes --wait 1"})
    Fails(pCommand, "errSHARING_VIOLATION (0x80010104): another process holds the store");
}

TEST_F(ToolTest, OpensNoDatabaseThatWouldStartAnew) {
  Run("record --db 1");
  Patch("store/01/00000001_events.dat", 0, Bytes(12));  // nothing tells the size of its events now
  fs::remove(Folder() / "store/01/segments.dat");
  Fails("record --db 1", "errDATA_CORRUPTED");
  EXPECT_FALSE(fs::exists(Folder() / "store/01/segments.dat"));
}

TEST_F(ToolTest, RunsOnAModule) {
  const std::string Shown = Run("module '" LUMBRA_MODULE "'");
  EXPECT_THAT(Shown, ::testing::AnyOf(HasSubstr("format              ELF\n"), HasSubstr("format              PE\n")));
  EXPECT_THAT(Shown,
              EndsWith("plug-in id          0xBF8E\ninterface id        0xBF8C\ninterface constant  1\n"
                       "interface comment   \"Lumbra\"\nMD5                 59648ed64ec20fef4cc565fc8dcee677\n"));
  Record("1 --module '" LUMBRA_MODULE "'", {"a"});
  Record("1", {"b"});
  EXPECT_EQ(json({"a", "b"}), Names("1 --module '" LUMBRA_MODULE "'"));
}

TEST_F(ToolTest, RunsNothingOfAModuleThatIsRefused) {
  fs::copy(LUMBRA_REFUSING_MODULE, Folder() / "module");
  const Bytes kWhole = ReadFile("module");
  const std::size_t nMachine = kWhole[0] == 'M' ? kWhole[0x3C] + std::size_t{256} * kWhole[0x3D] + 4 : 18;
  EXPECT_EQ("code of the module runs\n", Run("info --module module", 1));
  EXPECT_EQ("lumbra: load module: errACCESS_DENIED (0x80000045): its entry refused this host\n", Errors());
  Patch("module", nMachine, {0x34, 0x12});
  EXPECT_EQ("", Run("info --module module", 1));
  EXPECT_THAT(Errors(), StartsWith("lumbra: load module: errNOT_SUPPORTED (0x80000042): is for "));
  EXPECT_THAT(Errors(), HasSubstr(" on 0x1234, this program for "));
  Patch("module", ReadText("module").find("\"Lumbra\""), {'?'});
  EXPECT_EQ("", Run("info --module module", 1));
  EXPECT_EQ("lumbra: load module: errDATA_CORRUPTED (0x800000D8): its metadata is damaged (MD5)\n", Errors());
}

}  // namespace
}  // namespace lumbra::test
