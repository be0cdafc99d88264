// Compaction of an object store: what it keeps, what it leaves out, and that the live store never notices.
#include <cerrno>
#include <cstring>
#include <map>
#include <random>

#include "objects/objdb_fixture.h"
#include "support/system_calls.h"

namespace lumbra::test {
namespace {

class ObjectDbCompactTest : public ObjectDbTest {
 protected:
  using Lines = std::vector<std::string>;

  ResultCode Compact() {
    std::unique_ptr<StorageFile> pIds = OpenFile(u"new id");
    const std::unique_ptr<StorageFile> pData = OpenFile(u"new dt");
    EXPECT_TRUE(pIds->SetSize(0) && pData->SetSize(0));
    return m_pDb->Compact(pIds, *pData);
  }

  // Puts the compacted pair in the place of the live one; the tree stays.
  ResultCode UseCompacted() {
    Close();
    for (const char* const pName : {"id", "dt"}) {
      std::filesystem::rename(Folder() / (std::string("new ") + pName), Folder() / pName);
    }
    return Open(true);
  }

  // Records of the id file, without their CRCs where it has them.
  std::vector<tODB_ID_ENTRY> Records(const char* pFile = "id") {
    const Bytes Content = ReadFile(pFile);
    const std::size_t nStored = Content[8];
    std::vector<tODB_ID_ENTRY> Found((Content.size() - 12) / nStored);
    for (std::size_t i = 0; i < Found.size(); ++i) {
      std::memcpy(&Found[i], Content.data() + 12 + i * nStored, sizeof(tODB_ID_ENTRY));
    }
    return Found;
  }

  static std::string Hex(std::uint32_t n) {
    char Text[16];
    std::snprintf(Text, sizeof(Text), "%X", n);
    return Text;
  }

  static std::uint64_t HashOf(std::uint32_t nShortId) { return nShortId * 0x9E3779B97F4A7C15 | 1; }
  static std::string NameFor(std::uint32_t nShortId) { return "object number " + std::to_string(nShortId); }
  static std::string DataFor(std::uint32_t nShortId, std::uint32_t nKey) {
    return std::string(1 + (nShortId * 37 + nKey * 11) % 90, static_cast<char>('a' + (nShortId + nKey) % 26));
  }

  // Objects with names and up to three blocks each, and holes between them.
  void Fill(std::uint32_t nCount) {
    for (std::uint32_t i = 1; i <= nCount; ++i) {
      ASSERT_EQ(Id(i), Create(HashOf(i), NameFor(i)));
      for (std::uint32_t nKey = 0; nKey < i % 4; ++nKey) {
        ASSERT_CODE(errOK, SetData(Id(i), nKey, "x"));
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

// The feature sets, by what they have CRCs behind.
struct FeatureSet {
  const char* pMagic;
  bool bBlockCrc;
  bool bArrayCrc;
  bool bNameCrc;
};
constexpr FeatureSet kSets[] = {{"4f444244", false, false, false},
                                {"4f44424f", false, false, false},
                                {"4f444251", true, false, false},
                                {"4f444252", true, true, false},
                                {"4f444253", true, true, true}};

TEST_F(ObjectDbCompactTest, LeavesTheHolesOut) {
  for (const auto& [pMagic, bBlockCrc, bArrayCrc, bNameCrc] : kSets) {
    ASSERT_CODE(errOK, Fresh(true, pMagic));
    ASSERT_CODE(errOK, Compact());
    EXPECT_EQ((std::pair{std::string(pMagic), std::uint64_t{12}}),
              (std::pair{ToHex(ReadFile("new dt")), FileSize("new id")}));
    Fill(40);
    ASSERT_CODE(errOK, m_pDb->RemoveAllObjectData(Id(3)));
    TakeTrace();
    ASSERT_CODE(errOK, Compact());
    EXPECT_TRUE(TakeTrace().empty());
    EXPECT_LT(FileSize("new dt"), FileSize("dt"));
    ExpectWhole(39);  // by the live store, which goes on

    // Name, blocks and entries of each object follow one another without a gap.
    std::uint64_t nEnd = 4;
    for (const tODB_ID_ENTRY& Entry : Records("new id")) {
      EXPECT_EQ(nEnd, std::uint64_t{Entry.nName});
      nEnd += Entry.nNameSize + (bNameCrc ? 4u : 0u);
      if (Entry.nDataEntriesCount == 0) continue;
      EXPECT_LT(nEnd, std::uint64_t{Entry.nDataEntriesOffset});
      nEnd = Entry.nDataEntriesOffset + Entry.nDataEntriesCount * 12 + (bArrayCrc ? 4u : 0u);
    }
    EXPECT_EQ(FileSize("new dt"), nEnd);

    ASSERT_CODE(errOK, UseCompacted());
    for (std::uint32_t i = 1; i <= 40; ++i) {
      if (i != 3) ExpectWhole(i);
    }
    EXPECT_EQ((std::pair{NameFor(3), Name(errNOT_FOUND)}), (std::pair{NameOf(Id(3)), DataOf(Id(3), 0)}));
    const std::uint64_t nBefore = FileSize("dt");
    ASSERT_CODE(errOK, SetData(Id(5), 0, DataFor(5, 0)));  // a block kept its room
    EXPECT_EQ(nBefore, FileSize("dt"));
  }
}

// Damage costs what it must and nothing else: the undamaged objects come through under their old ids.
TEST_F(ObjectDbCompactTest, LeavesDamageOut) {
  std::mt19937 Engine(7);
  const auto Random = [&Engine](std::uint32_t nBelow) {
    return static_cast<std::uint32_t>(Engine() % nBelow);
  };
  for (const auto& [pMagic, bBlockCrc, bArrayCrc, bNameCrc] : kSets) {
    ASSERT_CODE(errOK, Fresh(true, pMagic));
    Fill(80);
    const std::vector<tODB_ID_ENTRY> Live = Records();
    enum Damage { Name, Array, Block };
    std::map<std::uint32_t, Damage> Damaged;
    ASSERT_CODE(errOK, Reopen("dt", [&](Bytes& Content) {
                  for (int i = 0; i < 20; ++i) {
                    const std::uint32_t nShortId = 1 + Random(80);
                    const tODB_ID_ENTRY& Entry = Live[nShortId - 1];
                    const Damage Kind = Entry.nDataEntriesCount == 0 ? Name : static_cast<Damage>(Random(3));
                    if (!Damaged.emplace(nShortId, Kind).second) continue;
                    std::uint32_t nOffset = Entry.nName;
                    if (Kind == Array) nOffset = Entry.nDataEntriesOffset + Random(12);
                    if (Kind == Block) std::memcpy(&nOffset, Content.data() + Entry.nDataEntriesOffset + 4, 4);
                    Content[nOffset] ^= 0x40;
                  }
                }));
    ASSERT_CODE(errOK, Compact());
    std::size_t nTold = 0;
    for (const auto& [nShortId, Kind] : Damaged) nTold += (Kind == Name && bNameCrc) || (Kind == Array && bArrayCrc);
    const Lines Traced = TakeTrace();
    if (bArrayCrc) {
      EXPECT_EQ(nTold, Traced.size());
    }
    ASSERT_CODE(errOK, UseCompacted());
    for (std::uint32_t i = 1; i <= 80; ++i) {
      const auto Found = Damaged.find(i);
      if (Found == Damaged.end()) {
        ExpectWhole(i);
      } else if (Found->second == Name && bNameCrc) {
        const tODB_ID_ENTRY Entry = Records()[i - 1];
        EXPECT_EQ((std::tuple{UINT64_MAX, 0u, 0u, 5ull}),
                  (std::tuple{std::uint64_t{Entry.nObjectHash}, unsigned{Entry.nNameSize},
                              unsigned{Entry.nDataEntriesCount}, std::uint64_t{Entry.nParentId}}));
        EXPECT_EQ(0u, Find(HashOf(i)));
        EXPECT_EQ(std::count(Traced.begin(), Traced.end(),
                             "350 Compact: name crc mismatch, entry id: " + Hex(i - 1) +
                                 ", offset: " + Hex(Live[i - 1].nName) + ", the object is marked as invalid"),
                  1);
      } else if (Found->second == Array && bArrayCrc) {
        EXPECT_EQ((std::pair{NameFor(i), test::Name(errNOT_FOUND)}), (std::pair{NameOf(Id(i)), DataOf(Id(i), 0)}));
        EXPECT_EQ(std::count(Traced.begin(), Traced.end(),
                             "350 Compact: entries crc mismatch, entry id: " + Hex(i - 1) +
                                 ", offset: " + Hex(Live[i - 1].nDataEntriesOffset) + ", object data is deleted"),
                  1);
      } else if (Found->second == Block && bBlockCrc) {
        EXPECT_EQ((std::pair{NameFor(i), test::Name(errDATA_CORRUPTED)}), (std::pair{NameOf(Id(i)), DataOf(Id(i), 0)}));
      }
    }
  }
}

// Objects that lost their names are no damage to the compacted store.
TEST_F(ObjectDbCompactTest, LeavesASoundStore) {
  ASSERT_CODE(errOK, Fresh(true));
  Fill(10);
  const std::vector<tODB_ID_ENTRY> Live = Records();
  ASSERT_CODE(errOK, Reopen("dt", [&](Bytes& Content) {
                for (const std::size_t nIndex : {8u, 9u}) Content[Live[nIndex].nName] ^= 1;
              }));
  ASSERT_CODE(errOK, Compact());
  for (int nRound = 0; nRound < 2; ++nRound) {
    ASSERT_CODE(errOK, nRound == 0 ? UseCompacted() : Open(true));
    TakeTrace();
    EXPECT_CODE(errOK, m_pDb->FastConsistencyCheck());
    EXPECT_TRUE(TakeTrace().empty());
  }
}

// What cannot be read, is too large to be true, or ends before it should.
TEST_F(ObjectDbCompactTest, LeavesOutWhatCannotBeRead) {
  ASSERT_CODE(errOK, Fresh(false));
  ASSERT_EQ(Id(1), Create(0x0101, "n"));
  ASSERT_CODE(errOK, SetData(Id(1), 1, "data!"));
  // The name at 4, its block at 5, its entries at 10: key, offset, size.
  const std::tuple<const char*, std::size_t, std::uint32_t, std::string> kCases[] = {
      {"dt", 18, 0x00A00001, "too big entry data size, entry id: 0, size: 10485761, object data is deleted"},
      {"dt", 14, 100, "could not read data, entry id: 0, offset: 64, object data is deleted"},
      {"id", 12 + 24, 100, "could not read entries, entry id: 0, offset: 64, object data is deleted"},
      {"id", 12 + 16, 100, "could not read name, entry id: 0, offset: 64, the object is marked as invalid"}};
  for (const auto& [pFile, nOffset, nValue, Line] : kCases) {
    const Bytes kGood = ReadFile(pFile);
    ASSERT_CODE(errOK,
                Reopen(pFile, [n = nOffset, v = nValue](Bytes& Content) { std::memcpy(Content.data() + n, &v, 4); }));
    EXPECT_CODE(errOK, Compact());
    EXPECT_EQ(Lines{"350 Compact: " + Line}, TakeTrace());
    EXPECT_EQ(0, Records("new id")[0].nDataEntriesCount);
    Close();
    WriteFile(pFile, kGood);
  }
}

// Each call and each allocation in turn fails: a code is the answer or something is left out, and the live store is
// what it was.
TEST_F(ObjectDbCompactTest, LeavesTheLiveStoreAlone) {
  ASSERT_CODE(errOK, Fresh(true));
  Fill(12);
  ASSERT_CODE(errOK, SetData(Id(7), 9, std::string(5000, 'l')));
  const Bytes kIds = ReadFile("id");
  const Bytes kData = ReadFile("dt");
  const std::tuple<SystemCall, int, std::vector<ResultCode>> kFaults[] = {
      {SystemCall::WriteAt, ENOSPC, {errOPEN_FAILED, errWRITE_FAILED}},
      {SystemCall::ReadAt, EIO, {errOK, errREAD_FAILED}},
      {SystemCall::Size, EIO, {errOK, errREAD_FAILED}},
      {SystemCall::Sync, EIO, {errWRITE_FAILED}}};
  for (const auto& [Failing, nErrno, Codes] : kFaults) {
    for (std::uint64_t nSkip = 0; nSkip < 70; ++nSkip) {
      std::unique_ptr<StorageFile> pIds = OpenFile(u"new id");
      const std::unique_ptr<StorageFile> pData = OpenFile(u"new dt");
      EXPECT_TRUE(pIds->SetSize(0) && pData->SetSize(0));
      const std::uint64_t nBefore = CallsOf(Failing);
      FailCalls(Failing, nErrno, nSkip);
      const ResultCode nCode = m_pDb->Compact(pIds, *pData);
      const bool bAllWell = CallsOf(Failing) <= nBefore + nSkip;
      EXPECT_TRUE(bAllWell ? nCode == errOK : std::find(Codes.begin(), Codes.end(), nCode) != Codes.end())
          << Name(nCode);
      EXPECT_EQ(nCode == errOPEN_FAILED, pIds != nullptr);  // taken over, unless it could not be opened
      ResetSystem();
    }
  }
  for (std::uint64_t nSkip = 0;; ++nSkip) {
    std::unique_ptr<StorageFile> pIds = OpenFile(u"new id");
    const std::unique_ptr<StorageFile> pData = OpenFile(u"new dt");
    EXPECT_TRUE(pIds->SetSize(0) && pData->SetSize(0));
    FailAllocation(nSkip);
    const ResultCode nCode = m_pDb->Compact(pIds, *pData);
    if (!AllocationFailed()) break;
    EXPECT_CODE(errOUT_OF_MEMORY, nCode);
  }
  EXPECT_TRUE(kIds == ReadFile("id") && kData == ReadFile("dt"));
  for (std::uint32_t i = 1; i <= 12; ++i) ExpectWhole(i);
}

}  // namespace
}  // namespace lumbra::test
