// Databases by number and by name, their limits and the limit on all of them.
#include <cerrno>
#include <filesystem>

#include "component/component_fixture.h"

namespace lumbra::test {
namespace {

using std::filesystem::exists;

class DatabasesTest : public ComponentTest {
 protected:
  void SetUp() override { ASSERT_CODE(errOK, Open()); }

  std::tuple<std::uint32_t, std::uint64_t, std::uint64_t> Info(std::uint32_t nDb) {
    std::uint32_t nRecords = 0;
    std::uint64_t nSize = 0;
    std::uint64_t nTime = 0;
    m_nLast = Call(&Ops::GetDBInfo, nDb, &nRecords, &nSize, &nTime);
    return {nRecords, nSize, nTime};
  }
  std::uint32_t Records(std::uint32_t nDb) { return std::get<0>(Info(nDb)); }
  std::uint64_t Size(std::uint32_t nDb) { return std::get<1>(Info(nDb)); }
};

TEST_F(DatabasesTest, OpensNumberedDatabases) {
  EXPECT_CODE(errOK, Call(&Ops::InitDB, 10, 16));
  EXPECT_CODE(errOK, Call(&Ops::InitDB, 47, 32));
  EXPECT_TRUE(exists(Folder() / "0A/segments.dat") && exists(Folder() / "2F/segments.dat"));
  TakeTrace();
  EXPECT_CODE(errALREADY_DONE, Call(&Ops::InitDB, 10, 16));
  EXPECT_EQ("500 Lumbra::InitDB(A, 16) = errALREADY_DONE (0x80000067), events/size/time: 0/1056/",
            TakeTrace().back().substr(0, 83));
  EXPECT_CODE(errPARAMETER_INVALID, Call(&Ops::InitDB, 48, 16));
  EXPECT_TRUE(TakeTrace().empty());
  WriteFile("0C", {});  // a file where the folder should be
  EXPECT_CODE(errOPEN_FAILED, Call(&Ops::InitDB, 12, 16));
  EXPECT_CODE(errOK, Add(10, 1));
  ASSERT_CODE(errOK, Open());
  EXPECT_CODE(errOK, Call(&Ops::InitDB, 10, 16));
  EXPECT_EQ(1u, Records(10));
  EXPECT_CODE(errOK, Call(&Ops::InitDB, 11, 8));
  EXPECT_CODE(errSTORE_NOT_INITIALIZED, Add(9, 1));
}

TEST_F(DatabasesTest, KeepsTheIdsOfNames) {
  EXPECT_EQ(48u, OpenNamed(u"first"));
  EXPECT_EQ(49u, OpenNamed(u"second"));
  EXPECT_EQ("00000031", ToHex(ReadFile("second/g_db_id_val.log")));
  TakeTrace();
  EXPECT_EQ(48u, OpenNamed(u"first"));
  EXPECT_EQ((Lines{"500 Lumbra::InitDBByName method: name = first",
                   "500 Lumbra::InitDBByName method: db already initialized, dbId = 48"}),
            TakeTrace());
  EXPECT_CODE(errOK, Add(49, 7));
  OpenNamed(u"\u00E6irst");  // of the same key in the index
  EXPECT_CODE(errOBJECT_ALREADY_EXISTS, m_nLast);
  ASSERT_CODE(errOK, Open());
  EXPECT_EQ(49u, OpenNamed(u"second"));
  EXPECT_EQ(1u, Records(49));
  EXPECT_CODE(errOK, Call(&Ops::ClearDB, 49));
  EXPECT_FALSE(exists(Folder() / "second/g_db_id_val.log"));
  EXPECT_EQ(0u, Records(49));
  EXPECT_CODE(errOK, Call(&Ops::SetDBParams, 49, limitSegmentEvents, 2));
  FailCalls(SystemCall::Open, EIO);
  EXPECT_TRUE(Failed(Call(&Ops::ClearDB, 49)));
  EXPECT_EQ(49u, OpenNamed(u"second"));  // opened anew, with the limit it has
  std::uint64_t nThird = 0;
  for (std::uint64_t n = 1; n <= 3; ++n) EXPECT_CODE(errOK, Add(49, n, 0, &nThird));
  EXPECT_EQ(WithDatabase(0x200000000, 49), nThird);
  EXPECT_EQ(0u, Records(48));
  EXPECT_CODE(errPARAMETER_INVALID, m_nLast);
  for (const auto& [pName, nCode] :
       {std::pair{u"", errPARAMETER_INVALID},
        {static_cast<const char16_t*>(nullptr), errPARAMETER_INVALID},
        {u"123456789 123456789 123456789 123456789 123456789 123456789 1234", errPARAMETER_INVALID},
        {u"123456789 123456789 123456789 123456789 123456789 123456789 123", errOK}}) {
    OpenNamed(pName);
    EXPECT_CODE(nCode, m_nLast);
  }
  EXPECT_CODE(errPARAMETER_INVALID, Call(&Ops::InitDBByName, u"name", 16, nullptr));
}

TEST_F(DatabasesTest, HasIdsFor207Names) {
  m_Store = host::Store();
  Bytes Index = ReadFile("g_db_id.dat");
  for (int i = 0; i < 206; ++i) {
    Bytes Item(64);
    const std::string sName = std::to_string(i);
    std::copy(sName.begin(), sName.end(), Item.begin());
    Index.insert(Index.end(), Item.begin(), Item.end());
  }
  WriteFile("g_db_id.dat", Index);
  ASSERT_CODE(errOK, Open());
  EXPECT_EQ(253u, OpenNamed(u"205"));
  EXPECT_EQ(254u, OpenNamed(u"last"));
  OpenNamed(u"one too many");
  EXPECT_CODE(errINDEX_INVALID, m_nLast);
  EXPECT_FALSE(exists(Folder() / "one too many"));
}

// A name is handed out only once it is in the index file; otherwise it gets the same id at the next attempt.
TEST_F(DatabasesTest, DoesNotKeepANameThatWasNotSaved) {
  FailCalls(SystemCall::Write, EIO, 1);  // after the identity file
  std::uint32_t nDb = 7;
  EXPECT_CODE(static_cast<ResultCode>(0x8007045Du), Call(&Ops::InitDBByName, u"a", 16, &nDb));
  EXPECT_EQ(7u, nDb);
  EXPECT_CODE(errPARAMETER_INVALID, Add(48, 1));
  EXPECT_EQ(48u, OpenNamed(u"a"));
  EXPECT_CODE(errOK, Add(48, 1));
  FailCalls(SystemCall::Open, EACCES, 4);  // "segments.dat", after the identity file
  EXPECT_EQ(49u, OpenNamed(u"b"));         // told also when the database does not open
  EXPECT_CODE(errACCESS_DENIED, m_nLast);
  EXPECT_CODE(errPARAMETER_INVALID, Add(49, 1));
}

TEST_F(DatabasesTest, SetsLimits) {
  ASSERT_CODE(errOK, Call(&Ops::SetDBParams, 5, limitSegmentEvents, 2));  // before it is open
  ASSERT_CODE(errOK, Call(&Ops::InitDB, 5, 16));
  for (std::uint64_t i = 1; i <= 7; ++i) ASSERT_CODE(errOK, Add(5, i));
  EXPECT_TRUE(exists(Folder() / "05/00000004_events.dat"));
  EXPECT_CODE(errOK, Call(&Ops::SetDBParams, 5, limitDatabaseEvents, 3));
  EXPECT_EQ(3u, Records(5));
  EXPECT_EQ((std::vector<std::uint64_t>{5, 6, 7}), Times(5, 0, 3));
  EXPECT_CODE(errNOT_SUPPORTED, Call(&Ops::SetDBParams, 5, 7, 1));
  EXPECT_CODE(errNOT_SUPPORTED, Call(&Ops::SetDBParams, 5, 0, 1));
  EXPECT_CODE(errPARAMETER_INVALID, Call(&Ops::SetDBParams, 48, 1, 1));
  EXPECT_CODE(errNOT_SUPPORTED, Call(&Ops::SetDBParams, kAllDatabases, 99, 1));
  OpenNamed(u"n");
  TakeTrace();
  EXPECT_CODE(errOK, Call(&Ops::SetDBParams, kAllDatabases, limitDatabaseAge, 1000));
  const Lines Traced = TakeTrace();
  EXPECT_EQ(50u, Traced.size());  // 255, 1 to 47, 48, and 49, where it ends
  EXPECT_EQ("500 Lumbra::SetDBParams(FF, 2, 1000)", Traced.front());
  EXPECT_EQ("500 Lumbra::SetDBParams(31, 2, 1000)", Traced.back());
}

TEST_F(DatabasesTest, DescribesAndClears) {
  ASSERT_CODE(errOK, Call(&Ops::InitDB, 1, 16));
  const std::uint32_t nNamed = OpenNamed(u"n");
  for (int i = 0; i < 3; ++i) ASSERT_CODE(errOK, Add(1, 1));
  ASSERT_CODE(errOK, Add(nNamed, 1));
  SetClock(SystemClock() + 500);
  const auto [nRecords, nSize, nAge] = Info(kAllDatabases);
  EXPECT_EQ(4u, nRecords);
  EXPECT_EQ(Size(1) + Size(nNamed), nSize);
  EXPECT_NEAR(500, static_cast<double>(nAge), 5);
  EXPECT_GT(std::get<2>(Info(1)), 132223104000000000u);
  EXPECT_CODE(errOK, Call(&Ops::GetDBInfo, 1, nullptr, nullptr, nullptr));
  EXPECT_EQ((std::tuple{0u, 0ull, 0ull}), Info(30));
  EXPECT_CODE(errPARAMETER_INVALID, Call(&Ops::ClearDB, 0));
  EXPECT_CODE(errPARAMETER_INVALID, Call(&Ops::ClearDB, 77));
  TakeTrace();
  EXPECT_CODE(errOK, Call(&Ops::ClearDB, 1));
  EXPECT_EQ("500 Lumbra::ClearDB(1) = errOK (0x00000000)", TakeTrace().back());
  EXPECT_EQ(0u, Records(1));
  EXPECT_CODE(errSTORE_NOT_INITIALIZED, Call(&Ops::ClearDB, kAllDatabases));  // most are not open
  EXPECT_EQ(0u, Records(nNamed));
}

// What a limit starts or drops at once is in the size total at once, too.
TEST_F(DatabasesTest, CountsWhatALimitDrops) {
  for (const std::uint32_t nDb : {1u, 2u}) {
    ASSERT_CODE(errOK, Call(&Ops::InitDB, nDb, 16));
    ASSERT_CODE(errOK, Call(&Ops::SetDBParams, nDb, limitSegmentEvents, 10));
    for (int i = 0; i < 60; ++i) ASSERT_CODE(errOK, Add(nDb, 1));
  }
  ASSERT_CODE(errOK, Call(&Ops::SetDBParams, kAllDatabases, limitGlobalSize, Size(1) + Size(2) + 1));
  ASSERT_CODE(errOK, Call(&Ops::SetDBParams, 1, limitDatabaseEvents, 10));
  SetClock(SystemClock() + 100);
  for (int i = 0; i < 30; ++i) ASSERT_CODE(errOK, Add(2, 1));
  EXPECT_EQ((std::pair{10u, 90u}), (std::pair{Records(1), Records(2)}));
}

// One limit for all: the oldest segment anywhere goes, one with each event that is added.
TEST_F(DatabasesTest, HoldsAllWithinTheGlobalLimit) {
  for (const std::uint32_t nDb : {1u, 2u, 3u}) {
    ASSERT_CODE(errOK, Call(&Ops::InitDB, nDb, 16));
    ASSERT_CODE(errOK, Call(&Ops::SetDBParams, nDb, limitSegmentEvents, 10));
  }
  const std::uint32_t nNamed = OpenNamed(u"n");
  ASSERT_CODE(errOK, Call(&Ops::SetDBParams, nNamed, limitSegmentEvents, 10));
  ASSERT_CODE(errOK, Call(&Ops::SetDBParams, 3, limitDatabaseSize, 1 << 30));  // has a limit of its own
  const auto Fill = [&](std::uint32_t nDb) {
    for (int i = 0; i < 30; ++i) ASSERT_CODE(errOK, Add(nDb, 1));
  };
  Fill(3);
  Fill(nNamed);
  Fill(2);
  Fill(1);
  SetClock(SystemClock() + 100);
  const std::uint64_t nTotal = Size(1) + Size(2) + Size(nNamed);
  ASSERT_CODE(errOK, Call(&Ops::SetDBParams, kAllDatabases, limitGlobalSize, nTotal));
  TakeTrace();
  ASSERT_CODE(errOK, Add(1, 1));  // a new segment, and the first of equal age goes
  Lines Traced = TakeTrace(500);
  EXPECT_TRUE(std::any_of(Traced.begin(), Traced.end(), [](const std::string& Line) {
    return Line.starts_with("500 CheckLimits: going to delete a segment (1,");
  }));
  EXPECT_EQ(21u, Records(1));
  EXPECT_EQ(30u, Records(3));
  ASSERT_CODE(errOK, Call(&Ops::SetDBParams, kAllDatabases, limitGlobalSize, 1));
  for (int i = 0; i < 12; ++i) ASSERT_CODE(errOK, Add(1, 1));
  for (const std::uint32_t nDb : {1u, 2u, nNamed}) EXPECT_GE(12u, Records(nDb)) << nDb;  // one segment each
  EXPECT_EQ(30u, Records(3));
  ASSERT_CODE(errOK, Call(&Ops::SetDBParams, kAllDatabases, limitGlobalSize, 0));
  Fill(2);
  EXPECT_LE(30u, Records(2));
}

TEST_F(DatabasesTest, TakesNoWritesWhileTheyAreSuspended) {
  ASSERT_CODE(errOK, Call(&Ops::InitDB, 1, 16));
  const std::uint32_t nNamed = OpenNamed(u"n");
  std::uint64_t nId = 0;
  ASSERT_CODE(errOK, Add(1, 5, 0, &nId));
  ASSERT_CODE(errOK, m_Store.SetNumber(propWRITES_SUSPENDED, 1));
  TakeTrace();
  EXPECT_CODE(errREAD_ONLY, Add(1, 6));
  EXPECT_CODE(errREAD_ONLY, Add(nNamed, 6));
  EXPECT_EQ((Lines{"600 Lumbra::AddEvent Database - 1", "600 Lumbra::AddEvent Database - 30"}), TakeTrace());
  EXPECT_CODE(errREAD_ONLY, Call(&Ops::UpdateEvent, nId, "", 16));
  EXPECT_CODE(errREAD_ONLY, Call(&Ops::InitDB, 2, 16));
  EXPECT_CODE(errREAD_ONLY, Call(&Ops::SetDBParams, 1, 1, 1));
  EXPECT_CODE(errREAD_ONLY, Call(&Ops::ClearDB, 1));
  EXPECT_TRUE(TakeTrace().empty());
  OpenNamed(u"m");
  EXPECT_CODE(errREAD_ONLY, m_nLast);
  EXPECT_EQ(99u, Find(1, u"C:\\new"));  // the output is untouched
  EXPECT_CODE(errREAD_ONLY, m_nLast);
  EXPECT_EQ(0u, Find(1, u"C:\\new", 0));
  EXPECT_CODE(errOBJECT_NOT_FOUND, m_nLast);
  EXPECT_EQ((std::vector<std::uint64_t>{5}), Times(1, 0, 1));
  EXPECT_EQ(1u, Records(1));
  ASSERT_CODE(errOK, m_Store.SetNumber(propWRITES_SUSPENDED, 0));
  EXPECT_CODE(errOK, Add(1, 6));
}

}  // namespace
}  // namespace lumbra::test
