// Events and objects through the operation table: ids, starts, parents, the alias, and their traces.
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#include "component/component_fixture.h"

namespace lumbra::test {
namespace {

using TimeList = std::vector<std::uint64_t>;

class EventsObjectsTest : public ComponentTest {
 protected:
  void SetUp() override {
    ASSERT_CODE(errOK, Open());
    ASSERT_CODE(errOK, Call(&Ops::InitDB, 5, 16));
    m_nNamed = OpenNamed(u"named");
  }
  std::uint32_t m_nNamed = 0;
};

TEST_F(EventsObjectsTest, IdsCarryTheirDatabase) {
  for (const std::uint32_t nDb : {5u, m_nNamed}) {
    std::uint64_t nId = 0;
    for (std::uint64_t i = 10; i < 14; ++i) ASSERT_CODE(errOK, Add(nDb, i, 0, &nId));
    EXPECT_EQ(WithDatabase(0x100000003, nDb), nId);
    EXPECT_EQ((TimeList{13}), Times(1, nId, 1));  // the id names the database, whatever the argument
    EXPECT_EQ((TimeList{11, 12}), Times(nDb, 1, 2));
    EXPECT_EQ((TimeList{12, 13}), Times(nDb, 0xFFFFFFFFFFFFFFFE, 2));
    EXPECT_EQ((TimeList{12, 13}), Times(nDb, 2, 5));
    EXPECT_CODE(errNO_MORE_EVENTS, m_nLast);
    const Event New{77, 0};
    EXPECT_CODE(errOK, Call(&Ops::UpdateEvent, nId, &New, 16));
    EXPECT_EQ((TimeList{77}), Times(1, nId, 1));
    EXPECT_CODE(errNOT_FOUND, Call(&Ops::UpdateEvent, nId + 1, &New, 16));
    EXPECT_CODE(errPARAMETER_INVALID, Call(&Ops::UpdateEvent, nId, &New, 15));
  }
}

TEST_F(EventsObjectsTest, RefusesWhatIsWrong) {
  std::uint64_t nId = 0;
  TakeTrace();
  EXPECT_CODE(errNOT_SUPPORTED, Add(0, 1));
  EXPECT_EQ(Lines{"600 Lumbra::AddEvent Database - 0"}, TakeTrace());
  EXPECT_CODE(errPARAMETER_INVALID, Add(200, 1));
  EXPECT_EQ(Lines{"600 Lumbra::AddEvent Database - C8"}, TakeTrace());
  EXPECT_CODE(errPARAMETER_INVALID, Call(&Ops::AddEvent, 5, nullptr, 16, &nId));
  EXPECT_EQ(std::uint64_t{5} << 56, nId);  // composed all the same
  EXPECT_EQ("500 AddEvent(5,16,500000000000000) = errPARAMETER_INVALID (0x80000046)", TakeTrace().back());
  ASSERT_CODE(errOK, Add(5, 1));
  EXPECT_CODE(errPARAMETER_INVALID, Call(&Ops::GetEvents, 5, 0, nullptr, 16, 1, nullptr, nullptr));
  EXPECT_EQ("500 GetEvents(5,0,16,1,0) = errPARAMETER_INVALID (0x80000046)", TakeTrace().back());
  EXPECT_CODE(errPARAMETER_INVALID, Call(&Ops::GetEvents, 99, 0, &nId, 16, 1, nullptr, nullptr));
  EXPECT_CODE(errSTORE_NOT_INITIALIZED, Call(&Ops::GetEvents, 6, 0, &nId, 16, 1, nullptr, nullptr));
}

TEST_F(EventsObjectsTest, GivesTheParentsOfTheirObjects) {
  const std::uint64_t nFile = Find(5, u"C:\\Dir\\file");
  const std::uint64_t nRoot = Find(5, u"C:", 1, typeDriveRoot);
  const std::uint64_t nShared = Find(0, u"D:\\shared");
  const std::uint64_t Objects[] = {nFile, nRoot, nShared, 0, WithDatabase(nFile, 200), nFile + 1000};
  for (const std::uint64_t nObject : Objects) ASSERT_CODE(errOK, Add(m_nNamed, 1, nObject));
  host::IdContainer Parents;
  Event Read[6];
  std::uint32_t nRead = 0;
  EXPECT_CODE(errOK, Call(&Ops::GetEvents, m_nNamed, 0, Read, sizeof(Read), 6, &nRead, Parents.Handle()));
  EXPECT_EQ((TimeList{Find(5, u"C:\\Dir", 0, typeFolder), 0, Find(0, u"D:", 0, typeDriveRoot), 0, 0, 0}),
            Parents.Parents());
  Parents.Clear();
  EXPECT_CODE(errOK, Call(&Ops::GetEvents, m_nNamed, 0, Read, sizeof(Read), 6, nullptr, Parents.Handle()));
  EXPECT_TRUE(Parents.Parents().empty());
  FailAllocation(0);  // the container cannot take them
  EXPECT_CODE(errOUT_OF_MEMORY,
              Call(&Ops::GetEvents, m_nNamed, 0, Read, sizeof(Read), 6, &nRead, host::IdContainer().Handle()));
  EXPECT_TRUE(AllocationFailed());
}

TEST_F(EventsObjectsTest, NamesComeBackThroughTheirIds) {
  for (const std::uint32_t nDb : {0u, 5u, m_nNamed}) {
    const std::uint64_t nId = Find(nDb, u"C:\\Dir\\file.txt");
    EXPECT_EQ(nDb, DatabaseOfId(nId));
    EXPECT_EQ(nDb == 0 ? 0u : 1u, SegmentOfId(nId));
    EXPECT_EQ(u"C:\\Dir\\file.txt", NameOf(nId));
    EXPECT_EQ(nId, Find(nDb, u"c:\\DIR\\FILE.TXT", 0));
    EXPECT_EQ(nId, Find(nDb, u"file.txt", 0, typeFile, Find(nDb, u"C:\\Dir", 0, typeFolder)));
  }
  std::uint32_t nType = 9;
  std::uint32_t nSize = 9;
  const std::uint64_t nId = Find(5, u"C:\\Dir\\file.txt");
  TakeTrace();
  EXPECT_CODE(errOK, Call(&Ops::GetObjectName, nId, nullptr, 0, &nSize, 0, nullptr));
  EXPECT_EQ(9u, nSize);  // nothing was asked for
  EXPECT_TRUE(TakeTrace().empty());
  EXPECT_CODE(errOK, Call(&Ops::GetObjectName, nId, nullptr, 0, &nSize, 0, &nType));
  EXPECT_EQ((std::pair{1u, 30u}), (std::pair{nType, nSize}));
  EXPECT_CODE(errOBJECT_NOT_FOUND,
              Call(&Ops::GetObjectName, WithDatabase(0x9900000001, 5), nullptr, 0, &nSize, 0, &nType));
  EXPECT_EQ(0u, nType);
  EXPECT_EQ("300 GetObjectName(5:9900000001) failed errOBJECT_NOT_FOUND (0x800000C5)", TakeTrace().back());
  EXPECT_CODE(errPARAMETER_INVALID, Call(&Ops::GetObjectName, WithDatabase(1, 200), nullptr, 0, &nSize, 0, &nType));
  NameOf(nId);
  EXPECT_EQ("500 GetObjectName(5:100000003) => C:\\Dir\\file.txt", TakeTrace().back());
  EXPECT_EQ(99u, Find(200, u"C:\\x"));
  EXPECT_EQ(0u, Find(5, u"C:\\not there", 0));
  EXPECT_EQ("500 FindObject(5,1,0,C:\\not there,-2,0,0,0) = errOBJECT_NOT_FOUND (0x800000C5)", TakeTrace().back());
  Find(5, u"name", 1, typeName);
  EXPECT_EQ("500 FindObject(5,20,0,", TakeTrace().back().substr(0, 22));
}

TEST_F(EventsObjectsTest, TwoStandsForTheHost) {
  EXPECT_EQ(2u, Find(0, u"test-host"));
  EXPECT_EQ(2u, Find(0, u"test-host", 0));
  EXPECT_EQ(u"test-host", NameOf(2));
  const std::uint64_t nChild = Find(0, u"child", 1, typeFile, 2);
  EXPECT_EQ(u"test-host\\child", NameOf(nChild));
}

// A thread of low priority works on objects at normal priority, and is what it was afterwards.
TEST_F(EventsObjectsTest, WorksAtNormalPriority) {
  constexpr long kIdle = 3 << 13;
  const long nBefore = syscall(SYS_ioprio_get, 1, 0);
  ASSERT_EQ(0, syscall(SYS_ioprio_set, 1, 0, kIdle));
  ResetSystem();
  Find(5, u"C:\\at low priority");
  EXPECT_EQ(3u, CallsOf(SystemCall::Priority));  // found low, set normal, put back
  EXPECT_EQ(kIdle, syscall(SYS_ioprio_get, 1, 0));
  ASSERT_EQ(0, syscall(SYS_ioprio_set, 1, 0, (2 << 13) | 4));
  ResetSystem();
  Find(5, u"C:\\at normal priority");
  EXPECT_EQ(1u, CallsOf(SystemCall::Priority));
  FailCalls(SystemCall::Priority, EPERM, 0, UINT64_MAX);
  Find(5, u"C:\\whatever priority");
  EXPECT_CODE(errOK, m_nLast);
  ResetSystem();
  syscall(SYS_ioprio_set, 1, 0, nBefore);
}

// The road of each event: one size query and one write, and no memory.
TEST_F(EventsObjectsTest, CostNoMoreThanTheyMust) {
  m_Host->TraceToCallback(0, nullptr);
  ASSERT_CODE(errOK, Add(5, 1));
  Find(5, u"C:\\a\\b\\c\\d");
  const std::uint64_t nId = Find(5, u"C:\\a\\b\\c\\d");
  bool bAdded = true;
  ResetSystem();
  for (int i = 0; i < 100; ++i) bAdded &= Add(5, 1) == errOK;
  EXPECT_EQ((std::pair{100ul, 100ul}), (std::pair{CallsOf(SystemCall::Size), CallsOf(SystemCall::WriteAt)}));
  Event Read[50];
  ResetSystem();
  for (int i = 0; i < 100; ++i) bAdded &= Add(5, 1) == errOK;
  const bool bFound = Find(5, u"C:\\a\\b\\c\\d", 0) == nId && Find(5, u"C:\\a\\b\\c\\d", 1) == nId;
  m_nLast = Call(&Ops::GetEvents, 5, 10, Read, sizeof(Read), 50, nullptr, nullptr);
  const std::uint64_t nAllocations = Allocations();
  EXPECT_EQ(201u, AllCalls());  // one more for all fifty events, and none for the objects
  EXPECT_EQ(0u, nAllocations);
  EXPECT_TRUE(bAdded && bFound && m_nLast == errOK);
}

}  // namespace
}  // namespace lumbra::test
