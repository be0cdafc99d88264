// lumbra events and lumbra schema: what is chosen, how it is shown, where it goes on.
#include "tools/tool_fixture.h"

namespace lumbra::test {
namespace {

class EventsTest : public ToolTest {
 protected:
  // Five events, in no order of time.
  void RecordSome() {
    Run("record --db 1 --segment-events 2", 0,
        "{'name':'/srv/a.txt','kind':1,'value':1,'time':'2026-11-25T18:17:00Z'}\n"
        "{'name':'/srv/sub','kind':2,'value':2,'time':'2026-11-24T00:00:00.5Z'}\n"
        "{'name':'/srv/sub/b,\\'c\\'','kind':1,'value':3,'time':'2026-11-26T00:00:00Z'}\n"
        "{'name':'C:\\\\Dir\\\\File','kind':77,'value':4,'time':'2026-11-25T00:00:00Z'}\n"
        "{'name':'/srv/subway','kind':3,'value':5,'time':'2026-11-25T18:17:01Z'}");
  }
  // The values of the events that are shown.
  std::string Values(const std::string& Options) {
    std::string Shown = Run("events --db 1 --utc --fields value -o csv " + Options);
    std::erase_if(Shown, [](char c) { return c == '\r' || c == '\n'; });
    EXPECT_THAT(Shown, StartsWith("value"));
    return Shown.substr(5);
  }
  static std::string CursorOf(const std::string& JsonLine) { return json::parse(JsonLine)["cursor"]; }

  // A database of another program, with one event.
  void WriteForeign(const Bytes& Event) {
    const auto nSize = static_cast<std::uint8_t>(Event.size());
    const Bytes Chain = {'S', 'D', 'B', 'H', 1, 0, 0, 0, nSize, 0, 0, 0};
    Bytes Events = {'P', 'L', 'D', 'B', 12, 0, 0, 0, nSize, 0, 0, 0};
    for (const std::uint8_t nByte : Event) Events.push_back(nByte);
    WriteFile("store/05/segments.dat", Chain);
    WriteFile("store/05/00000001_events.dat", Events);
  }
};

TEST_F(EventsTest, ChoosesByWhatEventsAre) {
  RecordSome();
  EXPECT_EQ("13", Values("--kind file"));
  EXPECT_EQ("245", Values("--not-kind 1"));
  EXPECT_EQ("1345", Values("--kind 1 --kind 77 --kind link"));
  EXPECT_EQ("1345", Values("--since 2026-11-25"));
  EXPECT_EQ("14", Values("--since '2026-11-25' --until '2026-11-25 18:17'"));
  EXPECT_EQ("2", Values("-U 2026-11-24T01:00:00.5+01:00"));
  EXPECT_EQ("", Values("--since tomorrow --until yesterday"));
  EXPECT_EQ("1", Values("--name '*.txt'"));
  EXPECT_EQ("25", Values("--name 'sub*'"));
  EXPECT_EQ("4", Values("--name 'c:\\*\\f?l[a-f]'"));
  EXPECT_EQ("134", Values("--not-name '/srv/sub[!/]*' --not-name sub"));
  EXPECT_EQ("23", Values("--under /srv/sub/"));
  EXPECT_EQ("4", Values("--under c:\\dir"));
  EXPECT_EQ("5", Values("--object " + Events("1", "/object")[4].get<std::string>()));
  Fails("events --db 1 --schema _:hex:24,kind:f64 --kind 1",
        "their schema has no field \"kind\" that is a whole number; --schema gives one");
  Run("record --db 1", 0, "{'name':'x','value':6}");
  EXPECT_EQ("6", Values("--since -2h --name x"));
  EXPECT_EQ("", Values("--until -2h --name x"));
}

TEST_F(EventsTest, ShowsSoManyInEitherOrder) {
  RecordSome();
  EXPECT_EQ("54321", Values("-r"));
  EXPECT_EQ("54", Values("--reverse --lines 2"));
  EXPECT_EQ("45", Values("-n 2"));
  EXPECT_EQ("13", Values("-n 2 --kind 1"));
  EXPECT_EQ("3", Values("-n 1 --under /srv/sub"));
  EXPECT_EQ("12345", Values("--lines all"));
  EXPECT_EQ("2", Values("--just-one --kind folder"));
  EXPECT_EQ("2\n", Run("events --db 1 --count-only --kind 1"));
  Run("events --db 1 --just-one --kind 9", 1);
}

TEST_F(EventsTest, ShowsFieldsInEveryForm) {
  RecordSome();
  EXPECT_EQ("name,kind,time\r\n\"/srv/sub/b,\"\"c\"\"\",1,2026-11-26T00:00:00.0000000Z\r\n",
            Run("events --db 1 -o csv --utc --fields name,kind,time --under /srv/sub --kind 1"));
  EXPECT_EQ("{\"value\":2,\"id\":72057598332895233,\"time\":1795478400500000000}\n",
            Run("events --db 1 -o json --numbers --fields value,id,time --kind 2"));
  EXPECT_EQ("77      C:\\Dir\\File\n", Run("events --db 1 --fields kind,name --kind 77"));
  Fails("events --db 1 --fields nothing", "there are id, time, object, value, kind, type, name, parent");
  for (const char* const pUsage : {"-r -f", "--json -o csv", "--since maybe", "--kind x", "--cursor a --from 1",
                                   "--module '" LUMBRA_MODULE "' -r", "--schema time:u65", "--on-gap never"})
    Run(std::string("events --db 1 ") + pUsage, 2);
}

TEST_F(EventsTest, GoesOnAtACursor) {
  RecordSome();
  std::istringstream Lines(Run("events --db 1 --json --show-cursor"));
  std::vector<std::string> Cursors;
  for (std::string Line; std::getline(Lines, Line);) Cursors.push_back(CursorOf(Line));
  ASSERT_EQ(5U, Cursors.size());
  for (std::size_t i = 0; i < Cursors.size(); ++i) {
    EXPECT_EQ(std::string("12345").substr(i + 1), Values("--after-cursor " + Cursors[i]));
    EXPECT_EQ(std::string("12345").substr(i), Values("--cursor " + Cursors[i]));
  }
  EXPECT_THAT(Run("events --db 1 --show-cursor"), EndsWith("-- cursor: " + Cursors.back() + '\n'));
  EXPECT_THAT(Run("events --db 1 --show-cursor --kind 1 --count 1"), EndsWith("-- cursor: " + Cursors[0] + '\n'));
  for (std::size_t i = 0; i < Cursors[0].size(); ++i) {
    std::string Changed = Cursors[0];
    Changed[i] = Changed[i] == '1' ? '2' : '1';
    Run("events --db 1 --after-cursor '" + Changed + '\'', 10);
  }
  Run("record --db 2");
  Run("events --db 2 --after-cursor " + Cursors[0], 10);
}

TEST_F(EventsTest, TellsThatTheEventOfACursorIsGone) {
  RecordSome();
  const std::string Cursor = CursorOf(Run("events --db 1 --json --show-cursor --count 1"));
  Run("clear --db 1 --yes");
  Record("1", {"new"});
  EXPECT_EQ("", Run("events --db 1 --on-gap error --after-cursor " + Cursor, 12));
  EXPECT_THAT(Run("events --db 1 --after-cursor " + Cursor, 3), EndsWith("  new\n"));
  EXPECT_THAT(Errors(), ::testing::MatchesRegex("lumbra: gap: .* are missing here: the database was cleared\n"));
  EXPECT_EQ("", Run("events --db 1 -q --on-gap latest --after-cursor " + Cursor, 3));
  EXPECT_EQ("", Errors());
  const json Gap = json::parse(Run("events --db 1 --json --show-cursor --on-gap latest --after-cursor " + Cursor, 3));
  EXPECT_EQ("cleared", Gap["gap"]["why"]);
  EXPECT_EQ(nullptr, Gap["gap"]["count"]);
}

TEST_F(EventsTest, KeepsACursorInAFile) {
  RecordSome();
  EXPECT_EQ("12", Values("--cursor-file kept --count 2"));
  EXPECT_EQ("345", Values("--cursor-file kept"));
  EXPECT_EQ("", Values("--cursor-file kept"));
  Run("record --db 1", 0, "{'name':'x','value':6}");
  EXPECT_EQ("", Values("--cursor-file kept --kind 9"));  // it was looked at
  EXPECT_EQ("", Values("--cursor-file kept"));
  WriteFile("kept", {'x', '\n'});
  Run("events --db 1 --cursor-file kept", 10);
}

TEST_F(EventsTest, ShowsEventsOfOtherPrograms) {
  Run("record --db 1");
  WriteForeign({0xE8, 3, 0, 0, 0, 0, 0, 0, 0xFE, 0xFF, 'h', 'i', 0, 'x', 0xAB, 0xCD});
  EXPECT_EQ("0x0500000100000000  e803000000000000feff68690078abcd\n", Run("events --db 5"));
  Fails("schema --db 5", "none is kept; events have 16 bytes");
  Fails("schema --db 5 time:unix-ms", "it describes 8 bytes, and an event has 16 bytes");
  Run("schema --db 5 'time:unix-ms, level:i16,what:text:4,_:hex:2'");
  EXPECT_EQ("time:unix-ms,level:i16,what:text:4,_:hex:2\n", Run("schema --db 5"));
  EXPECT_EQ("0x0500000100000000  1970-01-01T00:00:01.000Z     -2  hi\n", Run("events --db 5"));
  EXPECT_EQ("{\"time\":1000000000,\"level\":-2}\n", Run("events --db 5 --json --numbers --fields time,level"));
  EXPECT_EQ("1\n", Run("events --db 5 --count-only --since 1970-01-01T00:00:01Z --until 1970-01-01T00:00:01Z"));
  EXPECT_EQ("0\n", Run("events --db 5 --count-only --since 1970-01-01T00:00:01.0001Z"));
  EXPECT_EQ("time,rest\r\n1000,feff68690078abcd\r\n",
            Run("events --db 5 -o csv --fields time,rest --schema time:u64,rest:hex:8"));
  EXPECT_EQ("time:filetime,object:id,value:u64,kind:u32,_:u32\n", Run("schema --db 1"));
}

TEST_F(EventsTest, CountsWhatIsMissing) {
  RecordSome();
  fs::remove(Folder() / "store/01/00000002_events.dat");
  EXPECT_THAT(Run("events --db 1", 3), EndsWith("/srv/subway\n"));
  EXPECT_THAT(Errors(), HasSubstr("from 0x0100000200000000 up to 0x0100000300000000 are missing here: a file is "));
}

TEST_F(EventsTest, ShowsThatAnEventIsAboutNothing) {
  Record("1", {"a"});
  Patch("store/01/00000001_events.dat", 20, Bytes(8));
  for (const std::string Options : {"", " --trace 1"})
    EXPECT_THAT(Run("events --db 1" + Options), EndsWith("  -\n")) << Options;
  EXPECT_EQ(json::array({nullptr}), Names("1"));
}

TEST_F(EventsTest, TellsOfNamesThatAreGone) {
  Record("1 --segment-events 2", {"a", "b", "c"});
  for (const char* const pName : {"id", "dt", "bt"})
    fs::remove(Folder() / (std::string("store/01/00000001_obj") + pName + ".dat"));
  EXPECT_EQ("(its name is gone)\n(its name is gone)\nc\n", Run("events --db 1 --fields name", 3));
  EXPECT_EQ(
      "lumbra: the objects of 2 events cannot be read: the files of their segment are lost, or were dropped "
      "meanwhile\n",
      Errors());
}

}  // namespace
}  // namespace lumbra::test
