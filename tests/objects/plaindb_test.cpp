// The plain record file: headers, records, CRCs, and damage.
#include "objects/objdb_fixture.h"

namespace lumbra::test {
namespace {

using Values = std::vector<std::uint32_t>;

// Records of 4 bytes, each a number.
class PlainDbTest : public World {
 protected:
  void Open(bool bChecked) {
    m_Db.Close();
    auto pFile = OpenFile(u"p");
    if (!m_Db.Open(pFile, 4, bChecked)) throw std::runtime_error("the record file does not open");
  }
  ResultCode Add(std::uint32_t nValue) { return m_Db.AddRecord(&nValue, 4, nullptr); }
  ResultCode Set(std::uint64_t nIndex, std::uint32_t nValue) { return m_Db.SetRecord(nIndex, &nValue, 4); }
  ResultCode Get(std::uint64_t nIndex) { return m_Db.GetRecord(nIndex, &m_nRead, 4, nullptr); }
  // All records from one on, as many as the call counts.
  Values GetAll(std::uint64_t nFirst = 0) {
    Values Read(10);
    std::uint32_t nCount = 0;
    EXPECT_CODE(errOK, m_Db.GetRecords(nFirst, Read.data(), 40, &nCount));
    Read.resize(nCount);
    return Read;
  }

  PlainDB m_Db;
  std::uint32_t m_nRead = 0;
};

TEST_F(PlainDbTest, KeepsRecordsBehindItsHeader) {
  Open(kPlain);
  AllAnswer(errOK, {{"add", Add(1)}, {"add", Add(0x22222222)}, {"change", Set(0, 0x33333333)}});
  EXPECT_EQ("504c44420c000000040000003333333322222222", ToHex(ReadFile("p")));
  EXPECT_EQ((Values{0x33333333, 0x22222222}), GetAll());
  EXPECT_EQ(Values{0x22222222}, GetAll(1));
  EXPECT_EQ(Values(), GetAll(UINT64_MAX));
  AllAnswer(errNOT_FOUND, {{"read behind the last", Get(2)}, {"change behind the last", Set(2, 1)}});
}

TEST_F(PlainDbTest, ChecksRecordsInACheckedFile) {
  Open(kChecked);
  for (const std::uint32_t nValue : {0u, 0x34333231u, 5u}) Must(Add(nValue));
  // A record of zeros has the CRC 0 under seed 0, and passes.
  EXPECT_EQ("504c44500c00000008000000000000000000000031323334", ToHex(ReadFile("p")).substr(0, 48));
  m_Db.Close();
  Patch("p", 20, {0x30});
  Open(kPlain);  // the file's own kind wins
  const Lines kFailed = {"300 PlainDB failed check (Failed check: (crc32Value == realCrc32Value)). Err: " +
                         Name(errDATA_CORRUPTED)};
  Step("read a damaged record", Get(1)).Is(errDATA_CORRUPTED).Says(kFailed);
  EXPECT_EQ(0x34333230u, m_nRead);  // it is delivered all the same
  Values Read(3);
  Step("read all", m_Db.GetRecords(0, Read.data(), 12, nullptr)).Is(errDATA_CORRUPTED).Says(kFailed);
  Must(Set(1, 6));
  EXPECT_EQ((Values{0, 6, 5}), GetAll());
}

TEST_F(PlainDbTest, StartsForeignFilesAnew) {
  // Records of 5 bytes, a longer header, another magic, and half a header.
  for (const char* const pForeign : {"504c44420c00000005000000aabbccdd", "504c44420d00000004000000aabbccdd",
                                     "504c44430c00000004000000aabbccdd", "504c44420c000000040000"}) {
    m_Db.Close();
    WriteFile("p", FromHex(pForeign));
    Open(kPlain);
    EXPECT_EQ("504c44420c00000004000000", ToHex(ReadFile("p"))) << pForeign;
  }
}

TEST_F(PlainDbTest, OverwritesATornAppend) {
  WriteFile("p", FromHex("504c44420c00000004000000 01000000 02000000 ffff"));
  Open(kPlain);
  Step("check a torn file", m_Db.FastConsistencyCheck()).Is(errDATA_CORRUPTED);
  Must(Add(3));
  EXPECT_EQ((Values{1, 2, 3}), GetAll());
}

}  // namespace
}  // namespace lumbra::test
