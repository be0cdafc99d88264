// A segment by itself: what damage costs, and what may pass. Its events are read through the segment manager.
#include "events/segment_fixture.h"

namespace lumbra::test {
namespace {

using SegmentTest = SegmentWorld;

TEST_F(SegmentTest, LosesItsEventsAloneToAForeignHeader) {
  const std::uint64_t nName = Find(kPlainType, u"name");
  m_pSegment.reset();
  Patch("00000003_events.dat", 0, {'X'});
  Start(Segment::Files::Existing);
  EXPECT_EQ(u"name", NameOf(nName));
  std::uint64_t nCount = 99;
  Must(m_pSegment->GetEventCount(&nCount));
  EXPECT_EQ(0u, nCount);
}

TEST_F(SegmentTest, GoesWithAFileOfItsObjectStore) {
  Start(Segment::Files::Existing);
  fs::remove(Folder() / "00000003_objid.dat");
  Step("add", Add(2)).Is(errOPEN_FAILED).Says({"300 Failed step. Err: errPARAMETER_INVALID (0x80000046)"});
  Step("add again", Add(3)).Is(errOPEN_FAILED).Says({});
  EXPECT_TRUE(fs::is_empty(Folder()));
}

}  // namespace
}  // namespace lumbra::test
