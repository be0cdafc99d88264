// The quick check of an object store, and the repair of a tree that lost its newest objects, or all.
#include "objects/objdb_fixture.h"

namespace lumbra::test {
namespace {

using ObjectDbCheckTest = ObjectDbTest;

std::string Missing(int n) {
  return "350 Object " + std::to_string(n) + " - hash not found in BT";
}

TEST_F(ObjectDbCheckTest, LooksAtNothingWithoutCrcs) {
  Start(kPlain, {0x0101, 0x0201});
  Damage("id", FileSize("id") - 1, "");
  Replace("bt", {});
  AllAnswer(errOK, {{"check", m_pDb->FastConsistencyCheck()}, {"refill", m_pDb->RefillEmptyTree()}});
  EXPECT_EQ(0u, Find(0x0101));
}

TEST_F(ObjectDbCheckTest, PutsTheNewestObjectsBack) {
  Start(kChecked, Spread(97));
  const Bytes kTree = ReadFile("bt");
  for (const std::uint64_t nHash : Spread(100)) Must(TryCreate(nHash));
  Replace("bt", kTree);
  Step("repair", m_pDb->FastConsistencyCheck())
      .Is(errOK)
      .Says({Missing(98), Missing(99), "350 Hash wasn't found for 2 objects, trying to repair BT", Missing(100),
             Missing(99), Missing(98), "350 BT was repaired, 3 object hashes were added"});
  ExpectAll(Spread(100));
}

// Backwards from the newest one, until six in a row are there.
TEST_F(ObjectDbCheckTest, RepairsUntilSixInARowAreThere) {
  Start(kPlain, Spread(20), "", "4f444253");  // CRCs in the data file alone, so that slots can be emptied
  for (const std::size_t nLost : {20, 14, 7}) Damage("bt", 16 + 4 * (Spread(20)[nLost - 1] & 0xFF), "00000000");
  Must(m_pDb->FastConsistencyCheck());
  EXPECT_EQ(Id(20), Find(Spread(20)[19]));
  EXPECT_EQ(Id(14), Find(Spread(20)[13]));
  EXPECT_EQ(0u, Find(Spread(20)[6]));
}

// The newest of several with one hash counts. The disk is to know first that the tree is half, and then all of it
// before it is whole; a sync may fail.
TEST_F(ObjectDbCheckTest, RefillsAnEmptyTree) {
  Start(kChecked, Spread(500));
  Must(TryCreate(Spread(500).back(), "newest", true));
  Replace("bt", {});
  FailCalls(SystemCall::Sync, os::kIoDevice, 0, UINT64_MAX);
  Step("refill", m_pDb->RefillEmptyTree()).Is(errOK).Calls(SystemCall::Sync, 2);
  EXPECT_EQ(Id(501), Find(Spread(500).back()));
  ExpectAll(Spread(499));
}

TEST_F(ObjectDbCheckTest, LeavesARightlyEmptyTreeAlone) {
  Start(kChecked);
  Must(TryCreate(0, {}));
  Step("refill", m_pDb->RefillEmptyTree()).Is(errOK).Writes(0).Says({});
}

// Damage of names and data is in the tests of the feature sets.
TEST_F(ObjectDbCheckTest, FindsDamagedRecords) {
  const std::tuple<const char*, std::size_t, const char*, std::string> kDamage[] = {
      {"dt", 45, "", "objectEntry.nDataEntriesOffset + dataEntriesBytesCount <= m_nSizeDT"},
      {"id", 12 + 2 * 33 - 1, "", "Succeeded(m_IdDB.FastConsistencyCheck())"},
      {"id", 12 + 33 + 3, "01", "m_IdDB.GetRecord(nObjectId, &objectEntry, sizeof(tODB_ID_ENTRY), &bytesRead)"}};
  for (const auto& [pFile, nOffset, pHex, Check] : kDamage) {
    Start(kChecked, {0x0101, 0x0002}, "data");
    Damage(pFile, nOffset, pHex);
    EXPECT_CODE(errDATA_CORRUPTED, m_pDb->FastConsistencyCheck()) << Check;
    EXPECT_EQ(FailedCheck(Check), TakeTrace(400).back());
  }
}

TEST_F(ObjectDbCheckTest, FindsTwoRecordsWithOneHash) {
  Start(kChecked, {0x0101});
  const Bytes kTree = ReadFile("bt");
  Must(TryCreate(0x0101, "newest", true));
  Replace("bt", kTree);  // where the slot of both leads to the older one
  Step("check", m_pDb->FastConsistencyCheck())
      .Is(errDATA_CORRUPTED)
      .Says({FailedCheck("MAKE_SHORT_OBJECT_ID(idFromBt) == nObjectId + 1")});
}

}  // namespace
}  // namespace lumbra::test
