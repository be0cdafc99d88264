// Data of objects, enumeration and compaction through the operation table: codes, outputs, bytes on disk and traces, in
// both check modes and over every feature set.
#include <map>

#include "component/component_fixture.h"
#include "events/object_hash.h"
#include "objects/crc32.h"

namespace lumbra::test {
namespace {

// Bytes on disk, from a description of the format and not from the code under test, but for the CRC.
Bytes LittleEndian(std::uint64_t nValue) {
  Bytes Data;
  for (int i = 0; i < 32; i += 8) Data.push_back(static_cast<std::uint8_t>(nValue >> i));
  return Data;
}
Bytes operator+(Bytes Data, const Bytes& More) {
  Data.insert(Data.end(), More.begin(), More.end());
  return Data;
}

struct HandMade {
  std::uint32_t nFeatures;
  std::uint64_t nSeed;

  Bytes WithCrc(std::uint32_t nBit, const Bytes& Data) const {
    const auto nStart = static_cast<std::uint32_t>((nFeatures & 8) != 0 ? nSeed : 0);
    return (nFeatures & nBit) == 0 ? Data : Data + LittleEndian(Crc32(nStart, Data.data(), Data.size()));
  }
  Bytes Block(const std::string& Text) const {
    Bytes Data = WithCrc(2, Bytes(Text.begin(), Text.end()));
    constexpr std::uint8_t kMask[] = {0x27, 0x9E, 0x5C, 0x3A};
    for (std::size_t i = 0; i < Data.size() && (nFeatures & 1) != 0; ++i) Data[i] ^= kMask[i % 4];
    return Data;
  }
  // A block behind nOffset bytes, and its entry.
  Bytes BlockAndEntry(std::uint32_t nKey, std::size_t nOffset, const std::string& Text) const {
    const Bytes Data = Block(Text);
    const std::size_t nSizes = 0x80000000 | (Data.size() << 16) | Data.size();
    return Data + WithCrc(4, LittleEndian(nKey) + LittleEndian(nOffset) + LittleEndian(nSizes));
  }
};

class ObjectDataTest : public ComponentTest {
 protected:
  ResultCode Set(std::uint64_t nId, std::uint32_t nTag, std::string_view Data) {
    return Call(&Ops::SetObjectData, nId, Data.data(), static_cast<std::uint32_t>(Data.size()), nTag);
  }

  // The data, or the code of the failure.
  std::string Get(std::uint64_t nId, std::uint32_t nTag) {
    std::string Buffer(200000, '?');
    std::uint32_t nSize = 0;
    m_nLast = Call(&Ops::GetObjectData, nId, Buffer.data(), static_cast<std::uint32_t>(Buffer.size()), &nSize, nTag);
    return Succeeded(m_nLast) ? Buffer.substr(0, nSize) : Name(m_nLast);
  }

  ResultCode Into(std::uint64_t nId, HostObject* pTarget) { return Call(&Ops::GetObjectDataInto, nId, pTarget, 7); }
  ResultCode SetFrom(std::uint64_t nId, HostObject* pSource) { return Call(&Ops::SetObjectDataFrom, nId, pSource, 7); }
  ResultCode Remove(std::uint64_t nId) { return Call(&Ops::RemoveAllObjectData, nId); }
  ResultCode Compact() { return Call(&Ops::Compact, 0); }

  // Writes a block; the data file then ends as it does when it is made by hand.
  void ExpectFormat(std::uint32_t nFeatures) {
    const std::uint64_t nId = Find(0, u"/plain", 1, typeName);
    const Bytes Before = ReadFile("g_objdt.dat");
    ASSERT_CODE(errOK, Set(nId, 0xAABBCCDD, "data!"));
    const Bytes Expected = Before + HandMade{nFeatures, nId}.BlockAndEntry(0xAABBCCDD, Before.size(), "data!");
    EXPECT_EQ(ToHex(Expected), ToHex(ReadFile("g_objdt.dat"))) << nFeatures;
  }

  // What was traced by the operations themselves.
  Lines Outcomes() {
    Lines Found = TakeTrace();
    std::erase_if(Found, [](const std::string& Line) { return Line.find("not found in cache") != std::string::npos; });
    return Found;
  }

  // The trace line of a call that went well.
  static std::string Line(const char* pFormat, auto... Values) {
    char Text[200];
    std::snprintf(Text, sizeof(Text), pFormat, Values...);
    return std::string("500 ") + Text + " = errOK (0x00000000)";
  }
};

TEST_F(ObjectDataTest, ReadsWhatWasWritten) {
  constexpr std::uint32_t kTag = 0x80000001;
  for (const std::uint32_t nCheckMode : {0u, 1u}) {
    OpenFresh(nCheckMode);
    for (const std::uint32_t nDb : {0u, 5u, m_nNamed}) {
      const std::uint64_t nId = Find(nDb, u"C:\\with\\data");
      const unsigned long long nLocalId = WithoutDatabase(nId);
      for (const std::uint32_t nLength : {1u, 100u, 50u, 4093u, 4096u, 4097u, 0x7FFBu, 0x7FFFu, 0x8000u}) {
        const std::string Data(nLength, static_cast<char>('a' + nLength % 26));
        TakeTrace();
        ASSERT_CODE(errOK, Set(nId, kTag, Data));
        EXPECT_EQ(Lines{Line("SetObjectData(%llX,%p,%u,-2147483647)", nLocalId, Data.data(), nLength)}, Outcomes());
        // One byte too few: the size is told, and nothing is written. But no buffer at all asks for the size.
        std::string Buffer(nLength, '?');
        std::uint32_t nSize = 0;
        Expect({nLength == 1 ? errOK : errBUFFER_TOO_SMALL, std::string(nLength, '?'), nLength},
               {Call(&Ops::GetObjectData, nId, Buffer.data(), nLength - 1, &nSize, kTag), Buffer, nSize});
        Expect(
            {errOK, Data, Line("GetObjectData(%llX,%p,%u,%p,-2147483647)", nLocalId, Buffer.data(), nLength, nullptr)},
            {Call(&Ops::GetObjectData, nId, Buffer.data(), nLength, nullptr, kTag), Buffer, Outcomes().back()});
      }
      Expect({Name(errNOT_FOUND), errOK, errPARAMETER_INVALID, errPARAMETER_INVALID, "eight"},
             {Get(nId, 8), Set(nId, 8, "eight"), Call(&Ops::SetObjectData, nId, "x", 0, 8),
              Call(&Ops::GetObjectData, nId, nullptr, 0, nullptr, 8), Get(nId, 8)});
      TakeTrace();
      Expect({errOK, Lines{Line("Lumbra::RemoveAllObjectData(%llX)", nLocalId)}, Name(errNOT_FOUND), u"C:\\with\\data"},
             {Remove(nId), Outcomes(), Get(nId, 8), NameOf(nId)});
    }
    ExpectFormat(nCheckMode == 0 ? 1 : 15);
    Expect({errOK, "of the host"}, {Set(kHostObjectAlias, 1, "of the host"), Get(kHostObjectAlias, 1)});
  }
}

TEST_F(ObjectDataTest, ReadsAndWritesEveryFeatureSet) {
  const std::map<std::uint32_t, std::string> kSets{{0, "ODBD"}, {1, "ODBO"}, {3, "ODBQ"}, {7, "ODBR"}, {15, "ODBS"}};
  for (const auto& [nFeatures, Magic] : kSets) {
    for (const std::uint32_t nCheckMode : {0u, 1u}) {
      StartAnew();
      const Bytes Head =
          Bytes(Magic.begin(), Magic.end()) + HandMade{nFeatures, 0x1122334455667788}.WithCrc(8, {'n', 'a', 'm', 'e'});
      const HandMade Format{nFeatures, 1};
      const Bytes Data = Head + Format.BlockAndEntry(42, Head.size(), "some data");
      WriteFile("g_objdt.dat", Data);
      // The hash, no parent, the name's place, its length, in UTF-8 and of a plain type, and where its one entry is.
      WriteFile("g_objid.dat",
                FromHex("504c4442 0c000000 1d000000 8877665544332211 0000000000000000 04000000 0400 01 20") +
                    LittleEndian(Head.size() + Format.Block("some data").size()) + Bytes{1});
      Bytes Tree = FromHex("4f444254 10000000 1004000000000000") + Bytes(1024);
      Tree[16 + 4 * 0x88] = 1;
      WriteFile("g_objbt.dat", Tree);
      for (const std::string& More : {Name(errNOT_FOUND), std::string("more")}) {
        Expect({Magic, errOK, 0u, u"name", "some data", More, errOK},
               {Magic, Open(nCheckMode), Number(propCORRUPTED), NameOf(1), Get(1, 42), Get(1, 43), Set(1, 43, "more")});
      }
      ExpectFormat(nFeatures);
      ASSERT_CODE(errOK, OpenPatched("g_objdt.dat", Head.size() + 2, {'?'}, nCheckMode));
      EXPECT_EQ(nFeatures >= 2, Get(1, 42) == Name(errDATA_CORRUPTED)) << Magic;
    }
  }
}

// A host object whose size is never settled: it is asked twice, not for ever; and one that claims too much.
struct Restless {
  static std::uint32_t IsOfType(HostObject*, std::uint32_t nType) { return nType == host::kSavableType; }
  static ResultCode Save(HostObject* pObject, void*, std::uint32_t nBufferSize, std::uint32_t* pnNeeded) {
    auto* const pSelf = reinterpret_cast<Restless*>(pObject);
    pSelf->Rooms.push_back(nBufferSize);
    *pnNeeded = nBufferSize + 1;
    return pSelf->bClaims ? errOK : errBUFFER_TOO_SMALL;
  }
  static constexpr host::SavableOperations kOperations{{nullptr, &IsOfType}, &Save, nullptr};

  HostObject Handle{&kOperations, nullptr};
  std::vector<std::uint32_t> Rooms;  // the sizes of the buffers that it was given
  bool bClaims = false;
};

TEST_F(ObjectDataTest, SavesAndLoadsHostObjects) {
  for (const std::uint32_t nCheckMode : {0u, 1u}) {
    OpenFresh(nCheckMode);
    const std::uint64_t nId = Find(5, u"C:\\object");
    Restless Source;
    Expect({errBUFFER_TOO_SMALL, Ids{512, 513}}, {SetFrom(nId, &Source.Handle), Source.Rooms});
    Source.bClaims = true;
    Expect({errRESULT_INVALID, Name(errNOT_FOUND)}, {SetFrom(nId, &Source.Handle), Get(nId, 7)});
    host::ByteBlob Loaded(Bytes{1, 2});
    for (const std::size_t nLength : {1u, 511u, 512u, 513u, 70000u, 0u}) {
      host::ByteBlob Saved(Bytes(nLength, static_cast<std::uint8_t>(nLength)));
      TakeTrace();
      Expect({nLength, errOK, errOK, Name(errNOT_FOUND)},
             {nLength, SetFrom(nId, Saved.Handle()), Into(nId, Loaded.Handle()), Get(kHostObjectAlias, 7)});
      EXPECT_EQ(1u, Outcomes().size());  // of the Get alone
      EXPECT_EQ(Saved.Content(), Loaded.Content());
    }
    Expect({errNOT_FOUND, errPARAMETER_INVALID, errPARAMETER_INVALID, errINTERFACE_NOT_SUPPORTED},
           {Call(&Ops::GetObjectDataInto, nId, Loaded.Handle(), 8), Into(nId, nullptr), SetFrom(nId, nullptr),
            SetFrom(nId, host::IdContainer().Handle())});
  }
}

TEST_F(ObjectDataTest, ListsTheWayUp) {
  const std::uint64_t nFile = Find(5, u"C:\\Dir\\Sub\\file");
  const std::uint64_t nSub = Find(5, u"C:\\Dir\\Sub", 0, typeFolder);
  const Ids kParents{Find(5, u"C:\\Dir", 0, typeFolder), Find(5, u"C:", 0, typeDriveRoot)};
  const std::uint64_t nRootHash = ObjectHash(typeDriveRoot, u"C:", 4, 0, 0);
  const std::uint64_t nDirHash = ObjectHash(typeFolder, u"DIR", 6, nRootHash, 0);
  const Ids kHashes{ObjectHash(typeFolder, u"SUB", 6, nDirHash, 0), nDirHash, nRootHash};
  host::IdContainer Lists;
  for (const std::uint64_t nStart : {nSub, nFile})  // the file empties what is there
    Expect({errOK, kParents, kHashes}, {Into(nStart, Lists.Handle()), Lists.Parents(), Lists.Hashes()});
  FailAllocation(0);
  const ResultCode nRefused = Into(nSub, host::IdContainer().Handle());
  EXPECT_CODE(errOUT_OF_MEMORY, nRefused);
  EXPECT_TRUE(AllocationFailed());
  Lists.Clear();
  Expect({errOK, Ids{}, Ids{0}, 0u},
         {Into(kParents[1] + 1000, Lists.Handle()), Lists.Parents(), Lists.Hashes(), Number(propCORRUPTED)});
  // The root below its own folder: a circle.
  ASSERT_CODE(errOK, OpenPatched("05/00000001_objid.dat", 12 + 8, {2, 0, 0, 0, 1}, 0));
  Expect({errOK, errDATA_CORRUPTED, 1u}, {InitDb(5), Into(nSub, Lists.Handle()), Number(propCORRUPTED)});
}

TEST_F(ObjectDataTest, RefusesWhatIsElsewhere) {
  const std::uint64_t nId = Find(5, u"C:\\here");
  const std::uint64_t nElsewhere = nId + (1ull << 32);
  host::ByteBlob Blob(Bytes{1});
  for (const auto& [nWrong, nCode] : {std::pair{WithDatabase(nId, 200), errPARAMETER_INVALID},
                                      {WithDatabase(nId, 6), errSTORE_NOT_INITIALIZED},
                                      {nElsewhere, errOBJECT_NOT_FOUND},
                                      {nId + 1000, errNOT_FOUND}}) {
    std::uint32_t nSize = 99;
    char Buffer[4] = {'?'};
    TakeTrace();
    Expect({nCode, nCode, nCode, nCode, nCode, 99u, '?'},
           {Call(&Ops::GetObjectData, nWrong, Buffer, 4, &nSize, 1), Set(nWrong, 1, "x"), Remove(nWrong),
            Into(nWrong, Blob.Handle()), SetFrom(nWrong, Blob.Handle()), nSize, Buffer[0]});
    EXPECT_EQ(nCode == errPARAMETER_INVALID ? 0u : 3u, Outcomes().size()) << Name(nCode);  // of the first three
  }
  std::uint64_t nNext = 99;
  Expect({errNOT_IMPLEMENTED, errNOT_IMPLEMENTED, errPARAMETER_INVALID, errPARAMETER_INVALID, errSTORE_NOT_INITIALIZED,
          errNOT_IMPLEMENTED, errPARAMETER_INVALID, 99u},
         {Call(&Ops::EnumFirstObject, 5, &nNext), Call(&Ops::EnumFirstObject, 0, &nNext),
          Call(&Ops::EnumFirstObject, 5, nullptr), Call(&Ops::EnumFirstObject, 200, &nNext),
          Call(&Ops::EnumFirstObject, 6, &nNext), Call(&Ops::EnumNextObject, nId, &nNext),
          Call(&Ops::EnumNextObject, nElsewhere, &nNext), nNext});
}

TEST_F(ObjectDataTest, NothingChangesWhileWritesAreSuspended) {
  const std::uint64_t nId = Find(5, u"C:\\here");
  std::uint64_t nEvent = 0;
  host::ByteBlob Blob(Bytes{1});
  Expect({errOK, errOK, errOK},
         {Set(nId, 7, "data"), Add(5, 5, 0, &nEvent), m_Store.SetNumber(propWRITES_SUSPENDED, 1)});
  TakeTrace();
  EXPECT_EQ(Lines(10, Name(errREAD_ONLY)),
            Answers({Add(5, 6), Add(m_nNamed, 6), Call(&Ops::UpdateEvent, nEvent, "", 16), InitDb(2), SetLimit(5, 1, 1),
                     ClearDb(5), Set(nId, 7, "x"), SetFrom(nId, Blob.Handle()), Remove(nId), Compact()}));
  EXPECT_EQ((Lines{"600 Lumbra::AddEvent Database - 5", "600 Lumbra::AddEvent Database - 30"}), TakeTrace());
  // The output is untouched.
  Expect({99u, errREAD_ONLY, 99u, errREAD_ONLY, 0u, errOBJECT_NOT_FOUND},
         {OpenNamed(u"m"), m_nLast, Find(5, u"C:\\new"), m_nLast, Find(5, u"C:\\new", 0), m_nLast});
  Expect({Ids{5}, 1u, "data", errOK, Bytes{'d', 'a', 't', 'a'}},
         {Times(5, 0, 1), Records(5), Get(nId, 7), Into(nId, Blob.Handle()), Blob.Content()});
  Expect({errOK, errOK}, {m_Store.SetNumber(propWRITES_SUSPENDED, 0), Add(5, 6)});
}

TEST_F(ObjectDataTest, DamageMarksTheStore) {
  for (std::uint32_t nOperation = 0; nOperation < 5; ++nOperation) {
    OpenFresh(1);
    const std::uint64_t nId = Find(5, u"C:\\damaged");
    Expect({errOK, errOK}, {Set(nId, 7, "data"), Set(Find(5, u"C:\\sound"), 7, "sound")});
    // The key in the first object's entries, before name, block, entries.
    const std::size_t nKey = ReadFile("05/00000001_objdt.dat").size() - 16 - 9 - 9 - 16;
    ASSERT_CODE(errOK, OpenPatched("05/00000001_objdt.dat", nKey, {6}, 1));
    ASSERT_CODE(errOK, InitDb(5));
    host::ByteBlob Blob(Bytes{1});
    const ResultCode nCode = nOperation == 0   ? Call(&Ops::GetObjectData, nId, nullptr, 0, &m_nNamed, 7)
                             : nOperation == 1 ? Set(nId, 7, "x")
                             : nOperation == 2 ? Into(nId, Blob.Handle())
                             : nOperation == 3 ? SetFrom(nId, Blob.Handle())
                                               : Remove(nId);
    const bool bMet = nOperation < 4;
    Expect({nOperation, bMet ? errDATA_CORRUPTED : errOK, bMet ? 1u : 0u, bMet ? 67u : 0u, u"C:\\damaged", "sound"},
           {nOperation, nCode, Number(propCORRUPTED), std::uint32_t{ReadFile("g_db_id.dat")[54]}, NameOf(nId),
            Get(Find(5, u"C:\\sound"), 7)});
  }
}

TEST_F(ObjectDataTest, CompactsBesideTheLiveStore) {
  for (const std::uint32_t nCheckMode : {0u, 1u}) {
    OpenFresh(nCheckMode);
    std::map<std::u16string, std::uint64_t> Objects;
    for (std::uint64_t i = 0; i < 26; ++i) {
      const std::u16string Path = u"C:\\" + Letter(i);
      Objects[Path] = Find(0, Path);
      for (const char* const pData : {"short", "a longer block", "the longest block of all"})
        ASSERT_CODE(errOK, Set(Objects[Path], 1, pData));
    }
    for (const char* const pName : {"g_objidcompacted.dat", "g_objdtcompacted.dat"}) WriteFile(pName, Bytes(9999));
    TakeTrace();
    Expect({errPARAMETER_INVALID, errOK}, {Call(&Ops::Compact, 5), Compact()});
    EXPECT_EQ((Lines{"400 About to begin compacting global database",
                     "400 Compact finished successfully (without renaming)"}),
              TakeTrace());
    EXPECT_LT(FileSize("g_objdtcompacted.dat"), FileSize("g_objdt.dat"));
    EXPECT_EQ(FileSize("g_objid.dat"), FileSize("g_objidcompacted.dat"));
    FailCalls(SystemCall::WriteAt, os::kDiskFull, 20);
    EXPECT_CODE(errWRITE_FAILED, Compact());
    EXPECT_EQ("300 Compact finished with error errWRITE_FAILED (0x800000CB)", TakeTrace().back());
    auto pHeld = OpenFile(u"g_objdtcompacted.dat");
    Expect({errWRITE_FAILED, Lines()}, {Compact(), TakeTrace()});
    pHeld.reset();
    // The live store goes on.
    Expect({errOK, u"C:\\after", errOK}, {Compact(), NameOf(Find(0, u"C:\\after")), Compact()});
    m_Store = host::Store();
    std::filesystem::rename(Folder() / "g_objidcompacted.dat", Folder() / "g_objid.dat");
    std::filesystem::rename(Folder() / "g_objdtcompacted.dat", Folder() / "g_objdt.dat");
    Expect({errOK, 0u}, {Open(nCheckMode), Number(propCORRUPTED)});
    for (const auto& [Path, nId] : Objects)
      Expect({nId, Path, "the longest block of all"}, {Find(0, Path, 0), NameOf(nId), Get(nId, 1)});
  }
}

}  // namespace
}  // namespace lumbra::test
