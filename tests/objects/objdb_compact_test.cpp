// Compaction of an object store: what it keeps, what it leaves out, and that the live store never notices.
#include <algorithm>
#include <functional>

#include "objects/objdb_fixture.h"

namespace lumbra::test {
namespace {

// The parts of an object, and the feature sets by how many of these, from the first on, have a CRC behind them.
enum Part { partBlock, partArray, partName, partNone };
constexpr std::pair<const char*, int> kSets[] = {
    {"4f444244", 0}, {"4f44424f", 0}, {"4f444251", 1}, {"4f444252", 2}, {"4f444253", 3}};

class ObjectDbCompactTest : public ObjectDbTest {
 protected:
  // Compacts into a new pair of files; Prepare is called when they are open.
  ResultCode Compact(const std::function<void()>& Prepare = [] {}) {
    std::unique_ptr<StorageFile> pIds = OpenFile(u"new id");
    const std::unique_ptr<StorageFile> pData = OpenFile(u"new dt");
    EXPECT_TRUE(pIds->SetSize(0) && pData->SetSize(0));
    Prepare();
    const ResultCode nCode = m_pDb->Compact(pIds, *pData);
    EXPECT_EQ(nCode == errOPEN_FAILED, pIds != nullptr);  // taken over, unless it could not be opened
    return nCode;
  }

  // Puts the compacted pair in the place of the live one; the tree stays.
  void UseCompacted() {
    m_pDb.reset();
    for (const std::string File : {"id", "dt"}) std::filesystem::rename(Folder() / ("new " + File), Folder() / File);
    TakeTrace();
    Open(true);
  }

  // Records of the id file, without their CRCs where it has them.
  std::vector<tODB_ID_ENTRY> Records(const char* pFile = "id") {
    const Bytes Content = ReadFile(pFile);
    const std::size_t nStored = Content[8];
    std::vector<tODB_ID_ENTRY> Found((Content.size() - 12) / nStored);
    for (std::size_t i = 0; i < Found.size(); ++i) std::memcpy(&Found[i], &Content[12 + i * nStored], sizeof(Found[i]));
    return Found;
  }

  static std::string NameFor(std::uint32_t nShortId) { return "object number " + std::to_string(nShortId); }
  static std::string DataFor(std::uint32_t nShortId, std::uint32_t nKey) {
    return std::string(1 + (nShortId * 37 + nKey * 11) % 90, static_cast<char>('a' + (nShortId + nKey) % 26));
  }

  // The line on a part with a bad CRC.
  static std::string Mismatch(const char* pPart, std::uint32_t nShortId, std::uint32_t nOffset, const char* pLost) {
    char Line[200];
    const char* const pFormat = "350 Compact: %s crc mismatch, entry id: %X, offset: %X, %s";
    std::snprintf(Line, sizeof(Line), pFormat, pPart, nShortId - 1, nOffset, pLost);
    return Line;
  }

  // What is damaged of an object: the name, where there is nothing else; and of both 79 and 80.
  static Part PartOf(std::uint32_t i) { return i % 4 == 0 ? partName : static_cast<Part>(std::min(i * 3 % 5, 3u)); }

  // Objects with names and up to three blocks each, with more room than they need and holes between them.
  void Fill(std::uint32_t nCount) {
    for (std::uint32_t i = 1; i <= nCount; ++i) {
      ASSERT_EQ(Id(i), Create(HashOf(i), NameFor(i)));
      for (std::uint32_t nKey = 0; nKey < i % 4; ++nKey) {
        ASSERT_CODE(errOK, SetData(Id(i), nKey, "x"));
        ASSERT_CODE(errOK, SetData(Id(i), nKey, DataFor(i, nKey) + "room"));
        ASSERT_CODE(errOK, SetData(Id(i), nKey, DataFor(i, nKey)));
      }
    }
  }

  void ExpectWhole(std::uint32_t nShortId) {
    EXPECT_EQ((std::pair{Id(nShortId), NameFor(nShortId)}), (std::pair{Find(HashOf(nShortId)), NameOf(Id(nShortId))}));
    for (std::uint32_t nKey = 0; nKey < nShortId % 4; ++nKey) {
      EXPECT_EQ(DataFor(nShortId, nKey), DataOf(Id(nShortId), nKey)) << nShortId;
    }
  }
};

TEST_F(ObjectDbCompactTest, LeavesTheHolesOut) {
  for (const auto& [pMagic, nCrcs] : kSets) {
    Start(true, {}, "", pMagic);
    ASSERT_CODE(errOK, Compact());
    EXPECT_EQ((std::pair{std::string(pMagic), UINT64_C(12)}),
              (std::pair{ToHex(ReadFile("new dt")), FileSize("new id")}));
    Fill(40);
    ASSERT_CODE(errOK, m_pDb->RemoveAllObjectData(Id(3)));
    TakeTrace();
    ASSERT_CODE(errOK, Compact());
    EXPECT_EQ(Lines(), TakeTrace());
    EXPECT_LT(FileSize("new dt"), FileSize("dt"));
    ExpectWhole(39);  // by the live store, which goes on

    // Name, blocks and entries of each object follow one another without a gap.
    std::uint64_t nEnd = 4;
    for (const tODB_ID_ENTRY& Entry : Records("new id")) {
      EXPECT_EQ(nEnd, std::uint64_t{Entry.nName});
      nEnd += Entry.nNameSize + (nCrcs > partName ? 4u : 0u);
      if (Entry.nDataEntriesCount == 0) continue;
      EXPECT_LT(nEnd, std::uint64_t{Entry.nDataEntriesOffset});
      nEnd = Entry.nDataEntriesOffset + Entry.nDataEntriesCount * 12 + (nCrcs > partArray ? 4u : 0u);
    }
    EXPECT_EQ(FileSize("new dt"), nEnd);

    UseCompacted();
    for (std::uint32_t i = 1; i <= 40; ++i) {
      if (i != 3) ExpectWhole(i);
    }
    EXPECT_EQ((Lines{NameFor(3), Name(errNOT_FOUND)}), (Lines{NameOf(Id(3)), DataOf(Id(3), 0)}));
    ASSERT_CODE(errOK, SetData(Id(5), 0, DataFor(5, 0) + "room"));  // which the block kept
    EXPECT_EQ(nEnd, FileSize("dt"));
  }
}

// Damage costs what it must and nothing else: the undamaged objects come through under their old ids, and the
// compacted store is sound, although its newest two objects lost their names.
TEST_F(ObjectDbCompactTest, LeavesDamageOut) {
  for (const auto& [pMagic, nCrcs] : kSets) {
    Start(true, {}, "", pMagic);
    Fill(80);
    const std::vector<tODB_ID_ENTRY> Live = Records();
    Bytes Content = ReadFile("dt");
    for (std::uint32_t i = 1; i <= 80; ++i) {
      std::uint32_t nOffset = Live[i - 1].nName;
      if (PartOf(i) == partArray) nOffset = Live[i - 1].nDataEntriesOffset + i % 12;
      if (PartOf(i) == partBlock) std::memcpy(&nOffset, &Content[Live[i - 1].nDataEntriesOffset + 4], 4);
      if (PartOf(i) != partNone) Content[nOffset] ^= 0x40;
    }
    Replace("dt", Content);
    ASSERT_CODE(errOK, Compact());
    const Lines Traced = TakeTrace();
    UseCompacted();
    EXPECT_CODE(errOK, m_pDb->FastConsistencyCheck());
    EXPECT_EQ(Lines(), TakeTrace(400));

    Lines Told;
    for (std::uint32_t i = 1; i <= 80; ++i) {
      const Part Damaged = PartOf(i);
      if (Damaged == partNone) ExpectWhole(i);
      if (Damaged >= nCrcs) continue;  // nothing tells
      if (Damaged == partName) {
        Told.push_back(Mismatch("name", i, Live[i - 1].nName, "the object is marked as invalid"));
        const tODB_ID_ENTRY Left = Records()[i - 1];
        EXPECT_EQ((std::tuple{UINT64_MAX, UINT64_C(5), 0, 0}),
                  (std::tuple{+Left.nObjectHash, +Left.nParentId, +Left.nNameSize, +Left.nDataEntriesCount}))
            << i;
        EXPECT_EQ(0u, Find(HashOf(i))) << i;
        continue;
      }
      if (Damaged == partArray)
        Told.push_back(Mismatch("entries", i, Live[i - 1].nDataEntriesOffset, "object data is deleted"));
      const std::string DataLost = Name(Damaged == partArray ? errNOT_FOUND : errDATA_CORRUPTED);
      EXPECT_EQ((Lines{NameFor(i), DataLost}), (Lines{NameOf(Id(i)), DataOf(Id(i), 0)})) << i;
    }
    EXPECT_EQ(Told, nCrcs > partArray ? Traced : Lines());  // an array without a CRC may lead anywhere
  }
}

// What cannot be read, is too large to be true, or ends before it should.
TEST_F(ObjectDbCompactTest, LeavesOutWhatCannotBeRead) {
  // The name at 4, its block at 5, its entries at 10: key, offset, size.
  const std::tuple<const char*, std::size_t, const char*, std::string> kCases[] = {
      {"dt", 18, "0100a000", "too big entry data size, entry id: 0, size: 10485761, object data is deleted"},
      {"dt", 14, "64000000", "could not read data, entry id: 0, offset: 64, object data is deleted"},
      {"id", 12 + 24, "64000000", "could not read entries, entry id: 0, offset: 64, object data is deleted"},
      {"id", 12 + 16, "64000000", "could not read name, entry id: 0, offset: 64, the object is marked as invalid"}};
  for (const auto& [pFile, nOffset, pHex, Line] : kCases) {
    Start(false, {{0x0101, "n"}}, "data!");
    Damage(pFile, nOffset, pHex);
    EXPECT_CODE(errOK, Compact()) << Line;
    EXPECT_EQ(Lines{"350 Compact: " + Line}, TakeTrace());
    EXPECT_EQ(0, Records("new id")[0].nDataEntriesCount) << Line;
  }
}

// Each call and each allocation in turn fails: a code is the answer or something is left out, and the live store is
// what it was.
TEST_F(ObjectDbCompactTest, LeavesTheLiveStoreAlone) {
  Start(true);
  Fill(12);
  ASSERT_CODE(errOK, SetData(Id(7), 9, std::string(5000, 'l')));
  const std::pair kFiles{ReadFile("id"), ReadFile("dt")};
  const std::tuple<SystemCall, os::SystemError, std::vector<ResultCode>> kFaults[] = {
      {SystemCall::WriteAt, os::kDiskFull, {errOPEN_FAILED, errWRITE_FAILED}},
      {SystemCall::ReadAt, os::kIoDevice, {errOK, errREAD_FAILED}},
      {SystemCall::Size, os::kIoDevice, {errOK, errREAD_FAILED}},
      {SystemCall::Sync, os::kIoDevice, {errWRITE_FAILED}}};
  for (const auto& [Failing, nError, Codes] : kFaults) {
    for (std::uint64_t nSkip = 0; nSkip < 70; ++nSkip) {
      const ResultCode nCode = Compact([&] {
        ResetSystem();
        FailCalls(Failing, nError, nSkip);
      });
      const bool bAllWell = CallsOf(Failing) <= nSkip;
      EXPECT_TRUE(bAllWell ? nCode == errOK : std::count(Codes.begin(), Codes.end(), nCode) == 1) << Name(nCode);
      ResetSystem();
    }
  }
  bool bFailed = true;
  for (std::uint64_t nSkip = 0; bFailed; ++nSkip) {
    const ResultCode nCode = Compact([nSkip] { FailAllocation(nSkip); });
    bFailed = AllocationFailed();
    EXPECT_CODE(bFailed ? errOUT_OF_MEMORY : errOK, nCode) << nSkip;
  }
  EXPECT_EQ(kFiles, (std::pair{ReadFile("id"), ReadFile("dt")}));
  for (std::uint32_t i = 1; i <= 12; ++i) ExpectWhole(i);
}

}  // namespace
}  // namespace lumbra::test
