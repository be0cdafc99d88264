// Events and objects through the operation table: ids, starts, parents, the alias, their traces and what they cost.
#include <functional>

#include "component/component_fixture.h"

namespace lumbra::test {
namespace {

class EventsObjectsTest : public ComponentTest {};

TEST_F(EventsObjectsTest, IdsCarryTheirDatabase) {
  for (const std::uint32_t nDb : {5u, m_nNamed}) {
    std::uint64_t nId = 0;
    for (std::uint64_t i = 10; i < 14; ++i) ASSERT_CODE(errOK, Add(nDb, i, 0, &nId));
    // The id names the database, whatever the argument.
    Expect({WithDatabase(0x100000003, nDb), Ids{13}, Ids{11, 12}, Ids{12, 13}, Ids{12, 13}, errNO_MORE_EVENTS},
           {nId, Times(1, nId, 1), Times(nDb, 1, 2), Times(nDb, 0xFFFFFFFFFFFFFFFE, 2), Times(nDb, 2, 5), m_nLast});
    const Event New{77, 0};
    Expect({errOK, Ids{77}, errNOT_FOUND, errPARAMETER_INVALID},
           {Call(&Ops::UpdateEvent, nId, &New, 16), Times(1, nId, 1), Call(&Ops::UpdateEvent, nId + 1, &New, 16),
            Call(&Ops::UpdateEvent, nId, &New, 15)});
  }
}

TEST_F(EventsObjectsTest, RefusesWhatIsWrong) {
  std::uint64_t nId = 0;
  TakeTrace();
  Expect({errNOT_SUPPORTED, errPARAMETER_INVALID}, {Add(0, 1), Add(200, 1)});
  EXPECT_EQ((Lines{"600 Lumbra::AddEvent Database - 0", "600 Lumbra::AddEvent Database - C8"}), TakeTrace());
  // The id is composed all the same.
  Expect({errPARAMETER_INVALID, UINT64_C(5) << 56}, {Call(&Ops::AddEvent, 5, nullptr, 16, &nId), nId});
  EXPECT_EQ("500 AddEvent(5,16,500000000000000) = errPARAMETER_INVALID (0x80000046)", TakeTrace().back());
  Expect({errOK, errPARAMETER_INVALID}, {Add(5, 1), Call(&Ops::GetEvents, 5, 0, nullptr, 16, 1, nullptr, nullptr)});
  EXPECT_EQ("500 GetEvents(5,0,16,1,0) = errPARAMETER_INVALID (0x80000046)", TakeTrace().back());
  Expect({errPARAMETER_INVALID, errSTORE_NOT_INITIALIZED}, {CodeOf(Events(99, 0, 1)), CodeOf(Events(6, 0, 1))});
  TakeTrace();
  const auto Update = [this](std::uint64_t nEvent) {
    return Call(&Ops::UpdateEvent, nEvent, "0123456789abcdef", 16);
  };
  Expect({errPARAMETER_INVALID, Lines()}, {Update(WithDatabase(0x100000000, 49)), TakeTrace()});  // no such name yet
  Expect({errOK, Lines{"500 UpdateEvent(100000000,16) = errOK (0x00000000)"}},
         {Update(WithDatabase(0x100000000, 5)), TakeTrace()});
}

TEST_F(EventsObjectsTest, GivesTheParentsOfTheirObjects) {
  const std::uint64_t nFile = Find(5, u"C:\\Dir\\file");
  const std::uint64_t nRoot = Find(5, u"C:", 1, typeDriveRoot);
  for (const std::uint64_t nOf :
       {nFile, nRoot, Find(0, u"D:\\shared"), UINT64_C(0), WithDatabase(nFile, 200), nFile + 1000})
    ASSERT_CODE(errOK, Add(m_nNamed, 1, nOf));
  host::IdContainer Parents;
  std::uint32_t nRead = 0;
  const auto GetInto = [this](std::uint32_t* pnRead, HostObject* pParents) {
    Event Read[6];
    return Call(&Ops::GetEvents, m_nNamed, 0, Read, sizeof(Read), 6, pnRead, pParents);
  };
  Expect({errOK, Ids(), errOK, Ids{Find(5, u"C:\\Dir", 0, typeFolder), 0, Find(0, u"D:", 0, typeDriveRoot), 0, 0, 0}},
         {GetInto(nullptr, Parents.Handle()), Parents.Parents(), GetInto(&nRead, Parents.Handle()), Parents.Parents()});
  FailAllocation(0);  // the container cannot take them
  const ResultCode nRefused = GetInto(&nRead, host::IdContainer().Handle());
  EXPECT_CODE(errOUT_OF_MEMORY, nRefused);
  EXPECT_TRUE(AllocationFailed());
}

TEST_F(EventsObjectsTest, RefuseAParentOfAnotherDatabase) {
  const std::uint64_t nOther = Find(m_nNamed, u"C:\\Dir", 1, typeFolder);
  Find(5, u"D:\\unlike");  // so that the id would lead to something here, too
  TakeTrace();
  Expect({0u, errOBJECT_NOT_FOUND}, {Find(5, u"file", 1, typeFile, nOther), m_nLast});
  EXPECT_EQ(Lines{"300 Failed step. Err: errOBJECT_NOT_FOUND (0x800000C5)"}, TakeTrace(300));
}

TEST_F(EventsObjectsTest, NamesComeBackThroughTheirIds) {
  const std::u16string kPath = u"C:\\Dir\\file.txt";
  std::uint64_t nId = 0;
  for (const std::uint32_t nDb : {0u, m_nNamed, 5u}) {
    nId = Find(nDb, kPath);
    Expect({nDb, nDb == 0 ? 0u : 1u, kPath, nId, nId},
           {DatabaseOfId(nId), SegmentOfId(nId), NameOf(nId), Find(nDb, u"c:\\DIR\\FILE.TXT", 0),
            Find(nDb, u"file.txt", 0, typeFile, Find(nDb, u"C:\\Dir", 0, typeFolder))});
  }
  std::uint32_t nType = 9;
  std::uint32_t nSize = 9;
  const auto Describe = [&](std::uint64_t nOf, std::uint32_t* pnType) {
    return Call(&Ops::GetObjectName, nOf, nullptr, 0, &nSize, 0, pnType);
  };
  TakeTrace();
  // Nothing is asked for without a type.
  Expect({errOK, 9u, Lines(), errOK, 1u, 30u},
         {Describe(nId, nullptr), nSize, TakeTrace(), Describe(nId, &nType), nType, nSize});
  Expect({errOBJECT_NOT_FOUND, 0u}, {Describe(WithDatabase(0x9900000001, 5), &nType), nType});
  EXPECT_EQ("300 GetObjectName(5:9900000001) failed errOBJECT_NOT_FOUND (0x800000C5)", TakeTrace().back());
  EXPECT_CODE(errPARAMETER_INVALID, Describe(WithDatabase(1, 200), &nType));
  NameOf(nId);
  EXPECT_EQ("500 GetObjectName(5:100000003) => C:\\Dir\\file.txt", TakeTrace().back());
  Expect({99u, 0u}, {Find(200, u"C:\\x"), Find(5, u"C:\\not there", 0)});
  EXPECT_EQ("500 FindObject(5,1,0,C:\\not there,-2,0,0,0) = errOBJECT_NOT_FOUND (0x800000C5)", TakeTrace().back());
  Find(5, u"name", 1, typeName);
  EXPECT_EQ("500 FindObject(5,20,0,", TakeTrace().back().substr(0, 22));
  // 2 stands for the host.
  Expect({2u, 2u, u"test-host", u"test-host\\child"},
         {Find(0, u"test-host"), Find(0, u"test-host", 0), NameOf(2), NameOf(Find(0, u"child", 1, typeFile, 2))});
}

// A thread of low priority works on objects at normal priority, and is what it was afterwards.
TEST_F(EventsObjectsTest, WorksAtNormalPriority) {
  const std::uint32_t nBefore = GetIoPriority();
  // The lowest is found, set to normal and put back; normal is found alone.
  for (const auto& [nPriority, nCalls] : {std::pair{kLowestIoPriority, 3u}, {kNormalIoPriority, 1u}}) {
    SetIoPriority(nPriority);
    ResetSystem();
    Find(5, u"C:\\at priority " + std::u16string(nCalls, u'x'));
    Expect({nCalls, nPriority}, {CallsOf(SystemCall::Priority), GetIoPriority()});
  }
  FailCalls(SystemCall::Priority, os::kAccessDenied, 0, UINT64_MAX);
  EXPECT_CODE(errOK, CodeOf(Find(5, u"C:\\whatever priority")));
  ResetSystem();
  SetIoPriority(nBefore);
}

// The road of each event: one size query and one write, and no memory; one read for fifty events, and nothing for an
// object that is known. Of data, without a check mode and with the record at hand: the entries and the block are read,
// the block is written, and the thread's priority is looked at.
TEST_F(EventsObjectsTest, CostNoMoreThanTheyMust) {
  using enum SystemCall;
  m_Host->TraceToCallback(0, nullptr);
  const std::u16string kPath = u"C:\\a\\b\\c\\d";
  const std::uint64_t nId = Find(5, kPath);
  char Data[100] = {};
  Event Found[50];
  Expect({errOK, nId, errOK}, {Add(5, 1), Find(5, kPath), Call(&Ops::SetObjectData, nId, Data, 100, 1)});
  // In a hundred rounds: size queries, reads, writes, looks at the priority, all calls, and allocations.
  const std::pair<std::function<bool()>, Ids> kOperations[] = {
      {[&] { return Add(5, 1) == errOK; }, {100, 0, 100, 0, 200, 0}},
      {[&] { return Call(&Ops::GetEvents, 5, 10, Found, 50 * 16, 50, nullptr, nullptr) == errOK; },
       {0, 100, 0, 0, 100, 0}},
      {[&] { return Find(5, kPath, 0) == nId && Find(5, kPath, 1) == nId; }, {0, 0, 0, 0, 0, 0}},
      {[&] { return Call(&Ops::GetObjectData, nId, Data, 100, nullptr, 1) == errOK; }, {0, 200, 0, 100, 300, 0}},
      {[&] { return Call(&Ops::SetObjectData, nId, Data, 100, 1) == errOK; }, {0, 100, 100, 100, 300, 100}}};
  for (const auto& [Done, Expected] : kOperations) {
    bool bDone = true;
    ResetSystem();
    for (int i = 0; i < 100; ++i) bDone &= Done();
    const Ids Spent{CallsOf(Size), CallsOf(ReadAt), CallsOf(WriteAt), CallsOf(Priority), AllCalls(), Allocations()};
    EXPECT_EQ((std::pair{Expected, true}), (std::pair{Spent, bDone}));
  }
}

}  // namespace
}  // namespace lumbra::test
