// The quick check of an object store, and the repair of a tree that lost its newest objects, or all.
#include "objects/objdb_fixture.h"

namespace lumbra::test {
namespace {

using ObjectDbCheckTest = ObjectDbTest;

std::string Missing(int n) {
  return "350 Object " + std::to_string(n) + " - hash not found in BT";
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

// Damage of names and data is in the tests of the feature sets.
TEST_F(ObjectDbCheckTest, FindsDamagedRecords) {
  const std::tuple<const char*, std::size_t, const char*, std::string> kDamage[] = {
      {"dt", 45, "", "objectEntry.nDataEntriesOffset + dataEntriesBytesCount <= m_nSizeDT"},
      {"id", 12 + 2 * 33 - 1, "", "Succeeded(m_IdDB.FastConsistencyCheck())"},
      {"id", 12 + 33 + 3, "01", "m_IdDB.GetRecord(nObjectId, &objectEntry, sizeof(tODB_ID_ENTRY), &bytesRead)"}};
  for (const auto& [pFile, nOffset, pHex, Check] : kDamage) {
    Start(kChecked, {0x0101, 0x0002}, "data");
    Damage(pFile, nOffset, pHex);
    ASSERT_CODE(errDATA_CORRUPTED, m_pDb->FastConsistencyCheck()) << Check;
    EXPECT_EQ(FailedCheck(Check), TakeTrace(400).back());
  }
}

}  // namespace
}  // namespace lumbra::test
