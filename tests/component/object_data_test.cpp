// Data of objects through the operation table: codes, outputs and bytes on disk.
#include "component/component_fixture.h"
#include "events/object_hash.h"

namespace lumbra::test {
namespace {

class ObjectDataTest : public ComponentTest {
 protected:
  ResultCode Set(std::uint64_t nId, std::uint32_t nTag, std::string_view Data) {
    return Call(&Ops::SetObjectData, nId, Data.data(), static_cast<std::uint32_t>(Data.size()), nTag);
  }
  // The data, or the code of the failure.
  std::string Get(std::uint64_t nId, std::uint32_t nTag) {
    std::string Buffer(200000, '?');
    std::uint32_t nSize = 0;
    const ResultCode nCode = Call(&Ops::GetObjectData, nId, Buffer.data(), 200000, &nSize, nTag);
    return Succeeded(nCode) ? Buffer.substr(0, nSize) : Name(nCode);
  }
  ResultCode Into(std::uint64_t nId, HostObject* pTarget) { return Call(&Ops::GetObjectDataInto, nId, pTarget, 7); }
  ResultCode SetFrom(std::uint64_t nId, HostObject* pSource) { return Call(&Ops::SetObjectDataFrom, nId, pSource, 7); }
  ResultCode Remove(std::uint64_t nId) { return Call(&Ops::RemoveAllObjectData, nId); }
};

// A store is written in the feature set that its data file has, and read in it, whatever the check mode.
TEST_F(ObjectDataTest, KeepsToTheFeatureSetOfItsFile) {
  // The block, and its entry of tag, offset and size, each with its CRC where the set has one.
  const std::tuple<std::string, const char*, const char*> kSets[] = {
      {"ODBD", "64617461", "07000000 16000000 04000480"},
      {"ODBO", "43ff285b", "07000000 16000000 04000480"},
      {"ODBQ", "43ff285b 58b2ebb6", "07000000 16000000 08000880"},
      {"ODBR", "43ff285b 58b2ebb6", "07000000 16000000 08000880 e4f0992e"},
      {"ODBS", "43ff285b 3dd5570e", "07000000 22000000 08000880 0ce1bbb4"}};
  for (const auto& [Magic, pBlock, pEntry] : kSets) {
    SCOPED_TRACE(Magic);
    OpenFresh(Magic == "ODBS" ? 1 : 0);  // there the names have CRCs
    RestartWith("g_objdt.dat", 0, Bytes(Magic.begin(), Magic.end()), 1);
    const auto nSize = static_cast<std::ptrdiff_t>(FileSize("g_objdt.dat"));
    Must(Set(1, 7, "data"));
    Restart(0);
    EXPECT_EQ("data", Get(1, 7));
    const Bytes Content = ReadFile("g_objdt.dat");
    EXPECT_EQ(ToHex(FromHex(pBlock + std::string(pEntry))), ToHex({Content.begin() + nSize, Content.end()}));
  }
}

TEST_F(ObjectDataTest, SavesAndLoadsHostObjects) {
  host::ByteBlob Loaded(Bytes{1, 2});
  for (const std::size_t nLength : {1u, 511u, 512u, 513u, 70000u, 0u}) {
    host::ByteBlob Saved(Bytes(nLength, 7));
    Must(SetFrom(1, Saved.Handle()));
    Must(Into(1, Loaded.Handle()));
    EXPECT_EQ(Saved.Content(), Loaded.Content());
  }
}

TEST_F(ObjectDataTest, ListsTheWayUp) {
  const std::uint64_t nFile = Find(5, u"C:\\Dir\\file");
  const std::uint64_t nDir = Find(5, u"C:\\Dir", 0, typeFolder);
  const std::uint64_t nRoot = Find(5, u"C:", 0, typeDriveRoot);
  const std::uint64_t nRootHash = ObjectHash(typeDriveRoot, u"C:", 4, 0, 0);
  host::IdContainer Lists;
  for (const std::uint64_t nStart : {nDir, nFile}) {  // a file empties what is there
    Must(Into(nStart, Lists.Handle()));
    EXPECT_EQ(Ids{nRoot}, Lists.Parents());
    EXPECT_EQ((Ids{ObjectHash(typeFolder, u"DIR", 6, nRootHash, 0), nRootHash}), Lists.Hashes());
  }
  Lists.Clear();
  Must(Into(nRoot + 1000, Lists.Handle()));
  EXPECT_EQ(Ids{0}, Lists.Hashes());  // it ends where an object cannot be read
}

TEST_F(ObjectDataTest, RefusesWhatIsElsewhere) {
  const std::uint64_t nId = Find(5, u"C:\\here");
  host::ByteBlob Blob(Bytes{1});
  for (const auto& [nWrong, nCode] : {std::pair{WithDatabase(nId, 200), errPARAMETER_INVALID},
                                      {WithDatabase(nId, 6), errSTORE_NOT_INITIALIZED},
                                      {nId + (1ull << 32), errOBJECT_NOT_FOUND},
                                      {nId + 1000, errNOT_FOUND}}) {
    AllAnswer(nCode, {{"getting", Call(&Ops::GetObjectData, nWrong, nullptr, 0, &m_nNamed, 1)},
                      {"setting", Set(nWrong, 1, "x")},
                      {"removing", Remove(nWrong)},
                      {"loading", Into(nWrong, Blob.Handle())},
                      {"saving", SetFrom(nWrong, Blob.Handle())}});
  }
}

TEST_F(ObjectDataTest, NothingChangesWhileWritesAreSuspended) {
  const std::uint64_t nId = Find(5, u"C:\\here");
  std::uint64_t nEvent = 0;
  host::ByteBlob Blob(Bytes{1});
  Must(Set(nId, 7, "data"));
  Must(Add(5, 5, 0, &nEvent));
  Must(m_Store.SetNumber(propWRITES_SUSPENDED, 1));
  AllAnswer(errREAD_ONLY, {{"an event", Add(5, 6)},
                           {"an event of a name", Add(m_nNamed, 6)},
                           {"an update", Call(&Ops::UpdateEvent, nEvent, "", 16)},
                           {"an opening", InitDb(2)},
                           {"one by name", InitNamed(u"m", &m_nNamed)},
                           {"a limit", SetLimit(5, 1, 1)},
                           {"clearing", ClearDb(5)},
                           {"an object", FindObject(5, u"C:\\new", 1, nullptr)},
                           {"data", Set(nId, 7, "x")},
                           {"data of a host object", SetFrom(nId, Blob.Handle())},
                           {"removing data", Remove(nId)},
                           {"compaction", Call(&Ops::Compact, 0)}});
  Holds(5, 5, 5);
  EXPECT_EQ("data", Get(nId, 7));
  Step("a search", FindObject(5, u"C:\\new", 0, nullptr)).Is(errOBJECT_NOT_FOUND);
  Must(m_Store.SetNumber(propWRITES_SUSPENDED, 0));
  Must(Add(5, 6));
}

}  // namespace
}  // namespace lumbra::test
