// Databases by number and by name, their limits and the limit on all of them.
#include <gmock/gmock.h>

#include <chrono>
#include <thread>

#include "component/component_fixture.h"
#include "host/text.h"

namespace lumbra::test {
namespace {

class DatabasesTest : public ComponentTest {
 protected:
  // Opens a database and "named", both with segments of ten events.
  void OpenWithSegments(std::uint32_t nDb) {
    Must(InitDb(nDb));
    OpenNamed(u"named");
    Must(SetLimit(kAllDatabases, limitSegmentEvents, 10));
  }
};

TEST_F(DatabasesTest, OpensNumberedDatabasesOnce) {
  WriteFile("0C", {});
  Step("a file where the folder should be", InitDb(12)).Is(errOPEN_FAILED);
  Step("a number of the named", InitDb(48)).Is(errPARAMETER_INVALID);
  Must(InitDb(47));
  EXPECT_TRUE(fs::exists(Folder() / "2F/segments.dat"));
  Step("the last number again", InitDb(47)).Is(errALREADY_DONE);
}

TEST_F(DatabasesTest, NamesKeepTheirIds) {
  EXPECT_EQ(48u, m_nNamed);
  EXPECT_EQ(49u, OpenNamed(u"second"));
  EXPECT_EQ("00000031", ToHex(ReadFile("second/g_db_id_val.log")));
  Fill(49, 1, 3);
  Restart();
  EXPECT_EQ(49u, OpenNamed(u"second"));
  Holds(49, 1, 3);
  EXPECT_EQ(49u, OpenNamed(u"second"));  // also where it is open
}

TEST_F(DatabasesTest, HasIdsFor207Names) {
  for (std::uint32_t nDb = 49; nDb < 255; ++nDb)
    ASSERT_EQ(nDb, OpenNamed(fs::path(std::to_string(nDb)).u16string().c_str()));
  std::uint32_t nNone = 0;
  Step("one too many", InitNamed(u"one too many", &nNone)).Is(errINDEX_INVALID);
  EXPECT_FALSE(fs::exists(Folder() / "one too many"));
}

TEST_F(DatabasesTest, MakesNoFolderThatLeadsElsewhereOrIsTheStores) {
  std::uint32_t nNone = 0;
  const std::u16string kLongest(63, u'n');
  const std::uint64_t nIndexSize = FileSize("g_db_id.dat");
  for (const char16_t* const pName :
       {u"..", u".", u"../x", u"a/b", u"a\\b", u"/abs", u"00", u"2f", u"g_db_id.dat", u"G_OBJBT.DAT", u"Set-Aside",
        u"x.schema", u"x.Healing", u"line\nbreak", u"\x9b", u"\xd800", u"\xdc00x"})
    Step(host::ToUtf8(pName), InitNamed(pName, &nNone)).Is(errPARAMETER_INVALID);
  Step("a name of 64 characters", InitNamed((kLongest + u'n').c_str(), &nNone)).Is(errPARAMETER_INVALID);
  EXPECT_EQ(nIndexSize, FileSize("g_db_id.dat"));
  OpenNamed(kLongest.c_str());
  for (const char16_t* const pName : {u"30", u"a b", u"schema", u"\xd83d\xde00"})
    Step(host::ToUtf8(pName), InitNamed(pName, &nNone)).Is(errOK);
}

// What was a name before there were rules for it.
TEST_F(DatabasesTest, KeepsNamesThatTheIndexHolds) {
  Unload();
  Bytes Index = ReadFile("g_db_id.dat");
  for (const std::string_view Name : {"old.schema", "../old", "05"}) {
    Index.insert(Index.end(), Name.begin(), Name.end());
    Index.resize((Index.size() + 63) / 64 * 64);
  }
  WriteFile("g_db_id.dat", Index);
  Load();
  Must(Open());
  std::uint32_t nDb = 0;
  Step("one folder", InitNamed(u"old.schema", &nDb)).Is(errOK);
  EXPECT_EQ(49u, nDb);
  Step("one with the same key", InitNamed(u"old.schema\x100.healing", &nDb)).Is(errPARAMETER_INVALID);
  Step("outside of the store", InitNamed(u"../old", &nDb)).Is(errPARAMETER_INVALID);
  Step("a numbered one", InitNamed(u"05", &nDb)).Is(errPARAMETER_INVALID);
}

TEST_F(DatabasesTest, ClearsOneOrAll) {
  Fill(5, 1, 3);
  Fill(m_nNamed, 1, 3);
  Must(ClearDb(5));
  EXPECT_EQ(3u, Info(kAllDatabases).nRecords);
  Step("all, though most are not open", ClearDb(kAllDatabases)).Is(errSTORE_NOT_INITIALIZED);
  EXPECT_EQ(0u, Info(kAllDatabases).nRecords);
}

// ---- Limits -----------------------------------------------------------------------------------------------

TEST_F(DatabasesTest, TakesLimitsAtAnyTime) {
  Must(SetLimit(6, limitSegmentEvents, 2));
  Must(InitDb(6));
  Fill(6, 1, 7);
  EXPECT_TRUE(fs::exists(Folder() / "06/00000004_events.dat"));
  Must(SetLimit(6, limitDatabaseEvents, 3));
  Holds(6, 5, 7);
}

// The oldest segment anywhere goes, one with each event that is added.
TEST_F(DatabasesTest, HoldsAllWithinOneLimit) {
  // Ages are whole seconds: all segments are made within one.
  std::this_thread::sleep_until(std::chrono::ceil<std::chrono::seconds>(std::chrono::system_clock::now()));
  OpenFresh(0);
  Must(InitDb(2));
  Must(SetLimit(2, limitDatabaseSize, 1 << 30));  // so it does not count
  OpenWithSegments(1);
  for (const std::uint32_t nDb : {1u, 2u, 5u, m_nNamed}) Fill(nDb, 1, 25);
  SetClock(SystemClock() + 100);
  Must(SetLimit(kAllDatabases, limitGlobalSize, Info(kAllDatabases).nSize - Info(2).nSize));
  TakeTrace();
  Must(Add(1, 26));
  EXPECT_THAT(TakeTrace(500), testing::Contains(testing::StartsWith("500 CheckLimits: going to delete a segment (1,")));
  Must(Add(1, 27));
  Holds(1, 11, 27);  // the first of those of one age, and no more
  Must(SetLimit(kAllDatabases, limitGlobalSize, 1));
  Fill(1, 28, 33);
  Holds(1, 31, 33);
  Holds(5, 21, 25);
  Holds(m_nNamed, 21, 25);  // never the newest
  Holds(2, 1, 25);
}

// ---- Limits after a new start: they are set again ---------------------------------------------------------

TEST_F(DatabasesTest, LimitsHoldAgainWhereverTheProcessEnded) {
  const auto FillUpTo = [this](std::uint32_t nFirst, std::uint32_t nLast) {
    Must(SetLimit(5, limitSegmentEvents, 10));
    Must(SetLimit(5, limitDatabaseEvents, 40));
    Fill(5, nFirst, nLast);
    Holds(5, nLast - 34, nLast);
  };
  for (const auto& [pWhere, pFile] : {std::pair{"before a new segment had its files", "05/0000000B_events.dat"},
                                      {"before a dropped segment had lost them", "05/00000006_events.dat"}}) {
    SCOPED_TRACE(pWhere);
    OpenFresh(0);
    FillUpTo(1, 95);
    const std::uint64_t nSize = Info(5).nSize + 4 * 12;  // with the headers of the events' files
    Close();
    WriteFile(pFile, FromHex("504c4442 0c000000 10000000"));
    Restart();
    Must(InitDb(5));
    EXPECT_EQ(nSize, Info(5).nSize);
    FillUpTo(96, 125);
  }
}

TEST_F(DatabasesTest, TheLimitOnAllCountsWhatWasThereBeforeTheStart) {
  OpenWithSegments(1);
  for (const std::uint32_t nDb : {1u, m_nNamed}) Fill(nDb, 1, 25);
  const std::uint64_t nSize = Info(1).nSize + Info(m_nNamed).nSize;
  Restart();
  Must(SetLimit(kAllDatabases, limitGlobalSize, nSize));
  OpenWithSegments(1);
  SetClock(SystemClock() + 100);
  Must(Add(1, 26));
  Holds(1, 11, 26);
  Holds(m_nNamed, 1, 25);
}

TEST_F(DatabasesTest, TheLimitOnAllDropsNothingForEventsThatDamageTook) {
  OpenWithSegments(1);
  for (const std::uint32_t nDb : {1u, m_nNamed}) Fill(nDb, 1, 25);
  RestartWith("named/00000001_events.dat", 0, {'X'}, 0);
  OpenWithSegments(1);
  Must(SetLimit(kAllDatabases, limitGlobalSize, Info(kAllDatabases).nSize));
  Times(m_nNamed, 0, 1);  // meets the damage
  SetClock(SystemClock() + 100);
  Must(Add(1, 26));
  Holds(1, 1, 26);
  Holds(m_nNamed, 11, 25);
}

}  // namespace
}  // namespace lumbra::test
