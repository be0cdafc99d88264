// The quick check of an object store, and the repair of a tree that lost its newest objects.
#include "objects/objdb_fixture.h"

namespace lumbra::test {
namespace {

class ObjectDbCheckTest : public ObjectDbTest {
 protected:
  void CreateUpTo(std::uint32_t nLast) {
    for (std::uint32_t i = 1; i <= nLast; ++i) ASSERT_EQ(Id(i), Create(HashOf(i), "x"));
  }
  void ExpectUpTo(std::uint32_t nLast) {
    for (std::uint32_t i = 1; i <= nLast; ++i) ASSERT_EQ(Id(i), Find(HashOf(i)));
  }

  static std::string Missing(std::uint32_t n) { return "350 Object " + std::to_string(n) + " - hash not found in BT"; }
};

TEST_F(ObjectDbCheckTest, LooksAtNothingWithoutCrcs) {
  Start(false, {{0x0101, "name"}, {0x0201, "cut off"}});
  m_pDb.reset();
  std::filesystem::resize_file(Folder() / "id", FileSize("id") - 1);
  Replace("bt", {});
  EXPECT_EQ(Names({errOK, errOK}), Names({m_pDb->FastConsistencyCheck(), m_pDb->RefillEmptyTree()}));
  EXPECT_EQ((std::pair{UINT64_C(0), Lines()}), (std::pair{Find(0x0101), TakeTrace(400)}));
}

// What the newest objects lost comes back, from the newest one backwards until six in a row are there; and so does the
// whole tree, with splits.
TEST_F(ObjectDbCheckTest, PutsLostObjectsBack) {
  for (const auto& [nKept, nLooked, nAll] : {std::tuple{0u, 0u, 1u}, {97u, 98u, 100u}, {0u, 498u, 500u}}) {
    Start(true);
    EXPECT_CODE(errOK, m_pDb->FastConsistencyCheck());  // of an empty store
    CreateUpTo(nKept);
    const Bytes kTree = ReadFile("bt");
    CreateUpTo(nAll);
    Replace("bt", kTree);
    Lines Told;
    for (std::uint32_t i = nLooked; i < nAll; ++i) Told.push_back(Missing(i));
    Told.push_back("350 Hash wasn't found for " + std::to_string(nAll - nLooked) + " objects, trying to repair BT");
    for (std::uint32_t i = nAll; i > nKept; --i) Told.push_back(Missing(i));
    Told.push_back("350 BT was repaired, " + std::to_string(nAll - nKept) + " object hashes were added");
    for (const Lines& Expected : {Told, Lines()}) {
      EXPECT_CODE(errOK, m_pDb->FastConsistencyCheck());
      EXPECT_EQ(Expected, TakeTrace(400));
      ExpectUpTo(nAll);
    }
  }
}

// The same at the start, where the newest of several with one hash counts; and when it is cut short, it begins again.
// The disk is to know first that the tree is half, and then all of it before it is whole; a sync may fail.
TEST_F(ObjectDbCheckTest, RefillsAnEmptyTree) {
  Start(true);
  CreateUpTo(500);
  ASSERT_EQ(Id(501), Create(HashOf(77), "x", true));
  Replace("bt", {});
  FailCalls(SystemCall::WriteAt, os::kDiskFull, 700, UINT64_MAX);
  EXPECT_TRUE(Failed(m_pDb->RefillEmptyTree()));
  EXPECT_EQ(0u, Find(HashOf(1)));
  ResetSystem();
  Open(true);
  FailCalls(SystemCall::Sync, os::kIoDevice, 0, UINT64_MAX);
  EXPECT_EQ((std::pair{Name(errOK), UINT64_C(2)}),
            (std::pair{Name(m_pDb->RefillEmptyTree()), CallsOf(SystemCall::Sync)}));
  EXPECT_EQ("350 BT was repaired, 500 object hashes were added", LastLine());
  for (std::uint32_t i = 1; i <= 500; ++i) ASSERT_EQ(Id(i == 77 ? 501 : i), Find(HashOf(i)));
}

// Damage of the newest objects, as far as a feature set has CRCs that tell it.
TEST_F(ObjectDbCheckTest, FindsDamageInTheNewestObjects) {
  const std::string kName =
      "ValidDataCrc(objectEntry.nObjectHash, buffer.Get(), objectEntry.nNameSize, buffer.Get() + "
      "objectEntry.nNameSize)";
  const std::string kBlock = "ValidDataCrc(nObjectId + 1, buffer.Get(), userDataSize, buffer.Get() + userDataSize)";
  // Names with CRCs at 4 (old), 11 (new) and 18 (newest), its block at 28, its array at 36; records of 33 bytes.
  // Without CRCs of the names the block is at 16.
  const std::tuple<const char*, const char*, std::size_t, const char*, std::string> kDamage[] = {
      {"", "dt", 5, "6d", ""},  // an old object's name: not looked at
      {"", "dt", 12, "64", kName},
      {"", "dt", 20, "76", kName},
      {"", "dt", 29, "00", kBlock},
      {"", "dt", 40, "1d",
       "ValidDataCrc(nObjectId + 1, dataEntries, objectEntry.nDataEntriesCount * sizeof(tODB_DATA_ENTRY), "
       "dataEntries + objectEntry.nDataEntriesCount)"},
      {"", "dt", 51, "", "objectEntry.nDataEntriesOffset + dataEntriesBytesCount <= m_nSizeDT"},
      {"", "id", 12 + 3 * 33 - 1, "", "Succeeded(m_IdDB.FastConsistencyCheck())"},
      {"", "id", 12 + 33 + 3, "01", "m_IdDB.GetRecord(nObjectId, &objectEntry, sizeof(tODB_ID_ENTRY), &bytesRead)"},
      {"4f444251", "dt", 17, "00", kBlock},
      {"4f444252", "dt", 17, "00", kBlock}};
  for (const auto& [pMagic, pFile, nOffset, pHex, Check] : kDamage) {
    Start(true, {{0x0101, "old"}, {0x0002, "new"}, {0x0003, "newest"}}, "data", pMagic);
    EXPECT_CODE(errOK, m_pDb->FastConsistencyCheck()) << pMagic;
    Damage(pFile, nOffset, pHex);
    EXPECT_CODE(Check.empty() ? errOK : errDATA_CORRUPTED, m_pDb->FastConsistencyCheck()) << Check;
    EXPECT_EQ(Check.empty() ? "" : FailedCheck(Check), LastLine()) << pFile << nOffset;
  }
}

TEST_F(ObjectDbCheckTest, FindsTwoRecordsWithOneHash) {
  Start(true, {{0x0101, "one"}});
  const Bytes kTree = ReadFile("bt");
  ASSERT_EQ(Id(2), Create(0x0101, "one", true));
  Replace("bt", kTree);  // where the slot of both leads to the older one
  EXPECT_CODE(errDATA_CORRUPTED, m_pDb->FastConsistencyCheck());
  EXPECT_EQ(Lines{FailedCheck("MAKE_SHORT_OBJECT_ID(idFromBt) == nObjectId + 1")}, TakeTrace(400));
}

}  // namespace
}  // namespace lumbra::test
