// Object names: hashes, paths that come back as they went in, roots, links and parents.
#include <cstring>

#include "events/object_hash.h"
#include "events/path_root.h"
#include "events/segment_fixture.h"
#include "format/md5.h"
#include "support/system_calls.h"

namespace lumbra::test {
namespace {

const std::u16string kVolume = u"\\\\?\\Volume{12345678-1234-1234-1234-123456789012}\\";

TEST(ObjectHash, HasItsCheckValues) {
  const std::string k40 = "1234567890123456789012345678901234567890";
  for (const auto& [pDigest, Text] : {std::pair{"d41d8cd98f00b204e9800998ecf8427e", std::string()},
                                      {"900150983cd24fb0d6963f7d28e17f72", "abc"},
                                      {"57edf4a22be3c955ac49da2e2107b67a", k40 + k40},
                                      {"ef1772b6dff9a122358552954ad0df65", std::string(55, 'a')},
                                      {"3b0c8ac703f828b04c6c197006d17218", std::string(56, 'a')},
                                      {"014842d480b571495a4a0363793f7367", std::string(64, 'a')}}) {
    Md5 Computed;
    Computed.Update(Text.data(), Text.size());
    const auto Digest = Computed.Digest();
    EXPECT_EQ(pDigest, ToHex({Digest.begin(), Digest.end()}));
  }
  const std::uint64_t nRoot = ObjectHash(20, u"C:", 4, 0, 0);
  EXPECT_EQ((std::vector{0xF6421B83E11B14FBu, 0x3EB17711082D599Bu, 0x3EB17711082D599Bu}),
            (std::vector{nRoot, ObjectHash(2, u"Dir", 6, nRoot, fObjNoCase), ObjectHash(2, u"DIR", 6, nRoot, 0)}));
  EXPECT_NE(0x3EB17711082D599Bu, ObjectHash(2, u"Dir", 6, nRoot, 0));
  // Longer than a piece, upper-cased throughout.
  EXPECT_EQ(ObjectHash(1, std::u16string(100, u'\u00C4').data(), 200, 5, 0),
            ObjectHash(1, std::u16string(100, u'\u00E4').data(), 200, 5, fObjNoCase));
}

TEST(PathRoots, AreRecognised) {
  // By the types of the path and of its root: paths, with the root between '<' and '>', which is empty for none.
  const std::tuple<std::uint8_t, std::uint8_t, std::vector<std::u16string>> kCases[] = {
      {1, 20, {u"<C:>\\x", u"<A:>\\", u"<z:>", u"<>1:\\x", u"<>C", u"<>\\x", u"<>\\\\"}},
      {2, 20, {u"\\\\?\\<C:>\\x", u"\\??\\<C:>\\x", u"\\\\?\\<>x", u"\\\\?\\<>" + kVolume.substr(4, 44)}},
      {1, 22, {u"<" + kVolume + u">dir"}},
      {3, 24, {u"<HKLM>\\Software", u"<HKCU>", u"<HKEY_LOCAL_MACHINE>\\a", u"<>hklm\\a", u"<>C:\\x"}},
      {3, 24, {u"<\2\x8000>", u"<\6\x8000>", u"<>\7\x8000"}},  // handles
      {4, 24, {u"<HKEY_USERS>X\\y"}},
      {1, 27, {u"<\\\\server>\\share", u"<\\\\server>", u"<\\\\a>/b", u"\\\\?\\<UNC\\server>\\f", u"<UNC\\s>\\f"}}};
  for (const auto& [nType, nRootType, Paths] : kCases) {
    for (std::u16string Path : Paths) {
      const std::size_t nStart = Path.find(u'<');
      const std::size_t nLength = Path.find(u'>') - nStart - 1;
      const PathRoot Root = FindPathRoot(nType, Path.erase(nStart, 1).erase(nStart + nLength, 1));
      EXPECT_EQ(std::tuple(Path, nStart, nLength, nRootType),
                std::tuple(Path, Root.nStart, Root.nLength, nLength == 0 ? nRootType : Root.nType));
    }
  }
}

class ObjectNamesTest : public SegmentTest {};

TEST_F(ObjectNamesTest, PathsComeBack) {
  // Object type, path, and how it comes back; "" where it does so unchanged.
  const std::tuple<std::uint8_t, std::u16string, std::u16string> kCases[] = {
      {1, u"\\\\?\\C:\\long", u"C:\\long"},
      {1, u"C:\\\\runs\\\\of\\\\\\them\\", u"C:\\runs\\of\\them"},
      {1, u"\\no\\root", u"no\\root"},
      {1, kVolume + u"dir\\f", kVolume + u"\\dir\\f"},
      {3, u"HKEY_USERSX\\y", u"HKEY_USERS\\X\\y"},
      {1, u"C:\\Dir/mixed\\file", u""},
      {1, u"relative/x", u""},
      {1, u"\\\\server\\share\\f", u""},
      {1, u"C:\\\u65E5\u672C\u8A9E\\\u00E9t\u00E9", u""},
      {2, u"D:", u""},
      {4, u"HKLM\\one name", u""},
      {32, u"a\\name/of any kind", u""},
      {99, std::u16string(300, u'x'), u""}};
  for (const auto& [nType, Path, Changed] : kCases) {
    const std::uint64_t nId = Find(nType, Path);
    EXPECT_EQ(std::tuple(Changed.empty() ? Path : Changed, nId, nId),
              std::tuple(NameOf(nId), Find(nType, Path), Find(nType, Path, findOnly)));
  }
}

TEST_F(ObjectNamesTest, AChainOfTypedComponents) {
  const std::uint64_t nFile = Find(1, u"C:\\Dir\\file.txt");
  const std::uint64_t nDir = Find(2, u"C:\\Dir");
  const std::uint64_t nRoot = Find(20, u"C:");
  for (const auto& [nId, nParent, nType] : {std::tuple{nFile, nDir, 1}, {nDir, nRoot, 2}, {nRoot, 0, 20}}) {
    std::uint64_t nFound = 99;
    std::uint8_t nFoundType = 0;
    EXPECT_CODE(errOK, m_pSegment->GetObjectParent(nId, &nFound, nullptr, &nFoundType));
    EXPECT_EQ((std::tuple{nId, nParent, nType}), (std::tuple{nId, nFound, int{nFoundType}}));
  }
  EXPECT_EQ(nFile, Find(1, u"FILE.TXT", findOrCreate, 0, nDir));  // a parent takes the place of a root
  EXPECT_EQ(u"HKLM\\Key/Value", NameOf(Find(4, u"Value", findOrCreate, 0, Find(3, u"HKLM\\Key"))));
}

TEST_F(ObjectNamesTest, CaseCountsOnlyWithoutARootAndOnRequest) {
  EXPECT_EQ(Find(1, u"C:\\Dir\\File"), Find(1, u"c:\\dIR\\fILE"));
  EXPECT_EQ(Find(1, u"dir/File"), Find(1, u"DIR/file"));  // by the type's defaults
  constexpr std::uint32_t kCase = RemoveObjectFlags(fObjNoCase);
  EXPECT_EQ(u"/a/makefile", NameOf(Find(1, u"/a/makefile", findOrCreate, kCase)));
  EXPECT_EQ(u"/a/Makefile", NameOf(Find(1, u"/a/Makefile", findOrCreate, kCase)));
  EXPECT_EQ(Find(1, u"C:\\y", findOrCreate, kCase), Find(1, u"C:\\Y", findOrCreate, kCase));  // a root has its own way
  EXPECT_NE(Find(77, u"name"), Find(77, u"NAME"));
  EXPECT_EQ(Find(77, u"both", findOrCreate, fObjNoCase), Find(77, u"BOTH", findOrCreate, fObjNoCase));
}

TEST_F(ObjectNamesTest, TakesSizesAndRefusesWhatIsWrong) {
  const std::uint64_t nName = Find(77, u"name");
  const Answer kFound{nName, Name(errOK)};
  const Answer kMissing{0, Name(errOBJECT_NOT_FOUND)};
  const Answer kRefused{0, Name(errPARAMETER_INVALID)};
  const auto Asked = [&](const ObjectQuery& Query) {
    return WithCode(Ask(Query));
  };
  // Up to its zero, which a lookup also looks for without being told, or of a size in bytes.
  EXPECT_EQ(std::vector(3, kFound),
            (std::vector{Asked({77, 0, u"name", kWideZeroTerminated, findOrCreate, 0}),
                         Asked({77, 0, u"name", 0, findOnly, 0}), Asked({77, 0, "n\0a\0m\0e", 8, findOnly, 0})}));
  EXPECT_NE(0u, Ask({77, 0, "8bit", kByteZeroTerminated, findOrCreate, 0}));
  EXPECT_EQ((Answer{0, Name(errOK)}),
            (Answer{NameOf(Ask({77, 0, u"ignored", 0, findOrCreate, 0})).size(), Name(m_nLast)}));
  EXPECT_EQ(std::vector(3, kRefused),
            (std::vector{Asked({77, 0, nullptr, 0, findOrCreate, nName}), Asked({77, 0, nullptr, 0, findOnly, 0}),
                         Asked({77, 0, nullptr, 4, findOrCreate, 0})}));
  EXPECT_CODE(errPARAMETER_INVALID,
              m_pSegment->FindObject(StoreChoice::Own, {77, 0, u"name", 8, findOrCreate, 0}, nullptr));
  EXPECT_EQ((Answer{0, Name(errUNSPECIFIED)}), WithCode(Find(1, u"\\/\\")));
  // A lookup creates the root alone.
  EXPECT_EQ(kMissing, WithCode(Find(1, u"E:\\a", findOnly)));
  EXPECT_NE(0u, Find(20, u"E:", findOnly));
  // A registry handle has four bytes, and five are none.
  EXPECT_EQ(kMissing, Asked({3, 0, u"\2\x8000x", 5, findOnly, 0}));
  EXPECT_NE(0u, Ask({3, 0, u"\2\x8000x", 4, findOnly, 0}));
  EXPECT_EQ(kMissing, WithCode(Find(77, u"child", findOrCreate, 0, MakeObjectId(kNumber, 9999))));
  EXPECT_EQ((std::vector<std::string>{"300 Failed step. Err: errOBJECT_NOT_FOUND (0x800000C5)"}), TakeTrace(300));
}

TEST_F(ObjectNamesTest, StoresTheShorterForm) {
  const std::uint64_t nBefore = FileSize("00000003_objdt.dat");
  Find(32, u"latin");
  EXPECT_EQ(nBefore + 5, FileSize("00000003_objdt.dat"));
  Find(32, u"\u65E5\u672C\u8A9E");  // nine bytes as UTF-8, six as UTF-16
  EXPECT_EQ(nBefore + 11, FileSize("00000003_objdt.dat"));
  Find(77, u"latin");  // a type that does not ask for UTF-8
  EXPECT_EQ(nBefore + 21, FileSize("00000003_objdt.dat"));
}

TEST_F(ObjectNamesTest, FillsBuffersOfEverySize) {
  const std::u16string kName = u"C:\\Dir\\f\u65E5";
  const std::uint64_t nId = Find(1, kName);
  const auto nNeeded = static_cast<std::uint32_t>(kName.size() * 2);
  for (std::uint32_t nSize = 0; nSize <= nNeeded + 3; ++nSize) {
    Bytes Buffer(nSize + 4, 0xEE);
    Bytes Expected = Buffer;
    std::uint32_t nReported = 0;
    const ResultCode nCode = m_pSegment->GetObjectName(nId, Buffer.data(), nSize, &nReported, 0, nullptr);
    EXPECT_CODE(nSize < nNeeded ? errBUFFER_TOO_SMALL : errOK, nCode) << nSize;
    EXPECT_EQ(nNeeded, nReported) << nSize;
    // The name, of its zero what there is room for, and nothing past the end. An incomplete name may be any.
    const void* const pName = nSize < nNeeded ? Buffer.data() : static_cast<const void*>(kName.c_str());
    std::memcpy(Expected.data(), pName, std::min(nSize, nNeeded + 2));
    EXPECT_EQ(Expected, Buffer);
  }
  std::uint8_t nType = 0;
  EXPECT_CODE(errOK, m_pSegment->GetObjectName(nId, nullptr, 0, nullptr, 0, &nType));
  EXPECT_EQ(1, nType);
  EXPECT_CODE(errPARAMETER_INVALID, m_pSegment->GetObjectName(nId, nullptr, 0, nullptr, 0, nullptr));
  EXPECT_CODE(errPARAMETER_INVALID, m_pSegment->GetObjectName(nId, nullptr, 2, nullptr, 0, &nType));
  EXPECT_CODE(errOBJECT_NOT_FOUND, m_pSegment->GetObjectName(MakeObjectId(9, 1), nullptr, 0, nullptr, 0, &nType));
}

TEST_F(ObjectNamesTest, FollowsLinksAtRoots) {
  m_pGlobal = std::make_unique<ObjectDB>(false);
  ObjectFiles Files{OpenFile(u"g_bt"), OpenFile(u"g_id"), OpenFile(u"g_dt")};
  ASSERT_CODE(errOK, m_pGlobal->Open(0, Files, TreeHead::Large));
  ASSERT_CODE(errOK, Start(Segment::Files::New));
  const auto Link = [&](std::uint64_t nFrom, std::uint64_t nTo) {
    ASSERT_CODE(errOK, m_pSegment->SetObjectData(nFrom, &nTo, 8, kObjectLinkTag));
  };
  const std::uint64_t nDrive = Find(20, u"M:", findOrCreate, fObjNoCase);
  Link(nDrive, Find(2, u"C:\\mounted"));
  EXPECT_EQ(u"C:\\mounted\\f", NameOf(Find(1, u"M:\\f")));
  EXPECT_EQ(u"M:\\g", NameOf(Find(1, u"M:\\g", findOrCreate, RemoveObjectFlags(fObjFollowLinks))));

  // A registry root is always followed, and a linked key stands for another when a name is built.
  Link(Find(3, u"HKLM"), Find(3, u"HKEY_LOCAL_MACHINE"));
  EXPECT_EQ(u"HKEY_LOCAL_MACHINE\\Software", NameOf(Find(3, u"HKLM\\Software")));
  const std::uint64_t nCurrent = Find(3, u"HKEY_LOCAL_MACHINE\\Current");
  Link(nCurrent, Find(3, u"HKEY_LOCAL_MACHINE\\Set001"));
  EXPECT_EQ(u"HKEY_LOCAL_MACHINE\\Set001", NameOf(nCurrent));

  // What was written to the shared store is flushed with the segment.
  const auto Share = [&](const char16_t* pName) {
    return Ask({2, 0, pName, kWideZeroTerminated, findOrCreate, 0}, StoreChoice::Global);
  };
  const std::uint64_t nShared = Share(u"C:\\shared");
  EXPECT_EQ((std::pair{UINT64_C(0), std::u16string(u"C:\\shared")}), (std::pair{nShared >> 32, NameOf(nShared)}));
  EXPECT_CODE(errOK, m_pSegment->Flush());
  Share(u"C:\\new");
  ResetSystem();
  EXPECT_CODE(errOK, m_pSegment->Flush());
  EXPECT_EQ(3u, CallsOf(SystemCall::Sync));
  // A link into the shared store cannot be followed; one that runs in a circle ends.
  Link(nDrive, nShared);
  EXPECT_EQ((Answer{0, Name(errOBJECT_NOT_FOUND)}), WithCode(Find(1, u"M:\\h")));
  Link(nCurrent, nCurrent);
  EXPECT_EQ(u"", NameOf(nCurrent));
  EXPECT_CODE(errDATA_CORRUPTED, m_nLast);
  std::u16string Deep = u"D:";  // as long as a chain may be, it is no circle
  for (int i = 0; i < 20000; ++i) Deep += u"\\d";
  EXPECT_EQ(Deep.size(), NameOf(Find(1, Deep)).size());
}

TEST_F(ObjectNamesTest, RepairsOnRequest) {
  ASSERT_CODE(errOK, Start(Segment::Files::New, true));
  Find(77, u"one");
  const std::uint64_t nOld = Find(77, u"two");
  m_pSegment.reset();
  Bytes Root(1028, 0x80);  // every slot leads to a node where there is none; the CRC is right
  const std::uint32_t nCrc = Crc32(0, Root.data(), 1024);
  std::memcpy(Root.data() + 1024, &nCrc, 4);
  Patch("00000003_objbt.dat", 16, Root);
  ASSERT_CODE(errOK, Start(Segment::Files::Existing, true));
  EXPECT_EQ((Answer{0, Name(errDATA_CORRUPTED)}), WithCode(Find(77, u"two")));
  EXPECT_EQ((Answer{nOld + 1, Name(errDATA_REPAIRED)}), WithCode(Find(77, u"two", findOrCreateRepairing)));
  EXPECT_EQ((Answer{nOld + 1, Name(errOK)}), WithCode(Find(77, u"two", findOrCreateRepairing)));
  EXPECT_EQ(u"two", NameOf(nOld));  // is still there under its id
}

}  // namespace
}  // namespace lumbra::test
