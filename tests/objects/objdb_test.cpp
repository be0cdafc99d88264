// The object store: files, objects, names and data, in both configurations and over every kind of file.
#include "objects/objdb_fixture.h"

namespace lumbra::test {
namespace {

TEST_F(ObjectDbTest, CreatesItsFilesByConfiguration) {
  const Lines kForms[] = {{"4f444254100000001004000000000000", "504c44420c0000001d000000", "4f44424f", "1056"},
                          {"4f444243100000001404000000000000", "504c44500c00000021000000", "4f444253", "1060"}};
  for (const bool bCheckData : {false, true}) {
    Start(bCheckData);
    Open(!bCheckData);  // what is there keeps its kind
    EXPECT_EQ(kForms[bCheckData], (Lines{ToHex(ReadFile("bt")).substr(0, 32), ToHex(ReadFile("id")),
                                         ToHex(ReadFile("dt")), std::to_string(m_pDb->GetSize())}));
  }
  m_pDb.reset();
  ObjectFiles Absent{OpenFile(u"bt"), nullptr, OpenFile(u"dt")};
  EXPECT_CODE(errPARAMETER_INVALID, ObjectDB(false).Open(1, Absent, TreeHead::Small));
  EXPECT_NE(nullptr, Absent.pTree);
}

// The magic of a data file decides how it is read and written, whatever the configuration.
TEST_F(ObjectDbTest, ServesEveryFeatureSet) {
  for (const std::string Magic : {"", "4f444244", "4f44424f", "4f444251", "4f444252", "4f444253"}) {
    for (const bool bCheckData : {false, true}) {
      Start(bCheckData, {}, "", Magic.c_str());
      EXPECT_EQ((std::tuple{Id(1), false, Id(2), Id(1), true}),
                (std::tuple{Create(0x0101, "first"), bool{m_bExisted}, Create(0x0201, "second"),
                            Create(0x0101, "another name"), bool{m_bExisted}}));
      EXPECT_CODE(errOBJECT_NOT_FOUND, CodeOf(Find(0x0301)));  // its slot has one with another hash
      ASSERT_EQ(Names({errOK, errOK}), Names({SetData(Id(1), 1, "data"), SetData(Id(1), 2, "more")}));
      for (int nRound = 0; nRound < 2; ++nRound) {
        EXPECT_EQ((Lines{Magic, "first", "second", "data", "more"}),
                  (Lines{ToHex(ReadFile("dt")).substr(0, Magic.size()), NameOf(Id(1)), NameOf(Id(2)), DataOf(Id(1), 1),
                         DataOf(Id(1), 2)}));
        EXPECT_EQ((std::tuple{Id(2), UINT64_C(0x0201), FileSizes()}),
                  (std::tuple{Find(0x0201), m_pDb->GetObjectHash(Id(2)), m_pDb->GetSize()}));
        Open(!bCheckData);
      }
    }
  }
}

TEST_F(ObjectDbTest, RefusesWrongArguments) {
  Start(false, {{1, "a"}});
  tObjectId id = 0;
  std::uint32_t nSize = 0;
  ObjectDescription About;
  AllAnswer(errPARAMETER_INVALID,
            {{"finding hash 0", m_pDb->FindObject(0, &id)},
             {"no room for an id", m_pDb->FindObject(1, nullptr)},
             {"a hash without a name", CodeOf(Create(1, {}))},
             {"a name without a hash", CodeOf(Create(0, "x"))},
             {"name, size without buffer", m_pDb->ReadName(Id(1), {static_cast<std::uint8_t*>(nullptr), 1})},
             {"data, nothing asked for", m_pDb->GetObjectData(Id(1), nullptr, 0, nullptr, 1)},
             {"data, size without buffer", m_pDb->GetObjectData(Id(1), nullptr, 4, &nSize, 1)},
             {"data of no bytes", m_pDb->SetObjectData(Id(1), &id, 0, 1)}});
  AllAnswer(errSIZE_INVALID, {{"a name of 64 KiB", CodeOf(Create(77, std::string(65536, 'x')))},
                              {"data of 2 GiB", m_pDb->SetObjectData(Id(1), &id, 0x80000000, 1)}});
  const tObjectId kForeign = MakeObjectId(kNumber + 1, 1);
  AllAnswer(errOBJECT_NOT_FOUND, {{"name of another store's", m_pDb->Describe(kForeign, &About)},
                                  {"data of another store's", m_pDb->GetObjectData(kForeign, nullptr, 0, &nSize, 1)},
                                  {"removing another store's", m_pDb->RemoveAllObjectData(kForeign)}});
  AllAnswer(errNOT_FOUND, {{"a name behind the last", m_pDb->Describe(Id(2), &About)},
                           {"data of a key that is not there", m_pDb->GetObjectData(Id(1), nullptr, 0, &nSize, 1)}});
}

TEST_F(ObjectDbTest, AnonymousObjectsAreReachedByIdAlone) {
  Start(true);
  EXPECT_EQ((std::vector{Id(1), Id(2)}), (std::vector{Create(0, {}), Create(0, {})}));
  EXPECT_EQ((std::pair{std::string(), UINT64_C(1044)}), (std::pair{NameOf(Id(2)), FileSize("bt")}));
  EXPECT_CODE(errOK, m_pDb->FastConsistencyCheck());  // they have no name that could be damaged
}

TEST_F(ObjectDbTest, RewritesDataInPlaceWhileItFits) {
  Start(false, {{1, "n"}});
  char cFill = 'a';
  for (const auto& [nSize, nFile] : {std::pair{100u, 117u}, {50u, 117u}, {100u, 117u}, {50u, 117u}, {120u, 237u}}) {
    const std::string Data(nSize, cFill++);
    ASSERT_CODE(errOK, SetData(Id(1), 7, Data));
    EXPECT_EQ(nFile, FileSize("dt")) << nSize;  // the room of the first is kept
    EXPECT_EQ(Data, DataOf(Id(1), 7));
  }
  EXPECT_EQ(std::string(100, '0'), ToHex(ReadFile("dt")).substr(10, 100));  // the old block's stored bytes
}

TEST_F(ObjectDbTest, KeepsBlocksUnderManyKeysAndSizes) {
  for (const bool bCheckData : {false, true}) {
    Start(bCheckData, {{1, "n"}});
    const std::uint32_t kSizes[] = {1, 4, 4091, 4096, 4097, 0x7FFB, 0x7FFC, 0x7FFF, 0x8000, 100000};
    for (const std::uint32_t nSize : kSizes) {
      for (const std::uint32_t nOther : kSizes) {
        ASSERT_CODE(errOK, SetData(Id(1), 999, std::string(nSize, 'x')));
        ASSERT_CODE(errOK, SetData(Id(1), 999, std::string(nOther, 'y')));
        ASSERT_EQ(std::string(nOther, 'y'), DataOf(Id(1), 999)) << nSize;
      }
    }
    for (std::uint32_t nKey = 0; nKey < 254; ++nKey) ASSERT_CODE(errOK, SetData(Id(1), nKey, std::to_string(nKey)));
    EXPECT_CODE(errOUT_OF_SPACE, SetData(Id(1), 254, "a 256th"));
    Open(bCheckData);
    for (std::uint32_t nKey = 0; nKey < 254; ++nKey) ASSERT_EQ(std::to_string(nKey), DataOf(Id(1), nKey));

    std::uint32_t nSize = 0;
    std::uint32_t nAgain = 0;
    char cFirst = '?';
    EXPECT_EQ(Names({errOK, errBUFFER_TOO_SMALL, errOK}),
              Names({m_pDb->GetObjectData(Id(1), nullptr, 0, &nSize, 253),
                     m_pDb->GetObjectData(Id(1), &cFirst, 1, &nAgain, 253), m_pDb->RemoveAllObjectData(Id(1))}));
    EXPECT_EQ((std::tuple{3u, 3u, '?', Name(errNOT_FOUND), "n"}),
              (std::tuple{nSize, nAgain, cFirst, DataOf(Id(1), 0), NameOf(Id(1))}));
  }
}

TEST_F(ObjectDbTest, RefusesDamagedData) {
  const std::string kBad = Name(errDATA_CORRUPTED);
  const std::string kName =
      "ValidDataCrc(object_entry.nObjectHash, buffer.Get(), object_entry.nNameSize, buffer.Get() + "
      "object_entry.nNameSize)";
  const std::string kArray =
      "ValidDataCrc(nObjectId, data_entries, object_entry.nDataEntriesCount * sizeof(tODB_DATA_ENTRY), data_entries + "
      "object_entry.nDataEntriesCount)";
  const std::string kBlock = "ValidDataCrc(nObjectId, readBuf, userDataSize, readBuf + userDataSize)";
  // After the magic: name and CRC (4 to 11), block and CRC (12 to 19), array and CRC (20 to 35).
  const std::tuple<std::size_t, const char*, std::string> kDamage[] = {
      {5, "60", kName}, {13, "fe", kBlock}, {22, "", "bytesToRead == bytesRead"}, {21, "01", kArray}};
  for (const auto& [nOffset, pHex, Check] : kDamage) {
    Start(true, {{0x0101, "name"}}, "data");
    Damage("dt", nOffset, pHex);
    const bool bName = Check == kName;  // or the data, also where the size alone is asked for
    EXPECT_EQ(bName ? (Lines{kBad, "data"}) : (Lines{"name", kBad}), (Lines{NameOf(Id(1)), DataOf(Id(1), 1)}));
    EXPECT_EQ(Lines{FailedCheck(Check)}, TakeTrace(300));
    std::uint32_t nSize = 0;
    EXPECT_CODE(bName ? errOK : errDATA_CORRUPTED, m_pDb->GetObjectData(Id(1), nullptr, 0, &nSize, 1)) << Check;
  }
  EXPECT_CODE(errDATA_CORRUPTED, SetData(Id(1), 1, "x"));  // a bad array is not followed
}

// Where no CRC tells: what an entry leads to is measured against the file, and nothing but blocks is overwritten.
TEST_F(ObjectDbTest, ChecksEntriesWithoutCrcs) {
  Start(false, {{0x0101, "n"}}, "data!");  // its entry at 10: key, offset, size
  for (const auto& [pPlace, pCheck] : {std::pair{"ffffff7f 00000070", "dataFileSize > pde->nDataOffset"},
                                       {"05000000 00000070", "dataFileSize >= nDataSize"}}) {
    Damage("dt", 14, pPlace);
    EXPECT_EQ(Name(errDATA_CORRUPTED), DataOf(Id(1), 1));
    EXPECT_EQ(FailedCheck(pCheck), LastLine());
  }
  Damage("dt", 14, "03000000 05000580");
  const Bytes kBefore = ReadFile("dt");
  EXPECT_EQ(Lines(2, Name(errDATA_CORRUPTED)), Names({SetData(Id(1), 1, "other"), SetData(Id(1), 1, "longer data")}));
  EXPECT_EQ(kBefore, ReadFile("dt"));
  // A place outside the file has no room, not even for nothing. It is not wiped either: the new block may lie there.
  for (const std::string Data : {"fits", "a block that goes on to the place outside", ""}) {
    Damage("dt", 14, "1e000000 05000580");
    m_pDb.reset();
    fs::resize_file(Folder() / "dt", 22);
    Open(true);
    ASSERT_CODE(errOK, SetData(Id(1), 1, Data));
    EXPECT_EQ((Lines{Data, "n"}), (Lines{DataOf(Id(1), 1), NameOf(Id(1))}));
    EXPECT_EQ(22 + Data.size(), FileSize("dt"));
  }
}

// A block that was cut off with the end of its file can be replaced, in its room or at the end.
TEST_F(ObjectDbTest, ReplacesABlockThatWasCutOff) {
  for (const std::string Data : {"its room is enough", "its room is not enough, for it has less than that"}) {
    Start(true, {{0x0101, "n"}}, "data");
    ASSERT_CODE(errOK, SetData(Id(1), 1, "behind its array now"));
    m_pDb.reset();
    fs::resize_file(Folder() / "dt", FileSize("dt") - 3);
    Open(true);
    ASSERT_CODE(errOK, SetData(Id(1), 1, Data));
    EXPECT_EQ(Data, DataOf(Id(1), 1));
    EXPECT_EQ(FileSizes(), m_pDb->GetSize());
  }
}

// Where its spare room alone was cut off, the block itself is still wiped when a longer one replaces it.
TEST_F(ObjectDbTest, WipesABlockWhoseSpareRoomWasCutOff) {
  for (const std::size_t nCrc : {0u, 4u}) {
    Start(nCrc != 0, {{0x0101, "n"}}, "data");
    const std::size_t nPlace = ReadText("dt").size();
    ASSERT_EQ(Names({errOK, errOK}), Names({SetData(Id(1), 1, "behind its array"), SetData(Id(1), 1, "short")}));
    m_pDb.reset();
    fs::resize_file(Folder() / "dt", FileSize("dt") - 3);
    Open(nCrc != 0);
    ASSERT_CODE(errOK, SetData(Id(1), 1, "longer than its room"));
    EXPECT_EQ((Lines{std::string(5 + nCrc, '\0'), "longer than its room"}),
              (Lines{ReadText("dt").substr(nPlace, 5 + nCrc), DataOf(Id(1), 1)}));
  }
}

// What a failed write left behind is stepped over, and does not look like damage later.
TEST_F(ObjectDbTest, GoesOnBehindStrayBytes) {
  Start(true, {{0x0101, "one"}});
  ASSERT_TRUE(m_pDataFile->SetSize(FileSize("dt") + 50));
  ASSERT_EQ(Id(2), Create(0x0201, "two"));
  EXPECT_EQ(FileSizes(), m_pDb->GetSize());
  EXPECT_CODE(errOK, m_pDb->FastConsistencyCheck());
}

TEST_F(ObjectDbTest, ForcesItsWayThroughABrokenNode) {
  Start(true, {{0x0101, "one"}, {0x0201, "two"}, {0x0002, "three"}});
  Damage("bt", 1044 + 4, "ff");  // the node of the first two
  EXPECT_CODE(errDATA_CORRUPTED, CodeOf(Create(0x0101, "one")));
  EXPECT_EQ(Id(4), Create(0x0101, "one", true));
  EXPECT_EQ((std::vector{Id(4), UINT64_C(0), Id(3)}), (std::vector{Find(0x0101), Find(0x0201), Find(0x0002)}));
  // An object that is there is replaced.
  EXPECT_EQ((std::vector{Id(5), Id(5)}), (std::vector{Create(0x0101, "one", true), Find(0x0101)}));
}

}  // namespace
}  // namespace lumbra::test
