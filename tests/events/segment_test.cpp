// A segment by itself: what damage costs, and what may pass. Its events are read through the segment manager.
#include "events/segment_fixture.h"

namespace lumbra::test {
namespace {

class SegmentTest : public SegmentWorld {
 protected:
  static constexpr const char* kFiles[] = {"00000003_events.dat", "00000003_objbt.dat", "00000003_objid.dat",
                                           "00000003_objdt.dat"};

  void ExpectFiles(bool bThere) const {
    for (const char* const pFile : kFiles) EXPECT_EQ(bThere, fs::exists(Folder() / pFile)) << pFile;
  }
};

TEST_F(SegmentTest, HasNoAgeWhereTheClockWasSetBack) {
  SetClock(1000);
  EXPECT_EQ(0u, m_pSegment->GetAge());
}

TEST_F(SegmentTest, LosesItsEventsAloneToAForeignHeader) {
  const std::uint64_t nName = Find(kPlainType, u"name");
  m_pSegment.reset();
  Patch(kFiles[0], 0, {'X'});
  Start(Segment::Files::Existing);
  EXPECT_EQ(u"name", NameOf(nName));
  EXPECT_EQ(0u, EventCount());
}

TEST_F(SegmentTest, IsTriedOnceWhereAFileIsDenied) {
  Start(Segment::Files::Existing);
  FailCalls(SystemCall::Open, os::kAccessDenied);
  Step("add", Add(2)).Is(errOPEN_FAILED).Says({"300 Failed step. Err: errACCESS_DENIED (0x80000045)"});
  Step("add again", Add(3)).Is(errOPEN_FAILED).Says({});
  ExpectFiles(true);
}

TEST_F(SegmentTest, GoesWithAFileOfItsObjectStore) {
  Start(Segment::Files::Existing);
  fs::remove(Folder() / kFiles[2]);
  Step("add", Add(2)).Is(errOPEN_FAILED).Says({"300 Failed step. Err: errPARAMETER_INVALID (0x80000046)"});
  Step("add again", Add(3)).Is(errOPEN_FAILED).Says({});
  ExpectFiles(false);
  std::uint64_t nCount = 0;
  EXPECT_CODE(errSTORE_NOT_INITIALIZED, m_pSegment->GetEventCount(&nCount));
}

TEST_F(SegmentTest, LeavesNothingWhereAFileOfANewOneIsRefused) {
  FailCalls(SystemCall::Open, os::kSharingViolation, 3);
  EXPECT_CODE(errOPEN_FAILED, Init(Segment::Files::New));
  ExpectFiles(false);
}

}  // namespace
}  // namespace lumbra::test
