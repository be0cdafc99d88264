// The plain record file: headers, records, CRCs, and damage.
#include "objects/plaindb.h"

#include <cerrno>

#include "objects/crc32.h"
#include "support/system_calls.h"
#include "support/world.h"

namespace lumbra::test {
namespace {

using Values = std::vector<std::uint32_t>;

// Records of 4 bytes, each a number.
class PlainDbTest : public World {
 protected:
  bool Open(bool bChecked, std::uint32_t nUserSize = 4) {
    m_Db.Close();
    auto pFile = OpenFile(u"p");
    return m_Db.Open(pFile, nUserSize, bChecked);
  }
  ResultCode Add(std::uint32_t nValue, std::uint64_t* pnIndex = nullptr) { return m_Db.AddRecord(&nValue, 4, pnIndex); }
  Values GetAll(std::uint64_t nFirst = 0) {
    Values Read(10);
    std::uint32_t nCount = 77;
    EXPECT_CODE(errOK, m_Db.GetRecords(nFirst, Read.data(), 40, &nCount));
    Read.resize(nCount);
    return Read;
  }
  // The line of a failed check.
  static std::vector<std::string> Line(const std::string& Check, ResultCode nCode) {
    return {"300 PlainDB failed check (Failed check: " + Check + "). Err: " + Name(nCode)};
  }

  PlainDB m_Db;
};

TEST(Crc32, HasItsCheckValues) {
  EXPECT_EQ(0x2DFD2D88u, Crc32(0, "123456789", 9));
  EXPECT_EQ(0xABCD1234u, Crc32(0xABCD1234, "", 0));
  EXPECT_EQ(Crc32(Crc32(7, "1234", 4), "56789", 5), Crc32(7, "123456789", 9));
}

TEST_F(PlainDbTest, KeepsRecordsBehindItsHeader) {
  ASSERT_TRUE(Open(false));
  EXPECT_EQ("504c44420c00000004000000", ToHex(ReadFile("p")));
  std::uint64_t nIndex = 9;
  EXPECT_CODE(errOK, Add(0x11111111));
  EXPECT_CODE(errOK, Add(0x22222222, &nIndex));
  EXPECT_EQ(1u, nIndex);
  const std::uint32_t nNew = 0x33333333;
  EXPECT_CODE(errOK, m_Db.SetRecord(0, &nNew, 4));
  EXPECT_EQ("504c44420c000000040000003333333322222222", ToHex(ReadFile("p")));
  EXPECT_EQ((Values{0x33333333, 0x22222222}), GetAll());
  EXPECT_EQ((Values{0x22222222}), GetAll(1));
  EXPECT_EQ(Values{}, GetAll(2));
  EXPECT_EQ(Values{}, GetAll(UINT64_MAX));

  std::uint32_t nRead = 0;
  std::uint32_t nSize = 0;
  EXPECT_CODE(errNOT_FOUND, m_Db.GetRecord(2, &nRead, 4, &nSize));
  EXPECT_EQ(4u, nSize);
  EXPECT_CODE(errNOT_FOUND, m_Db.SetRecord(2, &nNew, 4));
  EXPECT_CODE(errPARAMETER_INVALID, m_Db.GetRecord(0, &nRead, 5, nullptr));
  EXPECT_CODE(errPARAMETER_INVALID, m_Db.AddRecord(&nNew, 3, nullptr));
  EXPECT_CODE(errPARAMETER_INVALID, m_Db.AddRecord(nullptr, 4, nullptr));
  EXPECT_CODE(errPARAMETER_INVALID, m_Db.GetRecords(0, nullptr, 4, nullptr));
  EXPECT_TRUE(TakeTrace().empty());
}

TEST_F(PlainDbTest, ChecksRecordsInACheckedFile) {
  ASSERT_TRUE(Open(true));
  for (const std::uint32_t nValue : {0u, 0x34333231u, 5u}) EXPECT_CODE(errOK, Add(nValue));
  // A record of zeros has the CRC 0 under seed 0, and passes.
  EXPECT_EQ("504c44500c00000008000000000000000000000031323334", ToHex(ReadFile("p")).substr(0, 48));
  EXPECT_EQ((Values{0, 0x34333231, 5}), GetAll());
  m_Db.Close();
  Patch("p", 20, {0x30});
  ASSERT_TRUE(Open(false));  // the file's own kind wins
  std::uint32_t nValue = 0;
  EXPECT_CODE(errDATA_CORRUPTED, m_Db.GetRecord(1, &nValue, 4, nullptr));
  EXPECT_EQ(Line("(crc32Value == realCrc32Value)", errDATA_CORRUPTED), TakeTrace());
  EXPECT_EQ(0x34333230u, nValue);
  std::uint32_t Buffer[3];
  std::uint32_t nCount = 77;
  EXPECT_CODE(errDATA_CORRUPTED, m_Db.GetRecords(0, Buffer, sizeof(Buffer), &nCount));
  EXPECT_EQ(77u, nCount);
  EXPECT_CODE(errOK, m_Db.SetRecord(1, &nValue, 4));
  EXPECT_EQ((Values{0, 0x34333230, 5}), GetAll());
}

TEST_F(PlainDbTest, StartsForeignFilesAnew) {
  const std::pair<const char*, bool> kHeaders[] = {
      {"504c44420c00000004000000 aabbccdd", true},  {"504c44500c00000008000000 00000000 00000000", true},
      {"504c44420c00000005000000 aabbccdd", false}, {"504c44420d00000004000000 aabbccdd", false},
      {"504c44430c00000004000000 aabbccdd", false}, {"504c44420c000000040000", false}};
  for (const auto& [pBytes, bKept] : kHeaders) {
    WriteFile("p", FromHex(pBytes));
    ASSERT_TRUE(Open(false));
    EXPECT_EQ(bKept ? 1u : 0u, m_Db.GetRecordCount()) << pBytes;
    EXPECT_EQ(bKept ? FromHex(pBytes) : FromHex("504c44420c00000004000000"), ReadFile("p")) << pBytes;
  }
  EXPECT_TRUE(TakeTrace().empty());
}

TEST_F(PlainDbTest, OverwritesATornAppend) {
  WriteFile("p", FromHex("504c44420c00000004000000 01000000 02000000 ffff"));
  ASSERT_TRUE(Open(true));
  EXPECT_CODE(errDATA_CORRUPTED, m_Db.FastConsistencyCheck());
  EXPECT_CODE(errOK, Add(3));
  EXPECT_EQ((Values{1, 2, 3}), GetAll());
  ASSERT_TRUE(Open(true));
  EXPECT_CODE(errOK, m_Db.FastConsistencyCheck());
}

TEST_F(PlainDbTest, ReportsFailingReadsAndWrites) {
  ASSERT_TRUE(Open(false));
  ASSERT_CODE(errOK, Add(1));
  std::uint32_t nValue = 0;
  FailCalls(SystemCall::Size, EIO);
  EXPECT_CODE(errREAD_FAILED, Add(2));
  EXPECT_EQ(Line("m_pFile->GetSize(&pos)", errREAD_FAILED), TakeTrace());
  FailCalls(SystemCall::WriteAt, ENOSPC);
  EXPECT_CODE(errWRITE_FAILED, Add(2));
  EXPECT_EQ(Line("m_pFile->SeekWrite(pos + sizeof(tPLAINDB_HEADER), pData, nDataSize, 0)", errWRITE_FAILED),
            TakeTrace());
  FailCalls(SystemCall::ReadAt, EIO);
  EXPECT_CODE(errREAD_FAILED, m_Db.GetRecord(0, &nValue, 4, nullptr));
  EXPECT_EQ(Line("m_pFile->SeekRead(pos, pDataBuff, nDataBuffSize, &bytesRead)", errREAD_FAILED), TakeTrace());
  FailCalls(SystemCall::ReadAt, EIO);
  EXPECT_EQ(Values{}, GetAll());
  EXPECT_EQ(1u, m_Db.GetRecordCount());
  std::filesystem::resize_file(Folder() / "p", 14);  // somebody cut the record off
  EXPECT_CODE(errREAD_FAILED, m_Db.GetRecord(0, &nValue, 4, nullptr));
  EXPECT_EQ(Line("(m_nRecordSize == bytesRead)", errREAD_FAILED), TakeTrace());

  auto pFile = OpenFile(u"q");
  FailCalls(SystemCall::WriteAt, ENOSPC);
  EXPECT_FALSE(PlainDB().Open(pFile, 4, false));
  EXPECT_NE(nullptr, pFile);  // it stays the caller's
}

// A file of 2^32 - 1 records is a hole of 16 GiB here.
TEST_F(PlainDbTest, HoldsNoMoreThanItsIndexesReach) {
  ASSERT_TRUE(Open(false));
  std::error_code Refused;
  std::filesystem::resize_file(Folder() / "p", 12 + 4 * std::uint64_t{0xFFFFFFFE}, Refused);
  if (Refused) GTEST_SKIP() << "no files of that size here";
  std::uint64_t nIndex = 0;
  EXPECT_CODE(errOK, Add(1, &nIndex));
  EXPECT_EQ(0xFFFFFFFEu, nIndex);
  EXPECT_CODE(errTOO_MANY_RECORDS, Add(2));
}

}  // namespace
}  // namespace lumbra::test
