// Databases by number and by name, their limits and the limit on all of them.
#include <gmock/gmock.h>

#include "component/component_fixture.h"

namespace lumbra::test {
namespace {

class DatabasesTest : public ComponentTest {};

TEST_F(DatabasesTest, OpensNumberedDatabases) {
  WriteFile("0C", {});  // a file where the folder should be
  Expect({errOK, errOK, errOPEN_FAILED}, {InitDb(10), InitDb(47, 32), InitDb(12)});
  EXPECT_TRUE(Exists("0A/segments.dat") && Exists("2F/segments.dat"));
  TakeTrace();
  Expect({errPARAMETER_INVALID, Lines(), errALREADY_DONE}, {InitDb(48), TakeTrace(), InitDb(10)});
  EXPECT_EQ("500 Lumbra::InitDB(A, 16) = errALREADY_DONE (0x80000067), events/size/time: 0/1056/",
            TakeTrace().back().substr(0, 83));
  Expect({errOK, errOK, errOK, 1u, errOK, errSTORE_NOT_INITIALIZED},
         {Add(10, 1), Open(), InitDb(10), Records(10), InitDb(11, 8), Add(9, 1)});
}

TEST_F(DatabasesTest, KeepsTheIdsOfNames) {
  TakeTrace();
  Expect({48u, 48u}, {m_nNamed, OpenNamed(u"named")});
  EXPECT_EQ((Lines{"500 Lumbra::InitDBByName method: name = named",
                   "500 Lumbra::InitDBByName method: db already initialized, dbId = 48"}),
            TakeTrace());
  // In the index the last name has the key of "named".
  Expect({49u, errOK, errOBJECT_ALREADY_EXISTS}, {OpenNamed(u"second"), Add(49, 7), CodeOf(OpenNamed(u"\u00EEamed"))});
  EXPECT_EQ("00000031", ToHex(ReadFile("second/g_db_id_val.log")));
  Expect({errOK, 49u, 1u, errOK, 0u}, {Open(), OpenNamed(u"second"), Records(49), ClearDb(49), Records(49)});
  EXPECT_FALSE(Exists("second/g_db_id_val.log"));
  EXPECT_CODE(errOK, SetLimit(49, limitSegmentEvents, 2));
  FailCalls(SystemCall::Open, os::kIoDevice);
  Expect({true, 49u}, {Failed(ClearDb(49)), OpenNamed(u"second")});  // opened anew, with the limit it has
  Fill(49, 2);
  std::uint64_t nThird = 0;
  Expect({errOK, WithDatabase(0x200000000, 49)}, {Add(49, 3, 0, &nThird), nThird});
  Expect({0u, errPARAMETER_INVALID, errOK}, {Records(48), m_nLast, SetLimit(kAllDatabases, limitDatabaseAge, 0)});
  const std::u16string kTooLong(64, u'n');
  EXPECT_CODE(errOK, CodeOf(OpenNamed(kTooLong.substr(1).c_str())));
  EXPECT_EQ(Lines(4, Name(errPARAMETER_INVALID)),
            Answers({CodeOf(OpenNamed(u"")), CodeOf(OpenNamed(nullptr)), CodeOf(OpenNamed(kTooLong.c_str())),
                     Call(&Ops::InitDBByName, u"name", 16, nullptr)}));
}

TEST_F(DatabasesTest, HasIdsFor207Names) {
  m_Store = host::Store();
  Bytes Index = ReadFile("g_db_id.dat");
  for (int i = 0; i < 205; ++i) {
    const std::string sName = std::to_string(i);
    Index.insert(Index.end(), sName.begin(), sName.end());
    Index.resize(Index.size() + 64 - sName.size());
  }
  WriteFile("g_db_id.dat", Index);
  ASSERT_CODE(errOK, Open());
  Expect({253u, 254u}, {OpenNamed(u"204"), OpenNamed(u"last")});
  EXPECT_CODE(errINDEX_INVALID, CodeOf(OpenNamed(u"one too many")));
  EXPECT_FALSE(Exists("one too many"));
}

// A name is handed out only once it is in the index file; otherwise it gets the same id at the next attempt.
TEST_F(DatabasesTest, DoesNotKeepANameThatWasNotSaved) {
  FailCalls(SystemCall::Write, os::kIoDevice, 1);  // after the identity file; the output is untouched
  Expect({99u, CodeOfNumber(0x8007045D), errPARAMETER_INVALID}, {OpenNamed(u"a"), m_nLast, Add(49, 1)});
  Expect({49u, errOK}, {OpenNamed(u"a"), Add(49, 1)});
  // A folder where a file should be, behind the identity file; the id is told all the same.
  fs::create_directories(Folder() / "b/segments.dat");
  Expect({50u, errACCESS_DENIED, errPARAMETER_INVALID}, {OpenNamed(u"b"), m_nLast, Add(50, 1)});
}

TEST_F(DatabasesTest, SetsLimits) {
  // The first before it is open.
  Expect({errOK, errOK}, {SetLimit(6, limitSegmentEvents, 2), InitDb(6)});
  Fill(6, 7);
  EXPECT_TRUE(Exists("06/00000004_events.dat"));
  Expect({errOK, 3u, Ids{5, 6, 7}}, {SetLimit(6, limitDatabaseEvents, 3), Records(6), Times(6, 0, 3)});
  Expect({errNOT_SUPPORTED, errNOT_SUPPORTED, errPARAMETER_INVALID, errNOT_SUPPORTED},
         {SetLimit(6, 7, 1), SetLimit(6, 0, 1), SetLimit(49, 1, 1), SetLimit(kAllDatabases, 99, 1)});
  TakeTrace();
  EXPECT_CODE(errOK, SetLimit(kAllDatabases, limitDatabaseAge, 1000));
  const Lines Traced = TakeTrace();
  // 255, 1 to 47, 48, and 49, where it ends.
  Expect({50u, "500 Lumbra::SetDBParams(FF, 2, 1000)", "500 Lumbra::SetDBParams(31, 2, 1000)"},
         {Traced.size(), Traced.front(), Traced.back()});
}

TEST_F(DatabasesTest, DescribesAndClears) {
  Fill(5, 3);
  Fill(m_nNamed, 1);
  SetClock(SystemClock() + 500);
  const auto [nRecords, nSize, nAge] = Info(kAllDatabases);
  Expect({4u, Size(5) + Size(m_nNamed)}, {nRecords, nSize});
  EXPECT_NEAR(500, static_cast<double>(nAge), 5);
  EXPECT_GT(std::get<2>(Info(5)), 132223104000000000u);
  Expect({errOK, std::tuple{0u, 0u, 0u}}, {Call(&Ops::GetDBInfo, 5, nullptr, nullptr, nullptr), Info(30)});
  Expect({errPARAMETER_INVALID, errPARAMETER_INVALID, errOK}, {ClearDb(0), ClearDb(77), ClearDb(5)});
  EXPECT_EQ("500 Lumbra::ClearDB(5) = errOK (0x00000000)", TakeTrace().back());
  // Most are not open.
  Expect({0u, errSTORE_NOT_INITIALIZED, 0u}, {Records(5), ClearDb(kAllDatabases), Records(m_nNamed)});
}

// What a limit starts or drops at once is in the size total at once, too.
TEST_F(DatabasesTest, CountsWhatALimitDrops) {
  Expect({errOK, errOK, errOK}, {InitDb(1), InitDb(2), SetLimit(kAllDatabases, limitSegmentEvents, 10)});
  for (const std::uint32_t nDb : {1u, 2u}) Fill(nDb, 60);
  ASSERT_CODE(errOK, SetLimit(kAllDatabases, limitGlobalSize, Size(kAllDatabases) + 1));
  ASSERT_CODE(errOK, SetLimit(1, limitDatabaseEvents, 10));
  SetClock(SystemClock() + 100);
  Fill(2, 30);
  Expect({10u, 90u}, {Records(1), Records(2)});
}

// One limit for all: the oldest segment anywhere goes, one with each event that is added.
TEST_F(DatabasesTest, HoldsAllWithinTheGlobalLimit) {
  // The third has a limit of its own.
  Expect({errOK, errOK, errOK, errOK, errOK},
         {InitDb(1), InitDb(2), InitDb(3), SetLimit(kAllDatabases, limitSegmentEvents, 10),
          SetLimit(3, limitDatabaseSize, 1 << 30)});
  for (const std::uint32_t nDb : {3u, m_nNamed, 2u, 1u}) Fill(nDb, 30);
  SetClock(SystemClock() + 100);
  ASSERT_CODE(errOK, SetLimit(kAllDatabases, limitGlobalSize, Size(kAllDatabases) - Size(3)));
  TakeTrace();
  ASSERT_CODE(errOK, Add(1, 1));  // a new segment, and the first of equal age goes
  EXPECT_THAT(TakeTrace(500), testing::Contains(testing::StartsWith("500 CheckLimits: going to delete a segment (1,")));
  Expect({21u, 30u, errOK}, {Records(1), Records(3), SetLimit(kAllDatabases, limitGlobalSize, 1)});
  Fill(1, 12);
  for (const std::uint32_t nDb : {1u, 2u, m_nNamed}) EXPECT_GE(12u, Records(nDb)) << nDb;  // one segment each
  Expect({30u, errOK}, {Records(3), SetLimit(kAllDatabases, limitGlobalSize, 0)});
  Fill(2, 30);
  EXPECT_LE(30u, Records(2));
}

}  // namespace
}  // namespace lumbra::test
