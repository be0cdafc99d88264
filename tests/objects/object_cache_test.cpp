// The cache of objects: what takes the place of what, who vouches for a hash, and what that saves.
#include "objects/objdb_fixture.h"

namespace lumbra::test {
namespace {

class ObjectCacheTest : public ObjectDbTest {
 protected:
  void Insert(tObjectId id, std::uint64_t nHash) {
    tODB_ID_ENTRY Entry{};
    Entry.nObjectHash = nHash;
    m_Cache.Insert(id, Entry);
  }
  bool Knows(tObjectId id) const { return m_Cache.FindById(id) != nullptr; }
  bool Answers(std::uint64_t nHash) const { return m_Cache.FindByHash(nHash) != nullptr; }

  ObjectCache m_Cache;
};

TEST_F(ObjectCacheTest, HasASlotForEachLowByteOfAHash) {
  Insert(1, 0x0101);
  Insert(2, 0x0102);
  Insert(3, 0x0201);
  EXPECT_FALSE(m_Cache.Holds(0x0101));
  EXPECT_FALSE(Knows(1));
  EXPECT_TRUE(m_Cache.Holds(0x0102));
  EXPECT_TRUE(m_Cache.Holds(0x0201));
}

TEST_F(ObjectCacheTest, KnowsTheLastIdOfEachLowByte) {
  Insert(0x0101, 1);
  Insert(0x0201, 2);
  EXPECT_FALSE(Knows(0x0101));
  EXPECT_TRUE(Knows(0x0201));
}

TEST_F(ObjectCacheTest, AnswersForAHashOnlyWhenVouched) {
  Insert(1, 0x0101);
  EXPECT_FALSE(Answers(0x0101));
  m_Cache.Vouch(1);
  Insert(1, 0x0101);  // read again
  EXPECT_TRUE(Answers(0x0101));
  Insert(2, 0x0101);  // an older one of the same hash
  m_Cache.Vouch(1);
  EXPECT_FALSE(Answers(0x0101));
}

TEST_F(ObjectCacheTest, KnowsNoHashAndNoIdOfZero) {
  Insert(1, 0);
  EXPECT_FALSE(m_Cache.Holds(0));
  EXPECT_FALSE(Knows(0));
}

TEST_F(ObjectCacheTest, SparesReadingWhatTheTreeOrACreationVouchedFor) {
  Start(kPlain, {0x0101, 0x0201});  // in a node that no memory holds
  Open(kPlain);
  Must(TryFind(0x0101));
  Step("find again", Find(0x0101)).Is(Id(1)).Reads(0);
  Must(TryCreate(0x0201));
  Step("find what a creation found", Find(0x0201)).Is(Id(2)).Reads(0);
  Must(TryCreate(0x0201, "new", true));
  Step("find what replaced it", Find(0x0201)).Is(Id(3)).Reads(0);
}

// What is known from its id alone may be an older record of its hash: the tree decides.
TEST_F(ObjectCacheTest, AsksTheTreeAboutWhatAnIdBrought) {
  Start(kPlain, {0x0101});
  FailCalls(SystemCall::WriteAt, os::kDiskFull, 2);  // the slot of the new one, behind its name and record
  Step("replace on a full disk", TryCreate(0x0101, "new", true)).Is(errWRITE_FAILED);
  EXPECT_EQ(Id(1), Find(0x0101));
  Must(TryCreate(0x0101, "new", true));
  for (const bool bFind : {true, false}) {
    Open(kPlain);
    EXPECT_EQ("name1", NameOf(Id(1)));
    EXPECT_EQ(Id(3), bFind ? Find(0x0101) : Create(0x0101));
  }
  Open(kPlain);
  EXPECT_EQ("new", NameOf(Id(3)));
  TakeTrace();
  Step("confirm", Find(0x0101)).Is(Id(3)).Says({}, 600);  // in silence
}

}  // namespace
}  // namespace lumbra::test
