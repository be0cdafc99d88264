// Events and objects through the operation table: ids, starts, parents, the alias, their traces and what they cost.
#include "component/component_fixture.h"

namespace lumbra::test {
namespace {

class EventsObjectsTest : public ComponentTest {
 protected:
  ResultCode Update(std::uint64_t nId, std::uint32_t nSize = 16) {
    const Event New{77, 0};
    return Call(&Ops::UpdateEvent, nId, &New, nSize);
  }
};

TEST_F(EventsObjectsTest, EventsComeWithTheParentsOfTheirObjects) {
  const std::uint64_t nFile = Find(5, u"C:\\Dir\\file");
  for (const std::uint64_t nObject : {nFile, Find(5, u"C:", 0, typeDriveRoot), Find(0, u"D:\\shared"), UINT64_C(0),
                                      WithDatabase(nFile, 200), nFile + 1000})
    Must(Add(5, 1, nObject));
  Event Read[6];
  std::uint32_t nRead = 0;
  host::IdContainer Parents;
  Must(Call(&Ops::GetEvents, 5, 0, Read, sizeof(Read), 6, &nRead, Parents.Handle()));
  EXPECT_EQ((Ids{Find(5, u"C:\\Dir", 0, typeFolder), 0, Find(0, u"D:", 0, typeDriveRoot), 0, 0, 0}), Parents.Parents());
}

TEST_F(EventsObjectsTest, RefusesAParentOfAnotherDatabase) {
  const std::uint64_t nOther = Find(m_nNamed, u"C:\\Dir", 1, typeFolder);
  Find(5, u"D:\\unlike");  // so that the id would lead to something here, too
  std::uint64_t nId = 99;
  Step("a child", Call(&Ops::FindObject, 5, typeFile, u"file", kZeroTerminated, 1, 0, nOther, &nId))
      .Is(errOBJECT_NOT_FOUND);
  EXPECT_EQ(0u, nId);
}

TEST_F(EventsObjectsTest, TheHostsNameHasTheId2) {
  EXPECT_EQ(kHostObjectAlias, Find(0, u"test-host"));
  EXPECT_EQ(u"test-host", NameOf(kHostObjectAlias));
  EXPECT_EQ(u"test-host\\child", NameOf(Find(0, u"child", 1, typeFile, kHostObjectAlias)));
}

// A thread of low priority works on objects at normal priority, and is what it was afterwards.
TEST_F(EventsObjectsTest, WorksAtNormalPriority) {
  const std::uint32_t nBefore = GetIoPriority();
  SetIoPriority(kLowestIoPriority);
  MarkCalls();
  Step("at a low one: looked at, set, put back", FindObject(5, u"C:\\a", 1, nullptr)).Calls(SystemCall::Priority, 3);
  EXPECT_EQ(kLowestIoPriority, GetIoPriority());
  SetIoPriority(nBefore);
}

TEST_F(EventsObjectsTest, CostNoMoreThanTheyMust) {
  m_Host->TraceToCallback(0, nullptr);
  const std::u16string kPath = u"C:\\a\\b\\c\\d";
  const std::uint64_t nId = Find(5, kPath);
  char Data[100] = {};
  Event Found[50];
  Fill(5, 1, 60);
  Must(Call(&Ops::SetObjectData, nId, Data, 100, 1));
  ResetSystem();
  for (int i = 0; i < 100; ++i) (void)Add(5, 1);
  (void)Find(5, kPath);
  EXPECT_EQ(0u, Allocations());
  EXPECT_EQ(100u, AllCalls());
  MarkCalls();
  Step("an event", Add(5, 1)).Is(errOK).Calls(SystemCall::Size, 0).Reads(0).Writes(1);
  Step("fifty events", Call(&Ops::GetEvents, 5, 0, Found, 800, 50, nullptr, nullptr))
      .Is(errOK)
      .Calls(SystemCall::Size, 0)
      .Reads(1);
  const auto FindFiles = [&] {  // more than the cache of objects holds
    for (char16_t c = 0; c < 500; ++c) (void)Find(5, kPath + u'\\' + static_cast<char16_t>(0x4E00 + c));
    return errOK;
  };
  Step("new files", FindFiles()).Is(errOK);
  Step("known files", FindFiles()).Is(errOK).Reads(0).Writes(0).Calls(SystemCall::Priority, 0);
  Step("entries and block of data", Call(&Ops::GetObjectData, nId, Data, 100, nullptr, 1)).Is(errOK).Reads(1);
  Step("as much data again", Call(&Ops::SetObjectData, nId, Data, 100, 1)).Is(errOK).Reads(0).Writes(1);
}

// Four calls for each of 14 files: it is opened, held, looked at and read.
TEST_F(EventsObjectsTest, AStoreOpensWithFewCalls) {
  StartAnew();
  Restart();
  Must(InitDb(5));
  Must(Add(5, 1));
  (void)Find(5, u"C:\\a\\b\\c");
  Close();
  m_Host->TraceToCallback(0, nullptr);
  Event First{};
  ResetSystem();
  Restart();
  Must(InitDb(5));
  Must(Call(&Ops::GetEvents, 5, 0, &First, sizeof(First), 1, nullptr, nullptr));
  EXPECT_EQ(1u, First.nTime);
  for (const SystemCall Once : {SystemCall::Open, SystemCall::Lock}) EXPECT_EQ(14u, CallsOf(Once));
  EXPECT_EQ(0u, CallsOf(SystemCall::WriteAt));
  EXPECT_EQ(79u, AllCalls());
  MarkCalls();
  Step("a path of which nothing is in memory", FindObject(5, u"C:\\a\\b\\c", 1, nullptr)).Reads(2).Writes(0);
}

}  // namespace
}  // namespace lumbra::test
