// Compaction of an object store: what it keeps, what it leaves out, and that the live store never notices.
#include <algorithm>
#include <functional>

#include "objects/objdb_fixture.h"

namespace lumbra::test {
namespace {

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

  static std::string NameFor(std::uint32_t nShortId) { return "object number " + std::to_string(nShortId); }
  static std::string DataFor(std::uint32_t nShortId, std::uint32_t nKey) {
    return std::string(1 + (nShortId * 37 + nKey * 11) % 90, static_cast<char>('a' + (nShortId + nKey) % 26));
  }

  // Objects with two blocks each, with more room than they need and holes between them.
  void Fill(std::uint32_t nCount) {
    for (std::uint32_t i = 1; i <= nCount; ++i) {
      ASSERT_EQ(Id(i), Create(HashOf(i), NameFor(i)));
      for (const std::uint32_t nKey : {0u, 1u}) {
        for (const std::string& Data : {std::string("x"), DataFor(i, nKey) + "room", DataFor(i, nKey)})
          ASSERT_CODE(errOK, SetData(Id(i), nKey, Data));
      }
    }
  }

  void ExpectWhole(std::uint32_t nShortId) {
    const tObjectId id = Find(HashOf(nShortId));
    EXPECT_EQ((Lines{NameFor(nShortId), DataFor(nShortId, 0), DataFor(nShortId, 1)}),
              (Lines{NameOf(id), DataOf(id, 0), DataOf(id, 1)}));
    EXPECT_EQ(Id(nShortId), id);
  }
};

TEST_F(ObjectDbCompactTest, LeavesTheHolesOut) {
  // Feature sets, by the bytes of CRCs of an object with two blocks: without, of the blocks, the entries, the name.
  for (const auto& [pMagic, nCrcs] :
       {std::pair{"4f444244", 0u}, {"4f44424f", 0u}, {"4f444251", 8u}, {"4f444252", 12u}, {"4f444253", 16u}}) {
    Start(true, {{HashOf(1), NameFor(1)}}, "no holes", pMagic);
    ASSERT_CODE(errOK, Compact());
    EXPECT_EQ((std::pair{ReadFile("id"), ReadFile("dt")}), (std::pair{ReadFile("new id"), ReadFile("new dt")}));
    Fill(20);
    ASSERT_CODE(errOK, m_pDb->RemoveAllObjectData(Id(1)));
    TakeTrace();
    ASSERT_CODE(errOK, Compact());
    EXPECT_EQ(Lines(), TakeTrace());
    ExpectWhole(19);  // by the live store, which goes on
    std::size_t nSize = 4 + NameFor(1).size() + (nCrcs == 16 ? 4 : 0);
    for (std::uint32_t i = 2; i <= 20; ++i)
      nSize += NameFor(i).size() + DataFor(i, 0).size() + DataFor(i, 1).size() + 2 * (4 + 12) + nCrcs;
    EXPECT_EQ(nSize, FileSize("new dt"));

    UseCompacted();
    for (std::uint32_t i = 2; i <= 20; ++i) ExpectWhole(i);
    EXPECT_EQ((Lines{NameFor(1), Name(errNOT_FOUND)}), (Lines{NameOf(Id(1)), DataOf(Id(1), 0)}));
    ASSERT_CODE(errOK, SetData(Id(5), 0, DataFor(5, 0) + "room"));  // which the block kept
    EXPECT_EQ(nSize, FileSize("dt"));
  }
}

// What fails its CRC, cannot be read, or is too large to be true costs what it must and nothing else: the other objects
// come through under their old ids, and the compacted store is as sound as can be.
TEST_F(ObjectDbCompactTest, LeavesDamageOut) {
  const Lines kNameless = {"", Name(errNOT_FOUND)};
  const Lines kDataless = {"two", Name(errNOT_FOUND)};
  const Lines kBadBlock = {"two", Name(errDATA_CORRUPTED)};  // which its own CRC still tells
  // The magic, "" for a store without CRCs; the damage; what is told, and the name and data afterwards. The names
  // begin at 4 and the block follows them, before its entry: key, offset, size.
  const std::tuple<const char*, const char*, std::size_t, const char*, std::string, Lines> kCases[] = {
      {"4f444253", "dt", 12, "00", "name crc mismatch, entry id: 1, offset: B, the object is marked as invalid",
       kNameless},
      {"4f444253", "dt", 30, "13", "entries crc mismatch, entry id: 1, offset: 1A, object data is deleted", kDataless},
      {"4f444253", "dt", 19, "00", "", kBadBlock},
      {"4f444252", "dt", 8, "57", "", {"tWo", "data"}},
      {"4f444252", "dt", 22, "0b", "entries crc mismatch, entry id: 1, offset: 12, object data is deleted", kDataless},
      {"4f444251", "dt", 11, "00", "", kBadBlock},
      {"", "dt", 22, "0100a000", "too big entry data size, entry id: 1, size: 10485761, object data is deleted",
       kDataless},
      {"", "dt", 18, "64000000", "could not read data, entry id: 1, offset: 64, object data is deleted", kDataless},
      {"", "id", 65, "64000000", "could not read entries, entry id: 1, offset: 64, object data is deleted", kDataless},
      {"", "id", 57, "64000000", "could not read name, entry id: 1, offset: 64, the object is marked as invalid",
       kNameless}};
  for (const auto& [pMagic, pFile, nOffset, pHex, Line, Left] : kCases) {
    SCOPED_TRACE(pMagic + Line);
    Start(*pMagic != 0, {{0x0101, "one"}, {0x0201, "two"}}, "data", pMagic);
    ASSERT_EQ(Id(3), Create(0x0301, "three"));
    Damage(pFile, nOffset, pHex);
    ASSERT_CODE(errOK, Compact());
    EXPECT_EQ(Line.empty() ? Lines() : Lines{"350 Compact: " + Line}, TakeTrace());
    UseCompacted();
    EXPECT_CODE(Left == kBadBlock ? errDATA_CORRUPTED : errOK, m_pDb->FastConsistencyCheck());
    EXPECT_EQ(Left == kBadBlock ? 1u : 0u, TakeTrace(400).size());
    EXPECT_EQ((Lines{"one", Left[0], "three", Left[1]}),
              (Lines{NameOf(Find(0x0101)), NameOf(Id(2)), NameOf(Find(0x0301)), DataOf(Id(2), 1)}));
    ObjectDescription About{};
    EXPECT_CODE(errOK, m_pDb->Describe(Id(2), &About));
    EXPECT_EQ((std::tuple{UINT64_C(5), Left == kNameless ? UINT64_MAX : 0x0201, Left == kNameless ? 0 : Id(2)}),
              (std::tuple{About.nParentId, m_pDb->GetObjectHash(Id(2)), Find(0x0201)}));
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
      {SystemCall::ReadAt, os::kIoDevice, {errOK, errREAD_FAILED, errOPEN_FAILED}},
      {SystemCall::Size, os::kIoDevice, {errOK, errREAD_FAILED}},
      {SystemCall::Sync, os::kIoDevice, {errWRITE_FAILED}}};
  for (const auto& [Failing, nError, Codes] : kFaults) {
    for (std::uint64_t nSkip = 0; nSkip < 70; ++nSkip) {
      const ResultCode nCode = Compact([&, Call = Failing, nFault = nError] {
        ResetSystem();
        FailCalls(Call, nFault, nSkip);
      });
      const bool bAllWell = CallsOf(Failing) <= nSkip;
      EXPECT_TRUE(bAllWell ? nCode == errOK : std::count(Codes.begin(), Codes.end(), nCode) == 1) << Name(nCode);
      ResetSystem();
    }
  }
  EXPECT_EQ(kFiles, (std::pair{ReadFile("id"), ReadFile("dt")}));
  for (std::uint32_t i = 1; i <= 12; ++i) ExpectWhole(i);
}

}  // namespace
}  // namespace lumbra::test
