// Data of objects, enumeration and compaction through the operation table: codes, outputs, bytes on disk and traces, in
// both check modes and over every feature set.
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "component/component_fixture.h"
#include "events/object_hash.h"

namespace lumbra::test {
namespace {

class ObjectDataTest : public ComponentTest {
 protected:
  // A fresh store with a numbered and a named database.
  void Start(std::uint32_t nCheckMode) {
    m_Store = host::Store();
    std::filesystem::remove_all(Folder());
    std::filesystem::create_directory(Folder());
    ASSERT_CODE(errOK, Open(nCheckMode));
    ASSERT_CODE(errOK, Call(&Ops::InitDB, 5, 16));
    m_nNamed = OpenNamed(u"named");
  }

  ResultCode Set(std::uint64_t nId, std::uint32_t nTag, std::string_view Data) {
    return Call(&Ops::SetObjectData, nId, Data.empty() ? nullptr : Data.data(), static_cast<std::uint32_t>(Data.size()),
                nTag);
  }

  // The data, or the code of the failure.
  std::string Get(std::uint64_t nId, std::uint32_t nTag) {
    std::string Buffer(200000, '?');
    std::uint32_t nSize = 0;
    m_nLast = Call(&Ops::GetObjectData, nId, Buffer.data(), static_cast<std::uint32_t>(Buffer.size()), &nSize, nTag);
    return Succeeded(m_nLast) ? Buffer.substr(0, nSize) : Name(m_nLast);
  }

  ResultCode Into(std::uint64_t nId, HostObject* pTarget, std::uint32_t nTag = 7) {
    return Call(&Ops::GetObjectDataInto, nId, pTarget, nTag);
  }
  ResultCode SetFrom(std::uint64_t nId, HostObject* pSource, std::uint32_t nTag = 7) {
    return Call(&Ops::SetObjectDataFrom, nId, pSource, nTag);
  }

  // What was traced by the operations themselves.
  Lines Outcomes() {
    Lines Found;
    for (const std::string& Line : TakeTrace()) {
      if (Line.find("not found in cache") == std::string::npos) Found.push_back(Line);
    }
    return Found;
  }

  static std::string Format(const char* pFormat, auto... Values) {
    char Text[200];
    std::snprintf(Text, sizeof(Text), pFormat, Values...);
    return Text;
  }

  std::uint32_t m_nNamed = 0;
};

TEST_F(ObjectDataTest, ReadsWhatWasWritten) {
  for (const std::uint32_t nCheckMode : {0u, 1u}) {
    Start(nCheckMode);
    for (const std::uint32_t nDb : {0u, 5u, m_nNamed}) {
      const std::uint64_t nId = Find(nDb, u"C:\\with\\data");
      const unsigned long long nLocalId = WithoutDatabase(nId);
      for (const std::size_t nLength : {1u, 100u, 50u, 4093u, 4097u, 0x7FFBu, 0x7FFFu, 0x8000u}) {
        const std::string Data(nLength, static_cast<char>('a' + nLength % 26));
        TakeTrace();
        ASSERT_CODE(errOK, Set(nId, 0x80000001, Data));
        EXPECT_EQ(Lines{Format("500 SetObjectData(%llX,%p,%zu,-2147483647) = errOK (0x00000000)", nLocalId,
                               static_cast<const void*>(Data.data()), nLength)},
                  Outcomes());
        // One byte too few: the size is told, and nothing is written.
        std::string Buffer(nLength, '?');
        auto nSize = static_cast<std::uint32_t>(nLength);
        const ResultCode nSmall = Call(&Ops::GetObjectData, nId, Buffer.data(), nSize - 1, &nSize, 0x80000001);
        EXPECT_CODE(nLength == 1 ? errOK : errBUFFER_TOO_SMALL, nSmall);  // no buffer at all asks for the size
        EXPECT_EQ((std::pair{std::string(nLength, '?'), nLength}), (std::pair{Buffer, std::size_t{nSize}}));
        EXPECT_CODE(errOK, Call(&Ops::GetObjectData, nId, Buffer.data(), nSize, nullptr, 0x80000001));
        EXPECT_EQ(Data, Buffer);
        EXPECT_EQ(Format("500 GetObjectData(%llX,%p,%u,(nil),-2147483647) = errOK (0x00000000)", nLocalId,
                         static_cast<void*>(Buffer.data()), nSize),
                  Outcomes().back());
      }
      EXPECT_EQ(Name(errNOT_FOUND), Get(nId, 8));
      ASSERT_CODE(errOK, Set(nId, 8, "eight"));
      EXPECT_CODE(errPARAMETER_INVALID, Call(&Ops::SetObjectData, nId, "x", 0, 8));
      EXPECT_CODE(errPARAMETER_INVALID, Call(&Ops::GetObjectData, nId, nullptr, 0, nullptr, 8));
      EXPECT_EQ("eight", Get(nId, 8));
      TakeTrace();
      EXPECT_CODE(errOK, Call(&Ops::RemoveAllObjectData, nId));
      EXPECT_EQ(Lines{Format("500 Lumbra::RemoveAllObjectData(%llX) = errOK (0x00000000)", nLocalId)}, Outcomes());
      EXPECT_EQ((std::pair{Name(errNOT_FOUND), std::u16string(u"C:\\with\\data")}),
                (std::pair{Get(nId, 8), NameOf(nId)}));
    }
    ASSERT_CODE(errOK, Set(kHostObjectAlias, 1, "of the host"));
    EXPECT_EQ("of the host", Get(kHostObjectAlias, 1));
  }
}

// Bytes on disk, from a description of the format and not from the code under test.
class HandMade {
 public:
  explicit HandMade(std::uint32_t nFeatures) : m_nFeatures(nFeatures) {}

  static void Put(Bytes* pTo, std::uint64_t nValue, int nBytes) {
    for (int i = 0; i < nBytes; ++i) pTo->push_back(static_cast<std::uint8_t>(nValue >> (8 * i)));
  }
  static std::uint32_t Crc(std::uint32_t nValue, const Bytes& Data) {
    for (const std::uint8_t n : Data) {
      nValue ^= n;
      for (int i = 0; i < 8; ++i) nValue = (nValue >> 1) ^ (nValue % 2 != 0 ? 0xEDB88320 : 0);
    }
    return nValue;
  }

  Bytes WithCrc(std::uint32_t nBit, std::uint32_t nSeed, Bytes Data) const {
    if ((m_nFeatures & nBit) != 0) Put(&Data, Crc((m_nFeatures & 8) != 0 ? nSeed : 0, Data), 4);
    return Data;
  }
  Bytes Block(std::uint32_t nSeed, const std::string& Text) const {
    Bytes Data = WithCrc(2, nSeed, Bytes(Text.begin(), Text.end()));
    constexpr std::uint8_t kMask[] = {0x27, 0x9E, 0x5C, 0x3A};
    for (std::size_t i = 0; i < Data.size() && (m_nFeatures & 1) != 0; ++i) Data[i] ^= kMask[i % 4];
    return Data;
  }
  Bytes Entry(std::uint32_t nSeed, std::uint32_t nKey, std::size_t nOffset, std::size_t nSize) const {
    Bytes Data;
    Put(&Data, nKey, 4);
    Put(&Data, nOffset, 4);
    Put(&Data, 0x80000000 | (nSize << 16) | nSize, 4);
    return WithCrc(4, nSeed, Data);
  }

 private:
  std::uint32_t m_nFeatures;
};

void Append(Bytes* pTo, const Bytes& More) {
  pTo->insert(pTo->end(), More.begin(), More.end());
}

TEST_F(ObjectDataTest, WritesItsFormat) {
  for (const std::uint32_t nCheckMode : {0u, 1u}) {
    Start(nCheckMode);
    const std::uint64_t nId = Find(0, u"/plain", 1, typeName);
    const std::size_t nEnd = FileSize("g_objdt.dat");
    ASSERT_CODE(errOK, Set(nId, 0xAABBCCDD, "data!"));
    const HandMade Format(nCheckMode == 0 ? 1 : 15);
    const auto nSeed = static_cast<std::uint32_t>(nId);
    const Bytes Block = Format.Block(nSeed, "data!");
    Bytes Expected = ReadFile("g_objdt.dat");
    Expected.resize(nEnd);
    Append(&Expected, Block);
    Append(&Expected, Format.Entry(nSeed, 0xAABBCCDD, nEnd, Block.size()));
    EXPECT_EQ(ToHex(Expected), ToHex(ReadFile("g_objdt.dat")));
  }
}

TEST_F(ObjectDataTest, OpensEveryFeatureSet) {
  constexpr std::uint64_t kHash = 0x1122334455667788;
  const std::pair<std::uint32_t, const char*> kSets[] = {
      {0, "ODBD"}, {1, "ODBO"}, {3, "ODBQ"}, {7, "ODBR"}, {15, "ODBS"}};
  for (const auto& [nFeatures, pMagic] : kSets) {
    for (const std::uint32_t nCheckMode : {0u, 1u}) {
      m_Store = host::Store();
      std::filesystem::remove_all(Folder());
      const HandMade Format(nFeatures);
      Bytes Data(pMagic, pMagic + 4);
      Append(&Data, Format.WithCrc(8, static_cast<std::uint32_t>(kHash), {'n', 'a', 'm', 'e'}));
      const std::size_t nBlock = Data.size();
      const Bytes Block = Format.Block(1, "some data");
      Append(&Data, Block);
      const std::size_t nEntries = Data.size();
      Append(&Data, Format.Entry(1, 42, nBlock, Block.size()));
      Bytes Ids = FromHex("504c4442 0c000000 1d000000");
      HandMade::Put(&Ids, kHash, 8);
      HandMade::Put(&Ids, 0, 8);
      HandMade::Put(&Ids, 4, 4);  // the name: where,
      HandMade::Put(&Ids, 4, 2);  // and how long
      HandMade::Put(&Ids, 1, 1);  // in UTF-8
      HandMade::Put(&Ids, typeName, 1);
      HandMade::Put(&Ids, nEntries, 4);
      HandMade::Put(&Ids, 1, 1);
      Bytes Tree = FromHex("4f444254 10000000 1004000000000000");
      Tree.resize(1040);
      Tree[16 + 4 * 0x88] = 1;
      WriteFile("g_objdt.dat", Data);
      WriteFile("g_objid.dat", Ids);
      WriteFile("g_objbt.dat", Tree);

      for (int nRound = 0; nRound < 2; ++nRound) {
        ASSERT_CODE(errOK, Open(nCheckMode));
        EXPECT_EQ(0u, Number(propCORRUPTED)) << pMagic;
        EXPECT_EQ(u"name", NameOf(1)) << pMagic;
        EXPECT_EQ("some data", Get(1, 42)) << pMagic;
        if (nRound == 0) {
          ASSERT_CODE(errOK, Set(1, 43, "more"));
        } else {
          EXPECT_EQ("more", Get(1, 43));
        }
      }
      const Bytes Written = ReadFile("g_objdt.dat");
      EXPECT_EQ(pMagic, std::string(Written.begin(), Written.begin() + 4));
      m_Store = host::Store();
      Patch("g_objdt.dat", nBlock + 2, {'?'});
      ASSERT_CODE(errOK, Open(nCheckMode));
      EXPECT_EQ(nFeatures >= 2, Get(1, 42) == Name(errDATA_CORRUPTED)) << pMagic;
    }
  }
}

TEST_F(ObjectDataTest, SavesAndLoadsHostObjects) {
  for (const std::uint32_t nCheckMode : {0u, 1u}) {
    Start(nCheckMode);
    const std::uint64_t nId = Find(5, u"C:\\object");
    for (const std::size_t nLength : {1u, 511u, 512u, 513u, 70000u}) {
      host::ByteBlob Saved(Bytes(nLength, static_cast<std::uint8_t>(nLength)));
      host::ByteBlob Loaded;
      TakeTrace();
      EXPECT_CODE(errOK, SetFrom(nId, Saved.Handle()));
      EXPECT_CODE(errOK, Into(nId, Loaded.Handle()));
      EXPECT_EQ(Name(errNOT_FOUND), Get(kHostObjectAlias, 7));
      EXPECT_EQ(1u, Outcomes().size());  // of the Get alone
      EXPECT_EQ(Saved.Content(), Loaded.Content());
    }
    host::ByteBlob Empty;
    host::ByteBlob Loaded(Bytes{1, 2});
    EXPECT_CODE(errOK, SetFrom(nId, Empty.Handle()));
    EXPECT_CODE(errOK, Into(nId, Loaded.Handle()));
    EXPECT_TRUE(Loaded.Content().empty());
    EXPECT_CODE(errNOT_FOUND, Into(nId, Loaded.Handle(), 8));
    EXPECT_CODE(errPARAMETER_INVALID, Into(nId, nullptr));
    EXPECT_CODE(errPARAMETER_INVALID, SetFrom(nId, nullptr));
    host::IdContainer WrongKind;
    EXPECT_CODE(errINTERFACE_NOT_SUPPORTED, SetFrom(nId, WrongKind.Handle()));
  }
}

// A host object whose size is never settled: it is asked twice, not for ever; and one that claims too much.
struct Restless {
  HostObject Handle{&kOperations, nullptr};
  std::vector<std::uint32_t> Rooms;  // the sizes of the buffers that it was given
  bool bClaims = false;

  static const host::SavableOperations kOperations;
};
const host::SavableOperations Restless::kOperations = {
    .Base = {nullptr,
             [](HostObject*, std::uint32_t nType) -> std::uint32_t {
               return nType == host::kSavableType;
             }},
    .Save = [](HostObject* pObject, void*, std::uint32_t nBufferSize, std::uint32_t* pnNeeded) -> ResultCode {
      auto* const pSelf = reinterpret_cast<Restless*>(pObject);
      pSelf->Rooms.push_back(nBufferSize);
      *pnNeeded = nBufferSize + 1;
      return pSelf->bClaims ? errOK : errBUFFER_TOO_SMALL;
    },
    .Load = nullptr,
};

TEST_F(ObjectDataTest, AsksARestlessObjectTwice) {
  Start(0);
  const std::uint64_t nId = Find(5, u"C:\\object");
  Restless Source;
  EXPECT_CODE(errBUFFER_TOO_SMALL, SetFrom(nId, &Source.Handle));
  EXPECT_EQ((std::vector<std::uint32_t>{512, 513}), Source.Rooms);
  Source.bClaims = true;
  EXPECT_CODE(errRESULT_INVALID, SetFrom(nId, &Source.Handle));
  EXPECT_EQ(Name(errNOT_FOUND), Get(nId, 7));
}

TEST_F(ObjectDataTest, ListsTheWayUp) {
  using Ids = std::vector<std::uint64_t>;
  Start(0);
  const std::uint64_t nFile = Find(5, u"C:\\Dir\\Sub\\file");
  const std::uint64_t nSub = Find(5, u"C:\\Dir\\Sub", 0, typeFolder);
  const std::uint64_t nDir = Find(5, u"C:\\Dir", 0, typeFolder);
  const std::uint64_t nRoot = Find(5, u"C:", 0, typeDriveRoot);
  const std::uint64_t nRootHash = ObjectHash(typeDriveRoot, u"C:", 4, 0, 0);
  const std::uint64_t nDirHash = ObjectHash(typeFolder, u"DIR", 6, nRootHash, 0);
  const std::uint64_t nSubHash = ObjectHash(typeFolder, u"SUB", 6, nDirHash, 0);
  host::IdContainer Lists;
  for (const std::uint64_t nStart : {nSub, nFile}) {  // the file empties what is there
    EXPECT_CODE(errOK, Into(nStart, Lists.Handle()));
    EXPECT_EQ((std::pair{Ids{nDir, nRoot}, Ids{nSubHash, nDirHash, nRootHash}}),
              (std::pair{Lists.Parents(), Lists.Hashes()}));
  }
  FailAllocation(0);
  EXPECT_CODE(errOUT_OF_MEMORY, Into(nSub, host::IdContainer().Handle()));
  EXPECT_TRUE(AllocationFailed());
  Lists.Clear();
  EXPECT_CODE(errOK, Into(nRoot + 1000, Lists.Handle()));
  EXPECT_EQ((std::pair{Ids{}, Ids{0}}), (std::pair{Lists.Parents(), Lists.Hashes()}));
  EXPECT_EQ(0u, Number(propCORRUPTED));
  m_Store = host::Store();
  Patch("05/00000001_objid.dat", 12 + 8, {2, 0, 0, 0, 1});  // the root below its own folder: a circle
  ASSERT_CODE(errOK, Open());
  ASSERT_CODE(errOK, Call(&Ops::InitDB, 5, 16));
  EXPECT_CODE(errDATA_CORRUPTED, Into(nSub, Lists.Handle()));
  EXPECT_EQ(1u, Number(propCORRUPTED));
}

TEST_F(ObjectDataTest, RefusesWhatIsElsewhere) {
  Start(0);
  const std::uint64_t nId = Find(5, u"C:\\here");
  const std::pair<std::uint64_t, ResultCode> kCases[] = {{WithDatabase(nId, 200), errPARAMETER_INVALID},
                                                         {WithDatabase(nId, 6), errSTORE_NOT_INITIALIZED},
                                                         {nId + (1ull << 32), errOBJECT_NOT_FOUND},
                                                         {nId + 1000, errNOT_FOUND}};
  for (const auto& [nWrong, nCode] : kCases) {
    std::uint32_t nSize = 99;
    char Buffer[4] = {'?'};
    host::ByteBlob Blob(Bytes{1});
    TakeTrace();
    EXPECT_CODE(nCode, Call(&Ops::GetObjectData, nWrong, Buffer, 4, &nSize, 1));
    EXPECT_CODE(nCode, Set(nWrong, 1, "x"));
    EXPECT_CODE(nCode, Call(&Ops::RemoveAllObjectData, nWrong));
    EXPECT_EQ(nCode == errPARAMETER_INVALID ? 0u : 3u, Outcomes().size());
    EXPECT_CODE(nCode, Into(nWrong, Blob.Handle()));
    EXPECT_CODE(nCode, SetFrom(nWrong, Blob.Handle()));
    EXPECT_EQ((std::pair{99u, '?'}), (std::pair{nSize, Buffer[0]}));
  }
  std::uint64_t nNext = 99;
  EXPECT_CODE(errNOT_IMPLEMENTED, Call(&Ops::EnumFirstObject, 5, &nNext));
  EXPECT_CODE(errNOT_IMPLEMENTED, Call(&Ops::EnumFirstObject, 0, &nNext));
  EXPECT_CODE(errPARAMETER_INVALID, Call(&Ops::EnumFirstObject, 5, nullptr));
  EXPECT_CODE(errPARAMETER_INVALID, Call(&Ops::EnumFirstObject, 200, &nNext));
  EXPECT_CODE(errSTORE_NOT_INITIALIZED, Call(&Ops::EnumFirstObject, 6, &nNext));
  EXPECT_CODE(errNOT_IMPLEMENTED, Call(&Ops::EnumNextObject, nId, &nNext));
  EXPECT_CODE(errPARAMETER_INVALID, Call(&Ops::EnumNextObject, nId + (1ull << 32), &nNext));
  EXPECT_EQ(99u, nNext);
}

TEST_F(ObjectDataTest, ChangesNothingWhileWritesAreSuspended) {
  Start(0);
  const std::uint64_t nId = Find(5, u"C:\\here");
  ASSERT_CODE(errOK, Set(nId, 7, "data"));
  ASSERT_CODE(errOK, m_Store.SetNumber(propWRITES_SUSPENDED, 1));
  host::ByteBlob Blob(Bytes{1});
  TakeTrace();
  EXPECT_CODE(errREAD_ONLY, Set(nId, 7, "x"));
  EXPECT_CODE(errREAD_ONLY, SetFrom(nId, Blob.Handle()));
  EXPECT_CODE(errREAD_ONLY, Call(&Ops::RemoveAllObjectData, nId));
  EXPECT_CODE(errREAD_ONLY, Call(&Ops::Compact, 0));
  EXPECT_TRUE(TakeTrace().empty());
  EXPECT_EQ("data", Get(nId, 7));
  EXPECT_CODE(errOK, Into(nId, Blob.Handle()));
  EXPECT_EQ((Bytes{'d', 'a', 't', 'a'}), Blob.Content());
}

TEST_F(ObjectDataTest, DamageMarksTheStore) {
  for (int nOperation = 0; nOperation < 5; ++nOperation) {
    Start(1);
    const std::uint64_t nId = Find(5, u"C:\\damaged");
    ASSERT_CODE(errOK, Set(nId, 7, "data"));
    ASSERT_CODE(errOK, Set(Find(5, u"C:\\sound"), 7, "sound"));
    Bytes Content = ReadFile("05/00000001_objdt.dat");
    Content[Content.size() - 16 - 9 - 9 - 16] ^= 1;  // in the first object's entries, before name, block, entries
    WriteFile("05/00000001_objdt.dat", Content);
    host::ByteBlob Blob(Bytes{1});
    const ResultCode nCode = nOperation == 0   ? Call(&Ops::GetObjectData, nId, nullptr, 0, &m_nNamed, 7)
                             : nOperation == 1 ? Set(nId, 7, "x")
                             : nOperation == 2 ? Into(nId, Blob.Handle())
                             : nOperation == 3 ? SetFrom(nId, Blob.Handle())
                                               : Call(&Ops::RemoveAllObjectData, nId);
    EXPECT_CODE(nOperation < 4 ? errDATA_CORRUPTED : errOK, nCode);
    EXPECT_EQ(nOperation < 4 ? 1u : 0u, Number(propCORRUPTED)) << nOperation;
    EXPECT_EQ(nOperation < 4 ? 'C' : 0, ReadFile("g_db_id.dat")[54]);
    EXPECT_EQ((std::pair{std::u16string(u"C:\\damaged"), std::string("sound")}),
              (std::pair{NameOf(nId), Get(Find(5, u"C:\\sound"), 7)}));
  }
}

TEST_F(ObjectDataTest, CompactsBesideTheLiveStore) {
  for (const std::uint32_t nCheckMode : {0u, 1u}) {
    Start(nCheckMode);
    std::vector<std::uint64_t> Objects;
    for (char16_t c = u'a'; c <= u'z'; ++c) {
      Objects.push_back(Find(0, (u"C:\\" + std::u16string(1, c)).c_str()));
      for (const char* const pData : {"short", "a longer block", "the longest block of all"}) {
        ASSERT_CODE(errOK, Set(Objects.back(), 1, pData));
      }
    }
    for (const char* const pName : {"g_objidcompacted.dat", "g_objdtcompacted.dat"}) WriteFile(pName, Bytes(9999));
    TakeTrace();
    EXPECT_CODE(errPARAMETER_INVALID, Call(&Ops::Compact, 5));
    EXPECT_TRUE(TakeTrace().empty());
    EXPECT_CODE(errOK, Call(&Ops::Compact, 0));
    EXPECT_EQ((Lines{"400 About to begin compacting global database",
                     "400 Compact finished successfully (without renaming)"}),
              TakeTrace());
    EXPECT_LT(FileSize("g_objdtcompacted.dat"), FileSize("g_objdt.dat"));
    EXPECT_EQ(FileSize("g_objid.dat"), FileSize("g_objidcompacted.dat"));
    FailCalls(SystemCall::WriteAt, ENOSPC, 20);
    EXPECT_CODE(errWRITE_FAILED, Call(&Ops::Compact, 0));
    EXPECT_EQ("300 Compact finished with error errWRITE_FAILED (0x800000CB)", TakeTrace().back());
    {
      const auto pHeld = OpenFile(u"g_objdtcompacted.dat");
      EXPECT_CODE(errWRITE_FAILED, Call(&Ops::Compact, 0));
      EXPECT_TRUE(TakeTrace().empty());
    }
    EXPECT_CODE(errOK, Call(&Ops::Compact, 0));
    const std::uint64_t nAfter = Find(0, u"C:\\after");  // the live store goes on
    EXPECT_EQ(u"C:\\after", NameOf(nAfter));

    EXPECT_CODE(errOK, Call(&Ops::Compact, 0));
    m_Store = host::Store();
    std::filesystem::rename(Folder() / "g_objidcompacted.dat", Folder() / "g_objid.dat");
    std::filesystem::rename(Folder() / "g_objdtcompacted.dat", Folder() / "g_objdt.dat");
    ASSERT_CODE(errOK, Open(nCheckMode));
    EXPECT_EQ(0u, Number(propCORRUPTED));
    for (std::size_t i = 0; i < Objects.size(); ++i) {
      const std::u16string Path = u"C:\\" + std::u16string(1, static_cast<char16_t>(u'a' + i));
      EXPECT_EQ(Objects[i], Find(0, Path.c_str(), 0));
      EXPECT_EQ((std::pair{Path, std::string("the longest block of all")}),
                (std::pair{NameOf(Objects[i]), Get(Objects[i], 1)}));
    }
  }
}

// Without a check mode and with the record at hand: the entries and the block are read, the block is written, and the
// thread's priority is looked at.
TEST_F(ObjectDataTest, CostsNoMoreThanItMust) {
  Start(0);
  const std::uint64_t nId = Find(5, u"C:\\object");
  const std::string kData(100, 'd');
  char Buffer[100];
  ASSERT_CODE(errOK, Set(nId, 1, kData));
  ResetSystem();
  ASSERT_CODE(errOK, Call(&Ops::GetObjectData, nId, Buffer, 100, nullptr, 1));
  EXPECT_EQ((std::tuple{2ul, 1ul, 3ul}),
            (std::tuple{CallsOf(SystemCall::ReadAt), CallsOf(SystemCall::Priority), AllCalls()}));
  ResetSystem();
  ASSERT_CODE(errOK, Set(nId, 1, kData));
  EXPECT_EQ((std::tuple{1ul, 1ul, 1ul, 3ul}), (std::tuple{CallsOf(SystemCall::ReadAt), CallsOf(SystemCall::WriteAt),
                                                          CallsOf(SystemCall::Priority), AllCalls()}));
}

}  // namespace
}  // namespace lumbra::test
