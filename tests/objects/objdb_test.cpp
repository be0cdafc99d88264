// The object store: files, objects, names and data.
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

TEST_F(ObjectDbTest, AnonymousObjectsAreReachedByIdAlone) {
  Start(kChecked);
  for (int i = 0; i < 2; ++i) Must(TryCreate(0, {}));
  EXPECT_EQ("", NameOf(Id(2)));
  EXPECT_EQ(1044u, FileSize("bt"));
  EXPECT_CODE(errOK, m_pDb->FastConsistencyCheck());  // they have no name that could be damaged
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

// Where no CRC tells, what an entry leads to is measured against the file. Its offset is at 18, its size behind that.
TEST_F(ObjectDbTest, MeasuresEntriesAgainstTheFile) {
  for (const auto& [pPlace, pCheck] : {std::pair{"ffffff7f 00000070", "dataFileSize > pde->nDataOffset"},
                                       {"05000000 00000070", "dataFileSize >= nDataSize"}}) {
    Start(kPlain, {0x0101}, "data!");
    Damage("dt", 18, pPlace);
    Step(pPlace, DataOf(Id(1))).Is(Name(errDATA_CORRUPTED)).Says({FailedCheck(pCheck)});
  }
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

// A block that was cut off with the end of its file can be replaced, in its room or at the end.
TEST_F(ObjectDbTest, ReplacesABlockThatWasCutOff) {
  for (const std::string Data : {"its room is enough", "its room is not enough, for it has less than that"}) {
    Start(kChecked, {0x0101}, "data");
    Must(SetData(Id(1), "behind its array now"));
    Damage("dt", FileSize("dt") - 3, "");
    Must(SetData(Id(1), Data));
    EXPECT_EQ(Data, DataOf(Id(1)));
    ExpectItsSize();
  }
}

// Where its spare room alone was cut off, the block itself is still wiped when a longer one replaces it.
TEST_F(ObjectDbTest, WipesABlockWhoseSpareRoomWasCutOff) {
  Start(kChecked, {0x0101}, "data");
  const std::size_t nPlace = ReadFile("dt").size();
  Must(SetData(Id(1), "behind its array"));
  Must(SetData(Id(1), "short"));
  Damage("dt", FileSize("dt") - 3, "");
  Must(SetData(Id(1), "longer than its room"));
  EXPECT_EQ(std::string(9, '\0'), ReadText("dt").substr(nPlace, 9));  // with its CRC
}

// What a failed write left behind is stepped over, and does not look like damage later.
TEST_F(ObjectDbTest, GoesOnBehindStrayBytes) {
  Start(kChecked, {0x0101});
  ASSERT_TRUE(m_pDataFile->SetSize(FileSize("dt") + 50));
  Must(TryCreate(0x0201));
  ExpectItsSize();
  EXPECT_CODE(errOK, m_pDb->FastConsistencyCheck());
}

TEST_F(ObjectDbTest, ForcesItsWayThroughABrokenNode) {
  Start(kChecked, {0x0101, 0x0201, 0x0002});
  Damage("bt", 1044 + 4, "ff");  // in the node of the first two
  EXPECT_CODE(errDATA_CORRUPTED, TryCreate(0x0101));
  EXPECT_EQ(Id(4), Create(0x0101, true));
  EXPECT_EQ(Id(4), Find(0x0101));
  EXPECT_EQ(Id(3), Find(0x0002));
}

}  // namespace
}  // namespace lumbra::test
