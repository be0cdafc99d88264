// Object names: hashes, paths that come back as they went in, roots, links and parents.
#include <cstring>

#include "events/object_hash.h"
#include "events/path_root.h"
#include "events/segment_fixture.h"

namespace lumbra::test {
namespace {

const std::u16string kVolume = u"\\\\?\\Volume{12345678-1234-1234-1234-123456789012}\\";

TEST(ObjectHash, IsTheFoldedMd5OfTypeParentAndName) {
  const auto Hash = [](std::uint8_t nType, const std::u16string& Name, std::uint64_t nParent, std::uint32_t nFlags) {
    return ObjectHash(nType, Name.data(), static_cast<std::uint32_t>(Name.size() * 2), nParent, nFlags);
  };
  const std::uint64_t nRoot = Hash(typeDriveRoot, u"C:", 0, 0);
  EXPECT_EQ(0xF6421B83E11B14FBu, nRoot);
  EXPECT_EQ(0x3EB17711082D599Bu, Hash(typeFolder, u"DIR", nRoot, 0));
  EXPECT_EQ(0x3EB17711082D599Bu, Hash(typeFolder, u"Dir", nRoot, fObjNoCase));
  EXPECT_NE(0x3EB17711082D599Bu, Hash(typeFolder, u"Dir", nRoot, 0));
  // With type and parent these fill a block but for the length, and just so; the last is longer than a piece.
  EXPECT_EQ(0xFEC6356F6BCA606Eu, Hash(typeFolder, std::u16string(22, u'X'), nRoot, 0));
  EXPECT_EQ(0x7B3F232CB1739C64u, Hash(typeFolder, std::u16string(26, u'X'), nRoot, 0));
  EXPECT_EQ(Hash(1, std::u16string(100, u'\u00C4'), 5, 0), Hash(1, std::u16string(100, u'\u00E4'), 5, fObjNoCase));
}

TEST(PathRoots, AreRecognised) {
  // By the types of the path and of its root: paths, with the root between '<' and '>', which is empty for none.
  const std::tuple<std::uint8_t, std::uint8_t, std::vector<std::u16string>> kCases[] = {
      {typeFile, typeDriveRoot, {u"<C:>\\x", u"<A:>\\", u"<z:>", u"<>1:\\x", u"<>C", u"<>\\x", u"<>\\\\"}},
      {typeFolder, typeDriveRoot, {u"\\\\?\\<C:>\\x", u"\\??\\<C:>\\x", u"\\\\?\\<>" + kVolume.substr(4, 44)}},
      {typeFile, typeVolumeRoot, {u"<" + kVolume + u">dir"}},
      {typeFile, typeServerRoot, {u"<\\\\server>\\share", u"<\\\\a>/b", u"<UNC\\s>\\f", u"\\\\?\\<UNC\\server>\\f"}},
      {typeRegistryKey, typeRegistryRoot, {u"<HKLM>\\Software", u"<HKEY_LOCAL_MACHINE>\\a", u"<>hklm\\a", u"<>C:\\x"}},
      {typeRegistryKey, typeRegistryRoot, {u"<\2\x8000>", u"<\6\x8000>", u"<>\7\x8000"}},  // handles
      {typeRegistryValue, typeRegistryRoot, {u"<HKEY_USERS>X\\y"}}};
  for (const auto& [nType, nRootType, AllMarked] : kCases) {
    for (const std::u16string& Marked : AllMarked) {
      std::u16string Path = Marked;
      std::erase_if(Path, [](char16_t c) { return c == u'<' || c == u'>'; });
      const auto [nFoundType, nStart, nLength] = FindPathRoot(nType, Path);
      EXPECT_EQ(nRootType, nFoundType) << ::testing::PrintToString(Marked);
      const std::u16string Root = u'<' + Path.substr(nStart, nLength) + u'>';
      EXPECT_EQ(Marked, Path.replace(nStart, nLength, Root));
    }
  }
}

class ObjectNamesTest : public SegmentWorld {};

TEST_F(ObjectNamesTest, PathsComeBack) {
  // By the type of the object: a path, and how it comes back; "" where it does so unchanged.
  const std::tuple<std::uint8_t, std::u16string, std::u16string> kCases[] = {
      {typeFile, u"\\\\?\\C:\\long", u"C:\\long"},
      {typeFile, u"C:\\\\runs\\of\\\\\\them\\", u"C:\\runs\\of\\them"},
      {typeFile, u"\\no\\root", u"no\\root"},
      {typeFile, kVolume + u"dir\\f", kVolume + u"\\dir\\f"},
      {typeRegistryKey, u"HKEY_USERSX\\y", u"HKEY_USERS\\X\\y"},
      {typeFile, u"C:\\Dir/mixed\\file", u""},
      {typeFile, u"\\\\server\\share\\f", u""},
      {typeFile, u"C:\\\u65E5\u672C\u8A9E\\\u00E9t\u00E9", u""},
      {typeRegistryValue, u"HKLM\\one name", u""},
      {typeName, u"a\\name/of any kind", u""},
      {typeFolder, std::u16string(300, u'x'), u""}};
  for (const auto& [nType, Path, Changed] : kCases) {
    const std::uint64_t nId = Find(nType, Path);
    EXPECT_EQ(Changed.empty() ? Path : Changed, NameOf(nId));
    EXPECT_EQ(nId, Find(nType, Path, findOnly));
  }
}

TEST_F(ObjectNamesTest, CaseCountsOnlyWithoutARootAndOnRequest) {
  constexpr std::uint32_t kCase = RemoveObjectFlags(fObjNoCase);
  EXPECT_EQ(Find(typeFile, u"dir/File"), Find(typeFile, u"DIR/file"));
  EXPECT_NE(Find(typeFile, u"/a/f", findOrCreate, kCase), Find(typeFile, u"/a/F", findOrCreate, kCase));
  EXPECT_EQ(Find(typeFile, u"C:\\y", findOrCreate, kCase), Find(typeFile, u"c:\\Y", findOrCreate, kCase));
  EXPECT_NE(Find(kPlainType, u"name"), Find(kPlainType, u"NAME"));
  EXPECT_EQ(Find(kPlainType, u"both", findOrCreate, fObjNoCase), Find(kPlainType, u"BOTH", findOrCreate, fObjNoCase));
}

TEST_F(ObjectNamesTest, FoldersOfOneNameAreToldApart) {
  const std::tuple<std::uint8_t, std::u16string, std::uint32_t> kFolders[] = {
      {typeFolder, u"same", 0},
      {typeFolder, u"same", RemoveObjectFlags(fObjNoCase)},
      {typeRegistryKey, u"same", 0},
      {typeFolder, u"C:\\same", 0},
      {typeFolder, u"D:\\same", 0}};
  for (const auto& [nType, Path, nFlags] : kFolders) Find(nType, Path + u"\\x", findOrCreate, nFlags);
  for (const auto& [nType, Path, nFlags] : kFolders) EXPECT_NE(0u, Find(nType, Path, findOnly, nFlags));
}

TEST_F(ObjectNamesTest, TakesNamesBySizeOrUpToTheirZero) {
  const std::uint64_t nName = Find(kPlainType, u"name");
  EXPECT_EQ(nName, Given({kPlainType, 0, u"name", kWideZeroTerminated, findOrCreate, 0}));
  EXPECT_EQ(nName, Given({kPlainType, 0, u"name", 0, findOnly, 0}));  // a lookup does so without being told
  EXPECT_EQ(nName, Given({kPlainType, 0, u"name, and more", 8, findOnly, 0}));
  const std::uint64_t nBytes = Given({kPlainType, 0, "8bit, and more", 4, findOrCreate, 0});
  EXPECT_EQ(nBytes, Given({kPlainType, 0, "8bit", kByteZeroTerminated, findOrCreate, 0}));
  EXPECT_EQ(u"", NameOf(Given({kPlainType, 0, u"ignored", 0, findOrCreate, 0})));
}

TEST_F(ObjectNamesTest, ALookupCreatesTheRootAlone) {
  EXPECT_CODE(errOBJECT_NOT_FOUND, Ask({typeFile, 0, u"E:\\a", 8, findOnly, 0}));
  EXPECT_NE(0u, Find(typeDriveRoot, u"E:", findOnly));
}

TEST_F(ObjectNamesTest, StoresTheShorterForm) {
  const auto BytesOf = [&](std::uint8_t nType, std::u16string_view Name) {
    const std::uint64_t nBefore = FileSize("00000003_objdt.dat");
    Find(nType, Name);
    return FileSize("00000003_objdt.dat") - nBefore;
  };
  EXPECT_EQ(5u, BytesOf(typeName, u"latin"));
  EXPECT_EQ(6u, BytesOf(typeName, u"\u65E5\u672C\u8A9E"));  // nine as UTF-8
  EXPECT_EQ(10u, BytesOf(kPlainType, u"latin"));            // does not ask for UTF-8
}

TEST_F(ObjectNamesTest, FillBuffersOfEverySizeAndNothingBehindThem) {
  const std::u16string kName = u"C:\\f";  // of 8 bytes, and 2 of the zero
  const std::uint64_t nId = Find(typeFile, kName);
  for (std::uint32_t nSize = 0; nSize <= 12; ++nSize) {
    Bytes Buffer(nSize + 1, 0xEE);
    std::uint32_t nNeeded = 0;
    const ResultCode nCode = m_pSegment->GetObjectName(nId, Buffer.data(), nSize, &nNeeded, 0, nullptr);
    EXPECT_CODE(nSize < 8 ? errBUFFER_TOO_SMALL : errOK, nCode) << nSize;
    EXPECT_EQ(8u, nNeeded) << nSize;
    EXPECT_EQ(0xEE, Buffer.back()) << nSize;
    EXPECT_TRUE(nSize < 8 || std::memcmp(kName.c_str(), Buffer.data(), std::min(nSize, 10u)) == 0) << nSize;
  }
}

class ObjectLinksTest : public SegmentWorld {
 protected:
  void SetUp() override {
    m_pGlobal = std::make_unique<ObjectDB>(false);
    ObjectFiles Files{OpenFile(u"g_bt"), OpenFile(u"g_id"), OpenFile(u"g_dt")};
    Must(m_pGlobal->Open(0, Files, TreeHead::Large));
    SegmentWorld::SetUp();
  }

  void Link(std::uint64_t nFrom, std::uint64_t nTo) { Must(m_pSegment->SetObjectData(nFrom, &nTo, 8, kObjectLinkTag)); }
  std::uint64_t FindShared(const char16_t* pName) {
    return Given({typeFolder, 0, pName, kWideZeroTerminated, findOrCreate, 0}, StoreChoice::Global);
  }
};

TEST_F(ObjectLinksTest, ADriveLeadsToAFolderUnlessToldOtherwise) {
  Link(Find(typeDriveRoot, u"M:"), Find(typeFolder, u"C:\\mounted"));
  EXPECT_EQ(u"C:\\mounted\\f", NameOf(Find(typeFile, u"M:\\f")));
  EXPECT_EQ(u"M:\\g", NameOf(Find(typeFile, u"M:\\g", findOrCreate, RemoveObjectFlags(fObjFollowLinks))));
}

TEST_F(ObjectLinksTest, CannotBeFollowedIntoTheSharedStore) {
  Link(Find(typeDriveRoot, u"M:"), FindShared(u"C:\\shared"));
  EXPECT_CODE(errOBJECT_NOT_FOUND, Ask({typeFile, 0, u"M:\\h", 8, findOrCreate, 0}));
}

TEST_F(ObjectLinksTest, EndInACircle) {
  const std::uint64_t nKey = Find(typeRegistryKey, u"HKCU\\Key");
  Link(nKey, nKey);
  std::uint32_t nSize = 0;
  EXPECT_CODE(errDATA_CORRUPTED, m_pSegment->GetObjectName(nKey, nullptr, 0, &nSize, 0, nullptr));
}

TEST_F(ObjectLinksTest, AChainAsLongAsItMayBeIsNoCircle) {
  std::u16string Deep = u"D:";
  for (int i = 0; i < 20000; ++i) Deep += u"\\d";
  EXPECT_EQ(Deep, NameOf(Find(typeFile, Deep)));
}

TEST_F(ObjectLinksTest, TheSharedStoreIsFlushedWithTheSegment) {
  EXPECT_EQ(u"C:\\shared", NameOf(FindShared(u"C:\\shared")));
  Must(m_pSegment->Flush());
  FindShared(u"C:\\new");
  MarkCalls();
  Step("flush its three files", m_pSegment->Flush()).Is(errOK).Calls(SystemCall::Sync, 3);
}

}  // namespace
}  // namespace lumbra::test
