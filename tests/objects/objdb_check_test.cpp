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

}  // namespace
}  // namespace lumbra::test
