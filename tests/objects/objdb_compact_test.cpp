// Damage and compaction: what the magic of a data file decides, which says what has a CRC, and what no CRC tells.
#include "objects/objdb_fixture.h"

namespace lumbra::test {
namespace {

class CompactTest : public ObjectDbTest {
 protected:
  // Compacts into the files "new id" and "new dt"; a call of one kind may fail behind some others.
  ResultCode Compact(SystemCall Failing = SystemCall::Count_, std::uint64_t nSkip = 0) {
    std::unique_ptr<StorageFile> pIds = OpenFile(u"new id");
    const std::unique_ptr<StorageFile> pData = OpenFile(u"new dt");
    EXPECT_TRUE(pIds->SetSize(0) && pData->SetSize(0));
    if (Failing != SystemCall::Count_) FailCalls(Failing, os::kIoDevice, nSkip);
    const ResultCode nCode = m_pDb->Compact(pIds, *pData);
    EXPECT_EQ(nCode == errOPEN_FAILED, pIds != nullptr);  // taken over, unless it could not be opened
    return nCode;
  }
  // Puts the compacted pair in the place of the live one; the tree stays.
  void UseCompacted() {
    m_pDb.reset();
    for (const std::string File : {"id", "dt"}) fs::rename(Folder() / ("new " + File), Folder() / File);
    Open(kChecked);
  }
  Lines SecondObject() { return {NameOf(Id(2)), DataOf(Id(2))}; }
};

// A magic, and how many of these have a CRC in such a file: blocks, arrays of entries, names.
using FeatureSet = std::pair<const char*, int>;
class FeatureSetTest : public CompactTest, public ::testing::WithParamInterface<FeatureSet> {};
INSTANTIATE_TEST_SUITE_P(Every, FeatureSetTest,
                         ::testing::Values(FeatureSet{"4f444244", 0}, FeatureSet{"4f44424f", 0},
                                           FeatureSet{"4f444251", 1}, FeatureSet{"4f444252", 2},
                                           FeatureSet{"4f444253", 3}));

// Reading and the quick check tell it; compaction leaves out what it would have to vouch for.
TEST_P(FeatureSetTest, DamageCostsWhatACrcTells) {
  const auto& [pMagic, nCrcs] = GetParam();
  const bool bBlocks = nCrcs > 0, bArrays = nCrcs > 1, bNames = nCrcs > 2;
  const std::string kBad = Name(errDATA_CORRUPTED);
  const std::string kNone = Name(errNOT_FOUND);
  // Of the second object, whose name stands behind that of the first.
  const std::size_t nName = bNames ? 13 : 9;
  const std::size_t nBlock = nName + (bNames ? 9 : 5);
  const std::size_t nArray = nBlock + (bBlocks ? 8 : 4);
  // What is damaged, whether that has a CRC, and the name and data that are read, before and after compaction.
  const std::tuple<const char*, std::size_t, bool, Lines, Lines> kParts[] = {
      {"name", nName, bNames, {bNames ? kBad : "Name2", "data"}, {bNames ? "" : "Name2", bNames ? kNone : "data"}},
      {"block", nBlock, bBlocks, {"name2", bBlocks ? kBad : "Data"}, {"name2", bBlocks ? kBad : "Data"}},
      {"array", nArray, bArrays, {"name2", bArrays ? kBad : kNone}, {"name2", kNone}}};
  for (const auto& [pWords, nOffset, bCrc, Read, Compacted] : kParts) {
    Start(kChecked, {0x0101, 0x0002}, "data", pMagic);
    Must(m_pDb->FastConsistencyCheck());
    Bytes Content = ReadFile("dt");
    Content[nOffset] ^= 0x20;  // the case of a letter, masked or not
    Replace("dt", Content);
    EXPECT_EQ(Read, SecondObject()) << pWords;
    EXPECT_CODE(bCrc ? errDATA_CORRUPTED : errOK, m_pDb->FastConsistencyCheck()) << pWords;
    EXPECT_CODE(errOK, Compact()) << pWords;
    UseCompacted();
    EXPECT_EQ(Compacted, SecondObject()) << pWords;
    EXPECT_EQ(Compacted[0].empty() ? UINT64_MAX : 0x0002, m_pDb->GetObjectHash(Id(2)));  // the nameless are not found
    EXPECT_EQ("name1", NameOf(Find(0x0101)));
  }
}

TEST_P(FeatureSetTest, CompactionLeavesTheHolesOut) {
  Start(kChecked, {0x0101, 0x0002}, "data", GetParam().first);
  Must(Compact());
  EXPECT_EQ(ReadFile("dt"), ReadFile("new dt"));  // where there are none
  EXPECT_EQ(ReadFile("id"), ReadFile("new id"));
  const std::uint64_t nSound = FileSize("dt");
  Must(SetData(Id(1), "data that is removed again"));
  Must(m_pDb->RemoveAllObjectData(Id(1)));
  Must(SetData(Id(2), "a longer block, which is moved"));
  Must(SetData(Id(2), "data"));  // and keeps its room of 30
  Must(Compact());
  EXPECT_EQ("data", DataOf(Id(2)));  // by the live store, which goes on
  UseCompacted();
  EXPECT_EQ(nSound + 30 - 4, FileSize("dt"));
  EXPECT_EQ((Lines{"name2", "data"}), SecondObject());
  EXPECT_EQ(Id(2), Find(0x0002));
  Must(SetData(Id(2), "as long as the room of a block"));
  EXPECT_EQ(nSound + 30 - 4, FileSize("dt"));
}

// What cannot be read, or is too large to be true: the other objects come through under their old ids.
TEST_F(CompactTest, LeavesOutWhatCannotBeRead) {
  // The file, an offset and the bytes there; what is told; the name that is left.
  const std::tuple<const char*, std::size_t, const char*, std::string, const char*> kCases[] = {
      {"dt", 26, "0100a000", "too big entry data size, entry id: 1, size: 10485761, object data is deleted", "name2"},
      {"dt", 22, "64000000", "could not read data, entry id: 1, offset: 64, object data is deleted", "name2"},
      {"id", 65, "64000000", "could not read entries, entry id: 1, offset: 64, object data is deleted", "name2"},
      {"id", 57, "64000000", "could not read name, entry id: 1, offset: 64, the object is marked as invalid", ""}};
  for (const auto& [pFile, nOffset, pHex, Line, pName] : kCases) {
    Start(kPlain, {0x0101, 0x0201}, "data");
    Must(TryCreate(0x0301));
    Damage(pFile, nOffset, pHex);
    Step(Line, Compact()).Is(errOK).Says({"350 Compact: " + Line});
    UseCompacted();
    EXPECT_EQ((Lines{pName, Name(errNOT_FOUND)}), SecondObject()) << Line;
    EXPECT_EQ("name1", NameOf(Find(0x0101))) << Line;
    EXPECT_EQ("new", NameOf(Find(0x0301))) << Line;
  }
}

TEST_F(CompactTest, AnswersWhatFailed) {
  Start(kChecked, {0x0101}, "data");
  AllAnswer(errOPEN_FAILED, {{"the header of the records", Compact(SystemCall::WriteAt)}});
  Open(kChecked);  // nothing is in memory
  AllAnswer(errREAD_FAILED, {{"a record", Compact(SystemCall::ReadAt, 1)}});
  AllAnswer(errWRITE_FAILED, {{"the magic", Compact(SystemCall::WriteAt, 1)},
                              {"a record", Compact(SystemCall::WriteAt, 5)},
                              {"the sync of the data", Compact(SystemCall::Sync)},
                              {"the sync of the records", Compact(SystemCall::Sync, 1)}});
  EXPECT_EQ("data", DataOf(Find(0x0101)));
}

}  // namespace
}  // namespace lumbra::test
