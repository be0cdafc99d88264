// The object store: files, objects, names and data, in both configurations and over every kind of file.
#include <cerrno>
#include <cstring>

#include "objects/objdb_fixture.h"
#include "support/system_calls.h"

namespace lumbra::test {
namespace {

TEST_F(ObjectDbTest, CreatesItsFilesByConfiguration) {
  for (const auto& [bCheckData, pData, pIds, nTree] : {std::tuple{true, "4f444253", "504c44500c00000021000000", 1044u},
                                                       {false, "4f44424f", "504c44420c0000001d000000", 1040u}}) {
    ASSERT_CODE(errOK, Fresh(bCheckData));
    for (int nRound = 0; nRound < 2; ++nRound) {
      EXPECT_EQ((std::tuple{std::string(pData), std::string(pIds), std::uint64_t{nTree}, nTree + 4ull + 12}),
                (std::tuple{ToHex(ReadFile("dt")), ToHex(ReadFile("id")), FileSize("bt"), m_pDb->GetSize()}));
      ASSERT_CODE(errOK, Open(!bCheckData));  // what is there keeps its kind
    }
  }
  Close();
  ObjectFiles Absent{OpenFile(u"bt"), nullptr, OpenFile(u"dt")};
  EXPECT_CODE(errPARAMETER_INVALID, ObjectDB(false).Open(1, Absent, TreeHead::Small));
  EXPECT_NE(nullptr, Absent.pTree);
}

// The magic of a data file decides how it is read and written, whatever the configuration.
TEST_F(ObjectDbTest, ServesEveryFeatureSet) {
  for (const char* const pMagic : {"", "4f444244", "4f44424f", "4f444251", "4f444252", "4f444253"}) {
    for (const bool bCheckData : {false, true}) {
      ASSERT_CODE(errOK, Fresh(bCheckData, pMagic));
      EXPECT_EQ(0u, Find(0x0101));
      EXPECT_CODE(errOBJECT_NOT_FOUND, m_nLast);
      EXPECT_EQ(Id(1), Create(0x0101, "first"));
      EXPECT_FALSE(m_bExisted);
      EXPECT_EQ(Id(2), Create(0x0201, "second"));
      EXPECT_EQ(Id(1), Create(0x0101, "another name"));
      EXPECT_TRUE(m_bExisted);
      EXPECT_EQ(0u, Find(0x0301));  // its slot has an object with another hash below the same prefix
      ASSERT_CODE(errOK, SetData(Id(1), 1, "data"));
      ASSERT_CODE(errOK, SetData(Id(1), 2, "more"));
      for (int nRound = 0; nRound < 2; ++nRound) {
        EXPECT_EQ(pMagic, ToHex(ReadFile("dt")).substr(0, std::strlen(pMagic)));
        EXPECT_EQ((std::tuple{"first", "second", "data", "more"}),
                  (std::tuple{NameOf(Id(1)), NameOf(Id(2)), DataOf(Id(1), 1), DataOf(Id(1), 2)}));
        EXPECT_EQ((std::tuple{Id(2), 0x0201ull}), (std::tuple{Find(0x0201), m_pDb->GetObjectHash(Id(2))}));
        EXPECT_EQ(FileSize("bt") + FileSize("id") + FileSize("dt"), m_pDb->GetSize());
        ASSERT_CODE(errOK, Open(!bCheckData));
      }
    }
  }
}

TEST_F(ObjectDbTest, StoresRecordsFieldByField) {
  ASSERT_CODE(errOK, Fresh(false));
  ASSERT_EQ(Id(1), Create(0x1122334455667788, "name"));
  ASSERT_CODE(errOK, SetData(Id(1), 0xAABBCCDD, "data!"));
  EXPECT_EQ(FromHex("504c44420c0000001d000000 8877665544332211 0500000000000000 04000000 0400 01 09 0d000000 01"),
            ReadFile("id"));
  // The magic, the name, the data masked with 27 9e 5c 3a, and its entry: key, offset, size 5 and room 5.
  EXPECT_EQ(FromHex("4f44424f 6e616d65 43ff285b06 ddccbbaa 08000000 05000580"), ReadFile("dt"));
}

TEST_F(ObjectDbTest, RefusesWrongArguments) {
  ASSERT_CODE(errOK, Fresh(false));
  ASSERT_EQ(Id(1), Create(1, "a"));
  tObjectId id = 0;
  std::uint32_t nSize = 0;
  const auto GetName = [&](tObjectId Asked, std::uint32_t nBuffer) {
    return m_pDb->GetObjectName(Asked, nullptr, nBuffer, &nSize, nullptr, nullptr, nullptr, nullptr);
  };
  const tObjectId kForeign = MakeObjectId(kNumber + 1, 1);
  EXPECT_CODE(errPARAMETER_INVALID, m_pDb->FindObject(0, &id));
  EXPECT_CODE(errPARAMETER_INVALID, m_pDb->FindObject(1, nullptr));
  EXPECT_CODE(errPARAMETER_INVALID, m_pDb->FindOrCreateObject(1, 0, 0, 0, nullptr, 0, false, &id, nullptr));
  EXPECT_CODE(errPARAMETER_INVALID, m_pDb->FindOrCreateObject(0, 0, 0, 0, "x", 1, false, &id, nullptr));
  Create(77, std::string(65536, 'x'));
  EXPECT_CODE(errSIZE_INVALID, m_nLast);
  EXPECT_CODE(errOBJECT_NOT_FOUND, GetName(kForeign, 0));
  EXPECT_CODE(errPARAMETER_INVALID, GetName(Id(1), 1));
  EXPECT_CODE(errNOT_FOUND, GetName(Id(2), 0));
  EXPECT_CODE(errNOT_FOUND, GetName(Id(0), 0));
  EXPECT_CODE(errPARAMETER_INVALID, m_pDb->GetObjectData(Id(1), nullptr, 0, nullptr, 1));
  EXPECT_CODE(errPARAMETER_INVALID, m_pDb->GetObjectData(Id(1), nullptr, 4, &nSize, 1));
  EXPECT_CODE(errNOT_FOUND, m_pDb->GetObjectData(Id(1), nullptr, 0, &nSize, 1));
  EXPECT_CODE(errPARAMETER_INVALID, m_pDb->SetObjectData(Id(1), &id, 0, 1));
  EXPECT_CODE(errSIZE_INVALID, m_pDb->SetObjectData(Id(1), &id, 0x80000000, 1));
  EXPECT_CODE(errOBJECT_NOT_FOUND, m_pDb->RemoveAllObjectData(kForeign));
}

TEST_F(ObjectDbTest, AnonymousObjectsAreReachedByIdAlone) {
  ASSERT_CODE(errOK, Fresh(true));
  for (const std::uint32_t nShortId : {1u, 2u}) {
    tObjectId id = 0;
    EXPECT_CODE(errOK, m_pDb->FindOrCreateObject(0, 0, 3, 4, nullptr, 0, false, &id, &m_bExisted));
    EXPECT_EQ((std::tuple{Id(nShortId), false, ""}), (std::tuple{id, m_bExisted, NameOf(id)}));
  }
  EXPECT_EQ(1044u, FileSize("bt"));
  EXPECT_CODE(errOK, m_pDb->FastConsistencyCheck());  // they have no name that could be damaged
}

TEST_F(ObjectDbTest, RewritesDataInPlaceWhileItFits) {
  ASSERT_CODE(errOK, Fresh(false));
  ASSERT_EQ(Id(1), Create(1, "n"));
  std::uint64_t nGrown = 0;
  for (const auto& [nSize, nGrows] : {std::pair{100u, 100u + 12}, {50u, 0u}, {100u, 0u}, {50u, 0u}, {120u, 120u}}) {
    const std::uint64_t nBefore = FileSize("dt");
    const std::string Data(nSize, static_cast<char>('a' + nGrown++));
    ASSERT_CODE(errOK, SetData(Id(1), 7, Data));
    EXPECT_EQ(nBefore + nGrows, FileSize("dt")) << nSize;  // the room of the first is kept
    EXPECT_EQ(Data, DataOf(Id(1), 7));
  }
  const Bytes Content = ReadFile("dt");
  EXPECT_EQ(Bytes(50), Bytes(Content.begin() + 5, Content.begin() + 55));  // the old block's stored bytes
}

TEST_F(ObjectDbTest, KeepsBlocksUnderManyKeysAndSizes) {
  for (const bool bCheckData : {false, true}) {
    ASSERT_CODE(errOK, Fresh(bCheckData));
    ASSERT_EQ(Id(1), Create(1, "n"));
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
    ASSERT_CODE(errOK, Open(bCheckData));
    for (std::uint32_t nKey = 0; nKey < 254; ++nKey) ASSERT_EQ(std::to_string(nKey), DataOf(Id(1), nKey));

    std::uint32_t nSize = 0;
    char Buffer[3] = {'?', '?', '?'};
    EXPECT_CODE(errOK, m_pDb->GetObjectData(Id(1), nullptr, 0, &nSize, 253));
    EXPECT_EQ(3u, nSize);
    EXPECT_CODE(errBUFFER_TOO_SMALL, m_pDb->GetObjectData(Id(1), Buffer, 2, &nSize, 253));
    EXPECT_EQ((std::pair{3u, '?'}), (std::pair{nSize, Buffer[0]}));
    EXPECT_CODE(errOK, m_pDb->RemoveAllObjectData(Id(1)));
    EXPECT_EQ((std::pair{Name(errNOT_FOUND), std::string("n")}), (std::pair{DataOf(Id(1), 0), NameOf(Id(1))}));
  }
}

TEST_F(ObjectDbTest, RefusesDamagedData) {
  ASSERT_CODE(errOK, Fresh(true));
  ASSERT_EQ(Id(1), Create(0x0101, "name"));
  ASSERT_CODE(errOK, SetData(Id(1), 1, "data"));
  // After the magic: name and CRC (4 to 11), block and CRC (12 to 19), array and CRC (20 to 35).
  const auto Flip = [this](std::size_t nOffset) {
    return Reopen("dt", [nOffset](Bytes& Content) { Content[nOffset] ^= 1; });
  };
  const std::string kBad = Name(errDATA_CORRUPTED);
  ASSERT_CODE(errOK, Flip(5));
  EXPECT_EQ((std::pair{kBad, std::string("data")}), (std::pair{NameOf(Id(1)), DataOf(Id(1), 1)}));
  EXPECT_EQ((std::vector{FailedCheck("ValidDataCrc(object_entry.nObjectHash, buffer.Get(), object_entry.nNameSize, "
                                     "buffer.Get() + object_entry.nNameSize)",
                                     errDATA_CORRUPTED)}),
            TakeTrace(300));
  ASSERT_CODE(errOK, Flip(5));
  ASSERT_CODE(errOK, Flip(13));
  std::uint32_t nSize = 0;
  EXPECT_CODE(errDATA_CORRUPTED, m_pDb->GetObjectData(Id(1), nullptr, 0, &nSize, 1));  // also for the size alone
  EXPECT_EQ((std::vector{FailedCheck("ValidDataCrc(nObjectId, readBuf, userDataSize, readBuf + userDataSize)",
                                     errDATA_CORRUPTED)}),
            TakeTrace(300));
  ASSERT_CODE(errOK, Flip(21));
  EXPECT_EQ((std::pair{kBad, std::string("name")}), (std::pair{DataOf(Id(1), 1), NameOf(Id(1))}));
  EXPECT_CODE(errDATA_CORRUPTED, SetData(Id(1), 1, "x"));
  ASSERT_CODE(errOK, Reopen("dt", [](Bytes& Content) { Content.resize(22); }));  // cut off
  EXPECT_EQ((std::pair{kBad, std::string("name")}), (std::pair{DataOf(Id(1), 1), NameOf(Id(1))}));
}

TEST_F(ObjectDbTest, ChecksLargeBlocksAgainstTheFile) {
  ASSERT_CODE(errOK, Fresh(false));
  ASSERT_EQ(Id(1), Create(0x0101, "n"));
  ASSERT_CODE(errOK, SetData(Id(1), 1, "data!"));
  for (const auto& [nOffset, pCheck] :
       {std::pair{0x7FFFFFFFu, "dataFileSize > pde->nDataOffset"}, {5u, "dataFileSize >= nDataSize"}}) {
    const std::uint32_t Fields[] = {nOffset, 0x70000000};
    ASSERT_CODE(errOK, Reopen("dt", [&](Bytes& Content) { std::memcpy(Content.data() + 4 + 1 + 5 + 4, Fields, 8); }));
    EXPECT_EQ(Name(errDATA_CORRUPTED), DataOf(Id(1), 1));
    EXPECT_EQ(FailedCheck(pCheck, errDATA_CORRUPTED), TakeTrace(300).back());
  }
}

// An entry that leads to no block: where no CRC tells, at least nothing else is overwritten.
TEST_F(ObjectDbTest, WritesBlocksOverBlocksAlone) {
  ASSERT_CODE(errOK, Fresh(false));
  ASSERT_EQ(Id(1), Create(0x0101, "n"));
  ASSERT_CODE(errOK, SetData(Id(1), 1, "data!"));
  for (const std::uint32_t nOffset : {0u, 3u, 30u}) {
    ASSERT_CODE(errOK, Reopen("dt", [&](Bytes& Content) { std::memcpy(Content.data() + 4 + 1 + 5 + 4, &nOffset, 4); }));
    const Bytes kBefore = ReadFile("dt");
    for (const char* const pData : {"other", "longer data"}) EXPECT_CODE(errDATA_CORRUPTED, SetData(Id(1), 1, pData));
    EXPECT_EQ(kBefore, ReadFile("dt"));
  }
}

// What a failed write left behind is stepped over, and does not look like damage later.
TEST_F(ObjectDbTest, GoesOnBehindStrayBytes) {
  ASSERT_CODE(errOK, Fresh(true));
  ASSERT_EQ(Id(1), Create(0x0101, "one"));
  std::filesystem::resize_file(Folder() / "dt", FileSize("dt") + 50);
  ASSERT_EQ(Id(2), Create(0x0201, "two"));
  EXPECT_EQ(FileSize("bt") + FileSize("id") + FileSize("dt"), m_pDb->GetSize());
  EXPECT_CODE(errOK, m_pDb->FastConsistencyCheck());
}

TEST_F(ObjectDbTest, ForcesItsWayThroughABrokenNode) {
  ASSERT_CODE(errOK, Fresh(true));
  ASSERT_EQ(Id(1), Create(0x0101, "one"));
  ASSERT_EQ(Id(2), Create(0x0201, "two"));
  ASSERT_EQ(Id(3), Create(0x0002, "three"));
  ASSERT_CODE(errOK, Reopen("bt", [](Bytes& Content) { Content[1044 + 4] = 0xFF; }));  // the node of the first two
  EXPECT_EQ(0u, Create(0x0101, "one"));
  EXPECT_CODE(errDATA_CORRUPTED, m_nLast);
  EXPECT_EQ(Id(4), Create(0x0101, "one", true));
  EXPECT_EQ((std::tuple{Id(4), 0ull, Id(3)}), (std::tuple{Find(0x0101), Find(0x0201), Find(0x0002)}));
  EXPECT_EQ(Id(5), Create(0x0101, "one", true));  // an object that is there is replaced
  EXPECT_EQ(Id(5), Find(0x0101));
}

// The disk fills up before each write of a change in turn: what was there stays, and the store goes on. In the checked
// form a slot whose CRC was written and whose value was not is damage, which a forced creation clears away.
TEST_F(ObjectDbTest, LosesNothingToAFullDisk) {
  for (const bool bCheckData : {false, true}) {
    bool bAllDone = false;
    for (std::uint64_t nSkip = 0; !bAllDone; ++nSkip) {
      ASSERT_CODE(errOK, Fresh(bCheckData));
      ASSERT_EQ(Id(1), Create(0x0101, "one"));
      ASSERT_CODE(errOK, SetData(Id(1), 1, "old"));
      FailCalls(SystemCall::WriteAt, ENOSPC, nSkip, UINT64_MAX);
      const bool bSet = Succeeded(SetData(Id(1), 1, "a longer block"));
      const bool bAdded = Succeeded(SetData(Id(1), 2, "2"));
      const bool bCreated = Create(0x0201, "two") != 0;
      EXPECT_CODE(bCreated ? errOK : errWRITE_FAILED, m_nLast);
      bAllDone = bSet && bAdded && bCreated;
      ResetSystem();
      ASSERT_CODE(errOK, Open(bCheckData));

      EXPECT_EQ("one", NameOf(Id(1)));
      const std::string Data = DataOf(Id(1), 1);
      EXPECT_TRUE(Data == "a longer block" || (Data == "old" && !bSet)) << Data << nSkip;
      const std::string Added = DataOf(Id(1), 2);
      EXPECT_TRUE(Added == "2" || (Added == Name(errNOT_FOUND) && !bAdded)) << Added << nSkip;
      tObjectId Two = Create(0x0201, "two");
      if (Two == 0) {
        EXPECT_TRUE(bCheckData && m_nLast == errDATA_CORRUPTED) << Name(m_nLast);
        Two = Create(0x0201, "two", true);
      }
      EXPECT_EQ((std::pair{std::string("two"), Two}), (std::pair{NameOf(Two), Find(0x0201)}));
    }
  }
}

}  // namespace
}  // namespace lumbra::test
