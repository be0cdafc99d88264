// The object store: files, objects, names and data, in both configurations and over every kind of file.
#include <cerrno>
#include <cstring>

#include "objects/objdb_fixture.h"
#include "support/system_calls.h"

namespace lumbra::test {
namespace {

TEST_F(ObjectDbTest, CreatesItsFilesByConfiguration) {
  ASSERT_CODE(errOK, Open(true));
  EXPECT_EQ("4f444253", ToHex(ReadFile("dt")));
  EXPECT_EQ(1044u, FileSize("bt"));
  EXPECT_EQ("504c44500c00000021000000", ToHex(ReadFile("id")));
  EXPECT_EQ(1044u + 4 + 12, m_pDb->GetSize());
  ASSERT_CODE(errOK, Open(false));  // what is there keeps its kind
  EXPECT_EQ(1044u + 4 + 12, m_pDb->GetSize());
  Close();
  for (const char* const pName : {"bt", "id", "dt"}) std::filesystem::remove(Folder() / pName);
  ASSERT_CODE(errOK, Open(false));
  EXPECT_EQ("4f44424f", ToHex(ReadFile("dt")));
  EXPECT_EQ(1040u, FileSize("bt"));
  EXPECT_EQ("504c44420c0000001d000000", ToHex(ReadFile("id")));
  Close();
  ObjectFiles Absent{OpenFile(u"bt"), nullptr, OpenFile(u"dt")};
  EXPECT_CODE(errPARAMETER_INVALID, ObjectDB(false).Open(1, Absent, TreeHead::Small));
  EXPECT_NE(nullptr, Absent.pTree);
}

TEST_F(ObjectDbTest, FindsWhatItCreated) {
  for (const bool bCheckData : {false, true}) {
    Close();
    for (const char* const pName : {"bt", "id", "dt"}) std::filesystem::remove(Folder() / pName);
    ASSERT_CODE(errOK, Open(bCheckData));
    EXPECT_EQ(0u, Find(0x0101));
    EXPECT_CODE(errOBJECT_NOT_FOUND, m_nLast);
    EXPECT_EQ(Id(1), Create(0x0101, "first"));
    EXPECT_FALSE(m_bExisted);
    EXPECT_EQ(Id(2), Create(0x0201, "second"));
    EXPECT_EQ(Id(1), Create(0x0101, "another name"));
    EXPECT_TRUE(m_bExisted);
    EXPECT_EQ(0u, Find(0x0301));  // its slot has an object with another hash below the same prefix
    EXPECT_CODE(errOBJECT_NOT_FOUND, m_nLast);
    for (int nRound = 0; nRound < 2; ++nRound) {
      EXPECT_EQ(Id(2), Find(0x0201));
      EXPECT_EQ("first", NameOf(Id(1)));
      EXPECT_EQ("second", NameOf(Id(2)));
      EXPECT_EQ(0x0201u, m_pDb->GetObjectHash(Id(2)));
      const std::uint64_t nFiles = FileSize("bt") + FileSize("id") + FileSize("dt");
      EXPECT_EQ(nFiles, m_pDb->GetSize());
      ASSERT_CODE(errOK, Open(bCheckData));
    }
    std::uint64_t nParent = 0;
    std::uint64_t nHash = 0;
    std::uint32_t nSize = 0;
    std::uint8_t nFlags = 0;
    std::uint8_t nType = 0;
    EXPECT_CODE(errOK, m_pDb->GetObjectName(Id(2), nullptr, 0, &nSize, &nParent, &nFlags, &nType, &nHash));
    EXPECT_EQ((std::tuple{6u, 5ull, kFlags, kType, 0x0201ull}), (std::tuple{nSize, nParent, nFlags, nType, nHash}));
  }
}

TEST_F(ObjectDbTest, StoresRecordsFieldByField) {
  ASSERT_CODE(errOK, Open(false));
  ASSERT_EQ(Id(1), Create(0x1122334455667788, "name"));
  ASSERT_CODE(errOK, SetData(Id(1), 0xAABBCCDD, {'d', 'a', 't', 'a', '!'}));
  EXPECT_EQ(
      "504c44420c0000001d000000"
      "8877665544332211"
      "0500000000000000"
      "04000000"
      "0400"
      "01"
      "09"
      "0d000000"
      "01",
      ToHex(ReadFile("id")));
  EXPECT_EQ(
      "4f44424f"    // ODBO
      "6e616d65"    // the name
      "43ff285b06"  // the data, masked with 27 9e 5c 3a
      "ddccbbaa"
      "08000000"
      "05000580",  // its entry: key, offset, size 5 and room 5
      ToHex(ReadFile("dt")));
}

TEST_F(ObjectDbTest, RefusesWrongArguments) {
  ASSERT_CODE(errOK, Open(false));
  ASSERT_EQ(Id(1), Create(1, "a"));
  tObjectId id = 0;
  const tObjectId kForeign = MakeObjectId(kNumber + 1, 1);
  std::uint8_t nByte = 0;
  std::uint32_t nSize = 0;
  EXPECT_CODE(errPARAMETER_INVALID, m_pDb->FindObject(0, &id));
  EXPECT_CODE(errPARAMETER_INVALID, m_pDb->FindObject(1, nullptr));
  EXPECT_CODE(errPARAMETER_INVALID, m_pDb->FindOrCreateObject(1, 0, 0, 0, nullptr, 0, false, &id, nullptr));
  EXPECT_CODE(errPARAMETER_INVALID, m_pDb->FindOrCreateObject(0, 0, 0, 0, "x", 1, false, &id, nullptr));
  const std::string kTooLong(65536, 'x');
  EXPECT_EQ(0u, Create(77, kTooLong));
  EXPECT_CODE(errSIZE_INVALID, m_nLast);
  EXPECT_CODE(errOBJECT_NOT_FOUND,
              m_pDb->GetObjectName(kForeign, nullptr, 0, nullptr, nullptr, nullptr, nullptr, nullptr));
  EXPECT_CODE(errPARAMETER_INVALID,
              m_pDb->GetObjectName(Id(1), nullptr, 1, nullptr, nullptr, nullptr, nullptr, nullptr));
  EXPECT_CODE(errNOT_FOUND, m_pDb->GetObjectName(Id(2), nullptr, 0, &nSize, nullptr, nullptr, nullptr, nullptr));
  EXPECT_CODE(errNOT_FOUND, m_pDb->GetObjectName(Id(0), nullptr, 0, &nSize, nullptr, nullptr, nullptr, nullptr));
  EXPECT_CODE(errPARAMETER_INVALID, m_pDb->GetObjectData(Id(1), nullptr, 0, nullptr, 1));
  EXPECT_CODE(errPARAMETER_INVALID, m_pDb->GetObjectData(Id(1), nullptr, 4, &nSize, 1));
  EXPECT_CODE(errNOT_FOUND, m_pDb->GetObjectData(Id(1), nullptr, 0, &nSize, 1));
  EXPECT_CODE(errPARAMETER_INVALID, m_pDb->SetObjectData(Id(1), &nByte, 0, 1));
  EXPECT_CODE(errSIZE_INVALID, m_pDb->SetObjectData(Id(1), &nByte, 0x80000000, 1));
  EXPECT_CODE(errOBJECT_NOT_FOUND, m_pDb->RemoveAllObjectData(kForeign));
  EXPECT_EQ(0u, m_pDb->GetObjectHash(kForeign));
}

TEST_F(ObjectDbTest, DeliversWhatFitsOfAName) {
  for (const bool bCheckData : {false, true}) {
    ASSERT_CODE(errOK, Open(bCheckData));
    const tObjectId id = Create(0x99 + bCheckData, "0123456789");
    char Buffer[5] = "????";
    std::uint32_t nSize = 0;
    EXPECT_CODE(errBUFFER_TOO_SMALL, m_pDb->GetObjectName(id, Buffer, 4, &nSize, nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(10u, nSize);
    EXPECT_STREQ("0123", Buffer);
  }
}

TEST_F(ObjectDbTest, AnonymousObjectsAreReachedByIdAlone) {
  ASSERT_CODE(errOK, Open(false));
  tObjectId id = 0;
  EXPECT_CODE(errOK, m_pDb->FindOrCreateObject(0, 0, 3, 4, nullptr, 0, false, &id, &m_bExisted));
  EXPECT_EQ(Id(1), id);
  EXPECT_CODE(errOK, m_pDb->FindOrCreateObject(0, 0, 3, 4, nullptr, 0, false, &id, &m_bExisted));
  EXPECT_EQ(Id(2), id);
  EXPECT_EQ("", NameOf(Id(1)));
  EXPECT_EQ(1040u, FileSize("bt"));
}

// ---- Data -------------------------------------------------------------------------------------------------

TEST_F(ObjectDbTest, RewritesDataInPlaceWhileItFits) {
  ASSERT_CODE(errOK, Open(false));
  ASSERT_EQ(Id(1), Create(1, "n"));
  ASSERT_CODE(errOK, SetData(Id(1), 7, Bytes(100, 'a')));
  const std::uint64_t nFirst = FileSize("dt");
  ASSERT_CODE(errOK, SetData(Id(1), 7, Bytes(50, 'b')));
  EXPECT_EQ(nFirst, FileSize("dt"));
  EXPECT_EQ(std::string(50, 'b'), DataOf(Id(1), 7));
  ASSERT_CODE(errOK, SetData(Id(1), 7, Bytes(100, 'c')));  // the room of the first is kept
  EXPECT_EQ(nFirst, FileSize("dt"));
  ASSERT_CODE(errOK, SetData(Id(1), 7, Bytes(50, 'd')));
  ASSERT_CODE(errOK, SetData(Id(1), 7, Bytes(120, 'e')));
  EXPECT_EQ(nFirst + 120, FileSize("dt"));
  EXPECT_EQ(std::string(120, 'e'), DataOf(Id(1), 7));
  const Bytes Content = ReadFile("dt");
  EXPECT_EQ(Bytes(50, 0), Bytes(Content.begin() + 5, Content.begin() + 55));  // the old block's stored bytes
}

TEST_F(ObjectDbTest, KeepsBlocksUnderManyKeysAndSizes) {
  for (const bool bCheckData : {false, true}) {
    Close();
    for (const char* const pName : {"bt", "id", "dt"}) std::filesystem::remove(Folder() / pName);
    ASSERT_CODE(errOK, Open(bCheckData));
    ASSERT_EQ(Id(1), Create(1, "n"));
    ASSERT_EQ(Id(2), Create(2, "m"));
    const std::uint32_t kSizes[] = {1, 4, 4091, 4096, 4097, 0x7FFB, 0x7FFC, 0x7FFF, 0x8000, 100000};
    for (const std::uint32_t nSize : kSizes) {
      for (const std::uint32_t nOther : kSizes) {
        ASSERT_CODE(errOK, SetData(Id(1), 5, Bytes(nSize, 'x')));
        ASSERT_CODE(errOK, SetData(Id(1), 5, Bytes(nOther, 'y')));
        ASSERT_EQ(std::string(nOther, 'y'), DataOf(Id(1), 5)) << nSize;
      }
    }
    for (std::uint32_t nKey = 0; nKey < 255; ++nKey) {
      ASSERT_CODE(errOK, SetData(Id(2), nKey, {static_cast<std::uint8_t>(nKey)})) << nKey;
    }
    EXPECT_CODE(errOUT_OF_SPACE, SetData(Id(2), 255, {1}));
    ASSERT_CODE(errOK, SetData(Id(2), 254, {'z'}));
    ASSERT_CODE(errOK, Open(bCheckData));
    for (std::uint32_t nKey = 0; nKey < 254; ++nKey)
      ASSERT_EQ(std::string(1, static_cast<char>(nKey)), DataOf(Id(2), nKey));
    EXPECT_EQ("z", DataOf(Id(2), 254));
    EXPECT_CODE(errOK, m_pDb->RemoveAllObjectData(Id(2)));
    EXPECT_EQ(Name(errNOT_FOUND), DataOf(Id(2), 0));
    EXPECT_EQ("m", NameOf(Id(2)));
  }
}

TEST_F(ObjectDbTest, TellsTheSizeOfData) {
  for (const bool bCheckData : {false, true}) {
    ASSERT_CODE(errOK, Open(bCheckData));
    const tObjectId id = Create(0x55 + bCheckData, "n");
    ASSERT_CODE(errOK, SetData(id, 7, Bytes(10, 'a')));
    std::uint32_t nSize = 0;
    EXPECT_CODE(errOK, m_pDb->GetObjectData(id, nullptr, 0, &nSize, 7));
    EXPECT_EQ(10u, nSize);
    char Buffer[10] = {'?'};
    EXPECT_CODE(errBUFFER_TOO_SMALL, m_pDb->GetObjectData(id, Buffer, 9, &nSize, 7));
    EXPECT_EQ(10u, nSize);
    EXPECT_EQ('?', Buffer[0]);
    EXPECT_CODE(errOK, m_pDb->GetObjectData(id, Buffer, 10, nullptr, 7));
    EXPECT_EQ('a', Buffer[9]);
  }
}

// The magic of a data file decides how it is read and written, whatever the configuration.
TEST_F(ObjectDbTest, ServesEveryFeatureSet) {
  for (const char* const pMagic : {"4f444244", "4f44424f", "4f444251", "4f444252", "4f444253"}) {
    for (const bool bCheckData : {false, true}) {
      Close();
      for (const char* const pName : {"bt", "id"}) std::filesystem::remove(Folder() / pName);
      WriteFile("dt", FromHex(pMagic));
      ASSERT_CODE(errOK, Open(bCheckData));
      ASSERT_EQ(Id(1), Create(0x0101, "name"));
      ASSERT_CODE(errOK, SetData(Id(1), 1, {'d', 'a', 't', 'a'}));
      ASSERT_CODE(errOK, SetData(Id(1), 2, {'m', 'o', 'r', 'e'}));
      ASSERT_CODE(errOK, Open(!bCheckData));
      EXPECT_EQ(pMagic, ToHex(ReadFile("dt")).substr(0, 8));
      EXPECT_EQ("name", NameOf(Id(1)));
      EXPECT_EQ("data", DataOf(Id(1), 1));
      EXPECT_EQ("more", DataOf(Id(1), 2));
      EXPECT_EQ(Id(1), Find(0x0101));
    }
  }
}

// ---- Damage and failures ----------------------------------------------------------------------------------

TEST_F(ObjectDbTest, RefusesDamagedData) {
  ASSERT_CODE(errOK, Open(true));
  ASSERT_EQ(Id(1), Create(0x0101, "name"));
  ASSERT_CODE(errOK, SetData(Id(1), 1, {'d', 'a', 't', 'a'}));
  Close();
  // After the magic: the name and its CRC (4 to 11), the block and its CRC (12 to 19), the array and its CRC
  // (20 to 35).
  const auto kGood = ReadFile("dt");
  const auto With = [&](std::size_t nOffset) {
    Bytes Changed = kGood;
    Changed[nOffset] ^= 1;
    WriteFile("dt", Changed);
    ASSERT_CODE(errOK, Open(true));
    TakeTrace();
  };
  With(5);
  EXPECT_EQ(Name(errDATA_CORRUPTED), NameOf(Id(1)));
  EXPECT_EQ(FailedCheck("ValidDataCrc(object_entry.nObjectHash, buffer.Get(), object_entry.nNameSize, buffer.Get() + "
                        "object_entry.nNameSize)",
                        errDATA_CORRUPTED),
            TakeTrace(300).back());
  EXPECT_EQ("data", DataOf(Id(1), 1));
  With(13);
  std::uint32_t nSize = 0;
  EXPECT_CODE(errDATA_CORRUPTED, m_pDb->GetObjectData(Id(1), nullptr, 0, &nSize, 1));  // also for the size alone
  EXPECT_EQ(FailedCheck("ValidDataCrc(nObjectId, readBuf, userDataSize, readBuf + userDataSize)", errDATA_CORRUPTED),
            TakeTrace(300).back());
  EXPECT_EQ("name", NameOf(Id(1)));
  With(21);
  EXPECT_EQ(Name(errDATA_CORRUPTED), DataOf(Id(1), 1));
  EXPECT_CODE(errDATA_CORRUPTED, SetData(Id(1), 1, {1}));
  EXPECT_EQ(2u, TakeTrace(300).size());
  EXPECT_EQ("name", NameOf(Id(1)));

  Close();
  WriteFile("dt", Bytes(kGood.begin(), kGood.begin() + 22));  // a data file that was cut off
  ASSERT_CODE(errOK, Open(true));
  EXPECT_EQ(Name(errDATA_CORRUPTED), DataOf(Id(1), 1));
  EXPECT_EQ("name", NameOf(Id(1)));
}

TEST_F(ObjectDbTest, ChecksLargeBlocksAgainstTheFile) {
  ASSERT_CODE(errOK, Open(false));
  ASSERT_EQ(Id(1), Create(0x0101, "n"));
  ASSERT_CODE(errOK, SetData(Id(1), 1, Bytes(5, 'a')));
  Close();
  const std::size_t nEntry = 4 + 1 + 5;
  const auto With = [&](std::uint32_t nOffset, std::uint32_t nSize) {
    const std::uint32_t Fields[] = {nOffset, nSize};
    Bytes Raw(8);
    std::memcpy(Raw.data(), Fields, 8);
    Patch("dt", nEntry + 4, Raw);
    ASSERT_CODE(errOK, Open(false));
    TakeTrace();
    EXPECT_EQ(Name(errDATA_CORRUPTED), DataOf(Id(1), 1));
    Close();
  };
  With(0x7FFFFFFF, 0x70000000);
  EXPECT_EQ(FailedCheck("dataFileSize > pde->nDataOffset", errDATA_CORRUPTED), TakeTrace(300).back());
  With(5, 0x70000000);
  EXPECT_EQ(FailedCheck("dataFileSize >= nDataSize", errDATA_CORRUPTED), TakeTrace(300).back());
}

TEST_F(ObjectDbTest, ForcesItsWayThroughABrokenNode) {
  ASSERT_CODE(errOK, Open(true));
  ASSERT_EQ(Id(1), Create(0x0101, "one"));
  ASSERT_EQ(Id(2), Create(0x0201, "two"));
  ASSERT_EQ(Id(3), Create(0x0002, "three"));
  Close();
  Patch("bt", 1044 + 4, {0xFF});  // the node that holds the first two
  ASSERT_CODE(errOK, Open(true));
  EXPECT_EQ(0u, Create(0x0101, "one"));
  EXPECT_CODE(errDATA_CORRUPTED, m_nLast);
  EXPECT_EQ(Id(4), Create(0x0101, "one", true));
  EXPECT_EQ(Id(4), Find(0x0101));
  EXPECT_EQ(0u, Find(0x0201));  // left to the repair
  EXPECT_EQ(Id(3), Find(0x0002));
  EXPECT_EQ(Id(5), Create(0x0101, "one", true));  // an object that is there is replaced
  EXPECT_EQ(Id(5), Find(0x0101));
}

// The disk fills up before each write of a change in turn: what was there stays, and the store goes on. In
// the checked form a slot whose CRC was written and whose value was not is damage, which a forced creation
// clears away.
TEST_F(ObjectDbTest, LosesNothingToAFullDisk) {
  for (const bool bCheckData : {false, true}) {
    bool bAllDone = false;
    for (std::uint64_t nSkip = 0; !bAllDone; ++nSkip) {
      Close();
      for (const char* const pName : {"bt", "id", "dt"}) {
        std::filesystem::remove(Folder() / pName);
      }
      ASSERT_CODE(errOK, Open(bCheckData));
      ASSERT_EQ(Id(1), Create(0x0101, "one"));
      ASSERT_CODE(errOK, SetData(Id(1), 1, {'o', 'l', 'd'}));
      FailCalls(SystemCall::WriteAt, ENOSPC, nSkip, UINT64_MAX);
      const bool bSet = Succeeded(SetData(Id(1), 1, Bytes(20, 'n')));
      const bool bAdded = Succeeded(SetData(Id(1), 2, {'2'}));
      const bool bCreated = Create(0x0201, "two") != 0;
      const ResultCode nCreated = m_nLast;
      bAllDone = bSet && bAdded && bCreated;
      ResetSystem();
      ASSERT_CODE(errOK, Open(bCheckData));

      EXPECT_EQ("one", NameOf(Id(1)));
      const std::string Data = DataOf(Id(1), 1);
      EXPECT_TRUE(Data == std::string(20, 'n') || (Data == "old" && !bSet)) << Data << nSkip;
      const std::string Added = DataOf(Id(1), 2);
      EXPECT_TRUE(Added == "2" || (Added == Name(errNOT_FOUND) && !bAdded)) << Added << nSkip;
      EXPECT_CODE(bCreated ? errOK : errWRITE_FAILED, nCreated);
      tObjectId Two = Create(0x0201, "two");
      if (Two == 0) {
        EXPECT_TRUE(bCheckData);
        EXPECT_CODE(errDATA_CORRUPTED, m_nLast);
        Two = Create(0x0201, "two", true);
      }
      EXPECT_EQ("two", NameOf(Two));
      EXPECT_EQ(Two, Find(0x0201));
    }
  }
}

}  // namespace
}  // namespace lumbra::test
