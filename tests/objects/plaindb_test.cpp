// The plain record file: headers, records, CRCs, and damage.
#include "objects/objdb_fixture.h"

namespace lumbra::test {
namespace {

using Values = std::vector<std::uint32_t>;
using Answer = std::pair<std::string, Lines>;  // a code and what was traced

// Records of 4 bytes, each a number.
class PlainDbTest : public World {
 protected:
  bool Open(bool bChecked) {
    m_Db.Close();
    auto pFile = OpenFile(u"p");
    m_pFile = pFile.get();
    return m_Db.Open(pFile, 4, bChecked);
  }
  ResultCode Add(std::uint32_t nValue, std::uint64_t* pnIndex = nullptr) { return m_Db.AddRecord(&nValue, 4, pnIndex); }
  ResultCode Get(std::uint64_t nIndex) { return m_Db.GetRecord(nIndex, &m_nRead, 4, nullptr); }
  // As many as the call counts: 77 where it does not say.
  Values GetAll(std::uint64_t nFirst = 0, ResultCode nCode = errOK) {
    Values Read(10);
    std::uint32_t nCount = 77;
    EXPECT_CODE(nCode, m_Db.GetRecords(nFirst, Read.data(), 40, &nCount));
    Read.resize(nCount);
    return Read;
  }
  Answer Told(ResultCode nCode) { return {Name(nCode), TakeTrace()}; }
  static Answer FailedCheck(const std::string& Check, ResultCode nCode) {
    return {Name(nCode), {"300 PlainDB failed check (Failed check: " + Check + "). Err: " + Name(nCode)}};
  }

  PlainDB m_Db;
  StorageFile* m_pFile = nullptr;  // of the open record file
  std::uint32_t m_nRead = 0;
};

TEST(Crc32, HasItsCheckValues) {
  EXPECT_EQ(0x2DFD2D88u, Crc32(0, "123456789", 9));
  EXPECT_EQ(0xABCD1234u, Crc32(0xABCD1234, "", 0));
  EXPECT_EQ(Crc32(Crc32(7, "1234", 4), "56789", 5), Crc32(7, "123456789", 9));
}

TEST_F(PlainDbTest, KeepsRecordsBehindItsHeader) {
  ASSERT_TRUE(Open(false));
  std::uint64_t nIndex = 9;
  std::uint32_t nSize = 0;
  const std::uint32_t nNew = 0x33333333;
  EXPECT_EQ(Lines(3, Name(errOK)), Names({Add(0x11111111), Add(0x22222222, &nIndex), m_Db.SetRecord(0, &nNew, 4)}));
  EXPECT_EQ("504c44420c000000040000003333333322222222", ToHex(ReadFile("p")));
  EXPECT_EQ((std::vector<Values>{{0x33333333, 0x22222222}, {0x22222222}, {}, {}}),
            (std::vector{GetAll(), GetAll(1), GetAll(2), GetAll(UINT64_MAX)}));
  EXPECT_EQ(Lines(2, Name(errNOT_FOUND)), Names({m_Db.GetRecord(2, &m_nRead, 4, &nSize), m_Db.SetRecord(2, &nNew, 4)}));
  EXPECT_EQ((std::pair{UINT64_C(1), 4u}), (std::pair{nIndex, nSize}));
  EXPECT_EQ(Lines(4, Name(errPARAMETER_INVALID)),
            Names({m_Db.GetRecord(0, &m_nRead, 5, nullptr), m_Db.AddRecord(&nNew, 3, nullptr),
                   m_Db.AddRecord(nullptr, 4, nullptr), m_Db.GetRecords(0, nullptr, 4, nullptr)}));
  EXPECT_EQ(Lines(), TakeTrace());
}

TEST_F(PlainDbTest, ChecksRecordsInACheckedFile) {
  ASSERT_TRUE(Open(true));
  EXPECT_EQ(Lines(3, Name(errOK)), Names({Add(0), Add(0x34333231), Add(5)}));
  // A record of zeros has the CRC 0 under seed 0, and passes.
  EXPECT_EQ("504c44500c00000008000000000000000000000031323334", ToHex(ReadFile("p")).substr(0, 48));
  m_Db.Close();
  Patch("p", 20, {0x30});
  ASSERT_TRUE(Open(false));  // the file's own kind wins
  EXPECT_EQ(FailedCheck("(crc32Value == realCrc32Value)", errDATA_CORRUPTED), Told(Get(1)));
  EXPECT_EQ(0x34333230u, m_nRead);
  EXPECT_EQ(77u, GetAll(0, errDATA_CORRUPTED).size());
  EXPECT_CODE(errOK, m_Db.SetRecord(1, &m_nRead, 4));
  EXPECT_EQ((Values{0, 0x34333230, 5}), GetAll());
}

TEST_F(PlainDbTest, StartsForeignFilesAnew) {
  const std::string kNew = "504c44420c00000004000000";
  // What stands in the file, and how much of it is kept.
  const std::tuple<std::string, std::string, std::uint64_t> kHeaders[] = {
      {kNew + "aabbccdd", kNew + "aabbccdd", 1},
      {"504c44500c000000080000000000000000000000", "504c44500c000000080000000000000000000000", 1},
      {"504c44420c00000005000000 aabbccdd", kNew, 0},
      {"504c44420d00000004000000 aabbccdd", kNew, 0},
      {"504c44430c00000004000000 aabbccdd", kNew, 0},
      {"504c44420c000000040000", kNew, 0}};
  for (const auto& [Bytes, Left, nRecords] : kHeaders) {
    m_Db.Close();
    WriteFile("p", FromHex(Bytes));
    ASSERT_TRUE(Open(false));
    EXPECT_EQ((std::pair{Left, nRecords}), (std::pair{ToHex(ReadFile("p")), m_Db.GetRecordCount()})) << Bytes;
  }
  EXPECT_EQ(Lines(), TakeTrace());
}

TEST_F(PlainDbTest, OverwritesATornAppend) {
  WriteFile("p", FromHex("504c44420c00000004000000 01000000 02000000 ffff"));
  ASSERT_TRUE(Open(true));
  EXPECT_EQ(Names({errDATA_CORRUPTED, errOK}), Names({m_Db.FastConsistencyCheck(), Add(3)}));
  EXPECT_EQ((Values{1, 2, 3}), GetAll());
  ASSERT_TRUE(Open(true));
  EXPECT_CODE(errOK, m_Db.FastConsistencyCheck());
}

TEST_F(PlainDbTest, ReportsFailingReadsAndWrites) {
  ASSERT_TRUE(Open(false));
  ASSERT_CODE(errOK, Add(1));
  const std::string kWrite = "m_pFile->SeekWrite(pos + sizeof(tPLAINDB_HEADER), pData, nDataSize, 0)";
  const std::string kRead = "m_pFile->SeekRead(pos, pDataBuff, nDataBuffSize, &bytesRead)";
  FailCalls(SystemCall::Size, os::kIoDevice);
  EXPECT_EQ(FailedCheck("m_pFile->GetSize(&pos)", errREAD_FAILED), Told(Add(2)));
  FailCalls(SystemCall::WriteAt, os::kDiskFull);
  EXPECT_EQ(FailedCheck(kWrite, errWRITE_FAILED), Told(Add(2)));
  FailCalls(SystemCall::ReadAt, os::kIoDevice, 0, 2);
  EXPECT_EQ(FailedCheck(kRead, errREAD_FAILED), Told(Get(0)));
  EXPECT_EQ((std::pair{Values{}, UINT64_C(1)}), (std::pair{GetAll(), m_Db.GetRecordCount()}));
  ASSERT_TRUE(m_pFile->SetSize(14));  // the record is cut off
  EXPECT_EQ(FailedCheck("(m_nRecordSize == bytesRead)", errREAD_FAILED), Told(Get(0)));

  auto pFile = OpenFile(u"q");
  FailCalls(SystemCall::WriteAt, os::kDiskFull);
  EXPECT_FALSE(PlainDB().Open(pFile, 4, false));
  EXPECT_NE(nullptr, pFile);  // it stays the caller's
}

// A file of 2^32 - 1 records is a hole of 16 GiB here.
TEST_F(PlainDbTest, HoldsNoMoreThanItsIndexesReach) {
  ASSERT_TRUE(Open(false));
  if (!m_pFile->SetSize(12 + 4 * std::uint64_t{0xFFFFFFFE})) GTEST_SKIP() << "no files of that size here";
  std::uint64_t nIndex = 0;
  EXPECT_EQ(Names({errOK, errTOO_MANY_RECORDS}), Names({Add(1, &nIndex), Add(2)}));
  EXPECT_EQ(0xFFFFFFFEu, nIndex);
}

}  // namespace
}  // namespace lumbra::test
