// The object store: files, objects, names, data, and what its cache saves.
#include "objects/objdb_fixture.h"

namespace lumbra::test {
namespace {

TEST_F(ObjectDbTest, CreatesItsFilesByConfiguration) {
  for (const bool bChecked : {kPlain, kChecked}) {
    Start(bChecked);
    Open(!bChecked);  // what is there keeps its kind
    EXPECT_EQ(bChecked ? "4f44424310000000" : "4f44425410000000", ToHex(ReadFile("bt")).substr(0, 16));
    EXPECT_EQ(bChecked ? "504c44500c00000021000000" : "504c44420c0000001d000000", ToHex(ReadFile("id")));
    EXPECT_EQ(bChecked ? "ODBS" : "ODBO", ReadText("dt"));
  }
}

TEST_F(ObjectDbTest, RewritesDataInPlaceWhileItFits) {
  Start(kPlain, {1}, std::string(600, 'a'));
  const std::uint64_t nSize = FileSize("dt");
  for (const std::size_t n : {5, 600}) {
    Must(SetData(Id(1), std::string(n, 'b')));
    EXPECT_EQ(std::string(n, 'b'), DataOf(Id(1)));
    EXPECT_EQ(nSize, FileSize("dt"));
  }
  Must(SetData(Id(1), std::string(601, 'c')));
  EXPECT_EQ(std::string(600, '\0'), ReadText("dt").substr(9, 600));  // the old block, behind magic and name, is wiped
}

TEST_F(ObjectDbTest, Keeps255Blocks) {
  Start(kChecked, {1});
  for (std::uint32_t nKey = 0; nKey < 255; ++nKey) Must(SetData(Id(1), std::to_string(nKey), nKey));
  EXPECT_CODE(errOUT_OF_SPACE, SetData(Id(1), "a 256th", 255));
  Open(kChecked);
  for (std::uint32_t nKey = 0; nKey < 255; ++nKey) EXPECT_EQ(std::to_string(nKey), DataOf(Id(1), nKey));
}

TEST_F(ObjectDbTest, NeverWritesOverTheMagic) {
  Start(kPlain, {0x0101}, "data!");
  Damage("dt", 18, "03000000 05000580");
  const Bytes kBefore = ReadFile("dt");
  AllAnswer(errDATA_CORRUPTED, {{"in place", SetData(Id(1), "other")}, {"longer", SetData(Id(1), "longer data")}});
  EXPECT_EQ(kBefore, ReadFile("dt"));
}

// A place outside the file has no room, not even for nothing. It is not wiped either: the new block may lie there.
TEST_F(ObjectDbTest, AppendsWhatLedOutsideTheFile) {
  for (const std::string Data : {"fits", "a block that goes on to the place outside", ""}) {
    Start(kPlain, {0x0101}, "data!");
    Damage("dt", 18, "22000000 05000580");
    Must(SetData(Id(1), Data));
    EXPECT_EQ(Data, DataOf(Id(1)));
    EXPECT_EQ(26 + Data.size(), FileSize("dt"));
  }
}

TEST_F(ObjectDbTest, ForcesItsWayThroughABrokenNode) {
  Start(kChecked, {0x0101, 0x0201, 0x0002});
  Damage("bt", 1044 + 4, "ff");  // in the node of the first two
  EXPECT_CODE(errDATA_CORRUPTED, TryCreate(0x0101));
  EXPECT_EQ(Id(4), Create(0x0101, true));
  EXPECT_EQ(Id(4), Find(0x0101));
  EXPECT_EQ(Id(3), Find(0x0002));
}

TEST_F(ObjectDbTest, SparesReadingWhatTheTreeOrACreationVouchedFor) {
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
TEST_F(ObjectDbTest, AsksTheTreeAboutWhatAnIdBrought) {
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
