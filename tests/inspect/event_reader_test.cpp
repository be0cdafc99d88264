// What readers say of a chain of segments in which some are missing, and where they go on.
#include "inspect/event_reader.h"

#include <cstdio>
#include <set>
#include <thread>

#include "support/world.h"

namespace lumbra::test {
namespace {

class EventReaderTest : public World {
 protected:
  void SetUp() override {
    WriteFile("01/segments.dat", {'S', 'D', 'B', 'H', 1, 0, 0, 0, 1, 0, 0, 0});
    ASSERT_EQ(os::kSuccess, inspect::Store::Open(WideFolder(), &m_pStore));
  }
  // Each event is one letter.
  void PutSegment(std::uint32_t nNumber, const std::string& Events) {
    char Name[32];
    std::snprintf(Name, sizeof(Name), "01/%08X_events.dat", nNumber);
    const std::string All = std::string("PLDB\14\0\0\0\1\0\0\0", 12) + Events;
    WriteFile(Name, Bytes(All.begin(), All.end()));
  }
  inspect::EventReader NewReader() {
    return {*m_pStore, {u"01", 1}, [this](const inspect::Finding& One) {
              m_Found.insert(One.What);
            }};
  }
  // What has come, with the segments between which some is missing.
  static std::string ReadOn(inspect::EventReader* pReader) {
    EXPECT_CODE(errOK, pReader->Refresh());
    std::string All;
    for (inspect::Batch Read; pReader->Next(100, &Read);) {
      All.append(Read.Events.begin(), Read.Events.end());
      if (!Read.Lost) continue;
      EXPECT_EQ(inspect::Gap::Why::Damaged, Read.Lost->Reason);
      All += '(' + std::to_string(Read.Lost->From.nSegment) + '-' + std::to_string(Read.Lost->To.nSegment) + ')';
    }
    return All;
  }

  std::unique_ptr<inspect::Store> m_pStore;
  std::set<std::string> m_Found;
};

TEST_F(EventReaderTest, TellsOfHolesWhileItFollows) {
  PutSegment(1, "ab");
  auto Reader = NewReader();
  EXPECT_EQ("ab", ReadOn(&Reader));
  PutSegment(3, "cd");
  PutSegment(4, "e");
  EXPECT_EQ("(2-3)cde", ReadOn(&Reader));
  EXPECT_EQ(std::set<std::string>{"it is missing, and segment 3 is there"}, m_Found);
  PutSegment(40, "f");
  std::string Read;
  while ((Read = ReadOn(&Reader)).empty()) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ("(5-40)f", Read);
}

TEST_F(EventReaderTest, KeepsWhatIsBehindAHoleUntilItIsRead) {
  PutSegment(1, "a");
  PutSegment(40, "b");
  auto Reader = NewReader();
  EXPECT_CODE(errOK, Reader.Refresh());
  EXPECT_EQ("a(2-40)b", ReadOn(&Reader));
}

#ifndef _WIN32  // Wine takes the time of the last write for that of birth
TEST_F(EventReaderTest, PassesNoSegmentToWhichEventsMayCome) {
  PutSegment(1, "ab");
  PutSegment(2, "");
  auto Reader = NewReader();
  EXPECT_CODE(errOK, Reader.Refresh());
  Reader.MoveTo({2, 0});
  PutSegment(1, "abc");
  PutSegment(2, "d");
  EXPECT_EQ("cd", ReadOn(&Reader));
}
#endif

}  // namespace
}  // namespace lumbra::test
