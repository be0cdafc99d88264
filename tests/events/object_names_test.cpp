// Object names: hashes, paths that come back as they went in, roots, links and parents.
#include <cstring>

#include "events/md5.h"
#include "events/object_hash.h"
#include "events/object_types.h"
#include "events/path_root.h"
#include "events/segment_fixture.h"

namespace lumbra::test {
namespace {

TEST(ObjectHash, HasItsCheckValues) {
  const auto Digest = [](std::string_view Text) {
    Md5 Computed;
    Computed.Update(Text.data(), Text.size());
    const auto Bytes16 = Computed.Digest();
    return ToHex(Bytes(Bytes16.begin(), Bytes16.end()));
  };
  EXPECT_EQ("d41d8cd98f00b204e9800998ecf8427e", Digest(""));
  EXPECT_EQ("900150983cd24fb0d6963f7d28e17f72", Digest("abc"));
  EXPECT_EQ("57edf4a22be3c955ac49da2e2107b67a",
            Digest("1234567890123456789012345678901234567890123456789012345678901234"
                   "5678901234567890"));
  EXPECT_EQ("ef1772b6dff9a122358552954ad0df65", Digest(std::string(55, 'a')));
  EXPECT_EQ("3b0c8ac703f828b04c6c197006d17218", Digest(std::string(56, 'a')));
  EXPECT_EQ("014842d480b571495a4a0363793f7367", Digest(std::string(64, 'a')));
  const std::uint64_t nRoot = ObjectHash(20, u"C:", 4, 0, 0);
  EXPECT_EQ(0xF6421B83E11B14FBu, nRoot);
  EXPECT_EQ(0x3EB17711082D599Bu, ObjectHash(2, u"Dir", 6, nRoot, fObjNoCase));
  EXPECT_EQ(0x3EB17711082D599Bu, ObjectHash(2, u"dIr", 6, nRoot, fObjNoCase));
  EXPECT_EQ(0x3EB17711082D599Bu, ObjectHash(2, u"DIR", 6, nRoot, 0));
  EXPECT_NE(0x3EB17711082D599Bu, ObjectHash(2, u"Dir", 6, nRoot, 0));
  EXPECT_EQ(0u, ObjectHash(2, u"", 0, nRoot, 0));
  const std::u16string kLong(100, u'\u00E4');  // longer than a piece, upper-cased throughout
  const std::u16string kLongUpper(100, u'\u00C4');
  EXPECT_EQ(ObjectHash(1, kLongUpper.data(), 200, 5, 0), ObjectHash(1, kLong.data(), 200, 5, fObjNoCase));
}

TEST(PathRoots, AreRecognised) {
  const std::u16string kVolume = u"\\\\?\\Volume{12345678-1234-1234-1234-123456789012}\\";
  const std::tuple<std::uint8_t, std::u16string, std::uint8_t, std::size_t, std::size_t> kCases[] = {
      // object type, path, type of the root, its start and length
      {1, u"C:\\x", 20, 0, 2},
      {1, u"z:", 20, 0, 2},
      {1, u"1:\\x", 20, 0, 0},
      {1, u"C", 20, 0, 0},
      {2, u"\\\\?\\C:\\x", 20, 4, 2},
      {2, u"\\??\\C:\\x", 20, 4, 2},
      {2, u"\\\\?\\x", 20, 4, 0},
      {1, u"\\x", 20, 0, 0},
      {1, u"\\\\server\\share", 27, 0, 8},
      {1, u"\\\\server", 27, 0, 8},
      {1, u"\\\\a/b", 27, 0, 3},
      {1, u"\\\\?\\UNC\\server\\f", 27, 4, 10},
      {1, u"UNC\\s\\f", 27, 0, 5},
      {1, u"\\\\", 20, 0, 0},
      {1, kVolume + u"dir", 22, 0, 49},
      {1, kVolume.substr(0, 48), 20, 4, 0},
      {3, u"HKLM\\Software", 24, 0, 4},
      {3, u"HKCU", 24, 0, 4},
      {4, u"HKEY_USERSX\\y", 24, 0, 10},
      {3, u"HKEY_LOCAL_MACHINE\\a", 24, 0, 18},
      {3, u"hklm\\a", 24, 0, 0},
      {3, u"C:\\x", 24, 0, 0},
      {3, std::u16string{2, 0x8000}, 24, 0, 2},
      {3, std::u16string{7, 0x8000}, 24, 0, 0},
  };
  for (const auto& [nType, Path, nRootType, nStart, nLength] : kCases) {
    const PathRoot Root = FindPathRoot(nType, Path);
    EXPECT_EQ(nLength, Root.nLength) << ToHex(Bytes(Path.begin(), Path.end()));
    EXPECT_EQ(nStart, Root.nStart) << ToHex(Bytes(Path.begin(), Path.end()));
    if (nLength != 0) {
      EXPECT_EQ(nRootType, Root.nType);
    }
  }
}

class ObjectNamesTest : public SegmentTest {
 protected:
  void SetUp() override {
    OpenGlobal(false);
    ASSERT_CODE(errOK, Start(Segment::Files::New));
  }
};

TEST_F(ObjectNamesTest, PathsComeBack) {
  const std::u16string kVolume = u"\\\\?\\Volume{12345678-1234-1234-1234-123456789012}\\";
  const std::tuple<std::uint8_t, std::u16string, std::u16string> kCases[] = {
      {1, u"C:\\Dir\\file.txt", u"C:\\Dir\\file.txt"},
      {1, u"C:/Dir/file.txt", u"C:/Dir/file.txt"},
      {1, u"C:\\Dir/mixed\\file", u"C:\\Dir/mixed\\file"},
      {1, u"\\\\?\\C:\\long", u"C:\\long"},
      {1, u"C:\\\\runs\\\\of\\\\\\them\\", u"C:\\runs\\of\\them"},
      {1, u"\\no\\root", u"no\\root"},
      {1, u"/usr/share/x", u"/usr/share/x"},
      {1, u"relative/x", u"relative/x"},
      {1, u"\\\\server\\share\\f", u"\\\\server\\share\\f"},
      {1, kVolume + u"dir\\f", kVolume + u"\\dir\\f"},
      {2, u"D:", u"D:"},
      {3, u"HKLM\\Software\\Key", u"HKLM\\Software\\Key"},
      {3, u"HKEY_USERSX\\y", u"HKEY_USERS\\X\\y"},
      {4, u"HKLM\\one name", u"HKLM\\one name"},
      {32, u"a\\name/of any kind", u"a\\name/of any kind"},
      {1, u"C:\\\u65E5\u672C\u8A9E\\\u00E9t\u00E9", u"C:\\\u65E5\u672C\u8A9E\\\u00E9t\u00E9"},
      {99, std::u16string(300, u'x'), std::u16string(300, u'x')},
  };
  for (const auto& [nType, Path, Expected] : kCases) {
    const std::uint64_t nId = Find(nType, Path);
    ASSERT_NE(0u, nId) << Name(m_nLast);
    EXPECT_EQ(Expected, NameOf(nId));
    EXPECT_EQ(nId, Find(nType, Path));
    EXPECT_EQ(nId, Find(nType, Path, findOnly));
  }
}

TEST_F(ObjectNamesTest, AChainOfTypedComponents) {
  const std::uint64_t nFile = Find(1, u"C:\\Dir\\file.txt");
  std::uint8_t nType = 0;
  const std::uint64_t nDir = ParentOf(nFile, &nType);
  EXPECT_EQ(1, nType);
  const std::uint64_t nRoot = ParentOf(nDir, &nType);
  EXPECT_EQ(2, nType);
  EXPECT_EQ(0u, ParentOf(nRoot, &nType));
  EXPECT_EQ(20, nType);
  EXPECT_EQ(nDir, Find(2, u"C:\\Dir"));
  EXPECT_EQ(nFile, Find(1, u"FILE.TXT", findOrCreate, 0, nDir));  // a parent takes the place of a root
  EXPECT_EQ(u"HKLM\\Key/Value", NameOf(Find(4, u"Value", findOrCreate, 0, Find(3, u"HKLM\\Key"))));
  EXPECT_EQ(std::uint64_t{kNumber}, nFile >> 32);
}

TEST_F(ObjectNamesTest, CaseCountsOnlyWithoutARootAndOnRequest) {
  EXPECT_EQ(Find(1, u"C:\\Dir\\File"), Find(1, u"c:\\dIR\\fILE"));
  EXPECT_EQ(Find(1, u"\\\\?\\C:\\x"), Find(1, u"C:\\X"));
  EXPECT_EQ(Find(1, u"dir/File"), Find(1, u"DIR/file"));  // by the type's defaults
  constexpr std::uint32_t kCase = RemoveObjectFlags(fObjNoCase);
  const std::uint64_t nLower = Find(1, u"/a/makefile", findOrCreate, kCase);
  const std::uint64_t nUpper = Find(1, u"/a/Makefile", findOrCreate, kCase);
  EXPECT_NE(nLower, nUpper);
  EXPECT_EQ(u"/a/makefile", NameOf(nLower));
  EXPECT_EQ(u"/a/Makefile", NameOf(nUpper));
  EXPECT_EQ(Find(1, u"C:\\y", findOrCreate, kCase), Find(1, u"C:\\Y", findOrCreate, kCase));  // a root has its own way
  EXPECT_NE(Find(77, u"name"), Find(77, u"NAME"));
  EXPECT_EQ(Find(77, u"both", findOrCreate, fObjNoCase), Find(77, u"BOTH", findOrCreate, fObjNoCase));
}

TEST_F(ObjectNamesTest, LookupsCreateTheRootAlone) {
  EXPECT_EQ(0u, Find(1, u"E:\\a", findOnly));
  EXPECT_CODE(errOBJECT_NOT_FOUND, m_nLast);
  EXPECT_NE(0u, Find(20, u"E:", findOnly));
  EXPECT_EQ(0u, Find(1, u"\\/\\"));
  EXPECT_CODE(errUNSPECIFIED, m_nLast);
}

TEST_F(ObjectNamesTest, TakesSizesAndRefusesWhatIsWrong) {
  std::uint64_t nId = 0;
  const auto Ask = [&](const void* pName, std::uint32_t nSize, std::uint32_t nMode, std::uint64_t nParent,
                       std::uint64_t* pnId) {
    return m_pSegment->FindObject(StoreChoice::Own, {77, 0, pName, nSize, nMode, nParent}, pnId);
  };
  const std::uint64_t nName = Find(77, u"name");
  EXPECT_CODE(errOK, Ask(u"name", kWideZeroTerminated, findOrCreate, 0, &nId));
  EXPECT_EQ(nName, nId);
  EXPECT_CODE(errOK, Ask(u"name", 0, findOnly, 0, &nId));  // a lookup measures it, too
  EXPECT_EQ(nName, nId);
  EXPECT_CODE(errOK, Ask("n\0a\0m\0e", 8, findOnly, 0, &nId));
  EXPECT_EQ(nName, nId);
  EXPECT_CODE(errOK, Ask("8bit", kByteZeroTerminated, findOrCreate, 0, &nId));
  EXPECT_CODE(errOK, Ask(u"ignored", 0, findOrCreate, 0, &nId));  // an anonymous object
  EXPECT_EQ(u"", NameOf(nId));
  EXPECT_CODE(errPARAMETER_INVALID, Ask(nullptr, 0, findOrCreate, nName, &nId));
  EXPECT_CODE(errPARAMETER_INVALID, Ask(nullptr, 0, findOnly, 0, &nId));
  EXPECT_CODE(errPARAMETER_INVALID, Ask(nullptr, 4, findOrCreate, 0, &nId));
  EXPECT_CODE(errPARAMETER_INVALID, Ask(u"name", 8, findOrCreate, 0, nullptr));
  TakeTrace();
  EXPECT_CODE(errOBJECT_NOT_FOUND, Ask(u"child", 10, findOrCreate, MakeObjectId(kNumber, 9999), &nId));
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
  const std::uint64_t nId = Find(1, u"C:\\Dir\\f\u65E5");
  const std::u16string kName = u"C:\\Dir\\f\u65E5";
  const auto nNeeded = static_cast<std::uint32_t>(kName.size() * 2);
  for (std::uint32_t nSize = 0; nSize <= nNeeded + 3; ++nSize) {
    Bytes Buffer(nSize + 4, 0xEE);
    std::uint32_t nReported = 0;
    const ResultCode nCode = m_pSegment->GetObjectName(nId, Buffer.data(), nSize, &nReported, 0, nullptr);
    EXPECT_EQ(nNeeded, nReported);
    EXPECT_CODE(nSize < nNeeded ? errBUFFER_TOO_SMALL : errOK, nCode);
    EXPECT_EQ(Bytes(4, 0xEE), Bytes(Buffer.begin() + nSize, Buffer.end())) << "written past the end";
    if (nSize < nNeeded) continue;
    EXPECT_EQ(0, std::memcmp(Buffer.data(), kName.data(), nNeeded));
    for (std::uint32_t i = nNeeded; i < nSize; ++i) EXPECT_EQ(i < nNeeded + 2 ? 0 : 0xEE, Buffer[i]);
  }
  std::uint8_t nType = 0;
  std::uint32_t nReported = 0;
  EXPECT_CODE(errOK, m_pSegment->GetObjectName(nId, nullptr, 0, nullptr, 0, &nType));
  EXPECT_EQ(1, nType);
  EXPECT_CODE(errOK, m_pSegment->GetObjectName(nId, nullptr, 0, &nReported, 0, nullptr));
  EXPECT_EQ(nNeeded, nReported);
  EXPECT_CODE(errPARAMETER_INVALID, m_pSegment->GetObjectName(nId, nullptr, 0, nullptr, 0, nullptr));
  EXPECT_CODE(errPARAMETER_INVALID, m_pSegment->GetObjectName(nId, nullptr, 2, &nReported, 0, nullptr));
  EXPECT_CODE(errOBJECT_NOT_FOUND, m_pSegment->GetObjectName(MakeObjectId(9, 1), nullptr, 0, &nReported, 0, nullptr));
}

TEST_F(ObjectNamesTest, FollowsLinksAtRoots) {
  const auto Link = [&](std::uint64_t nFrom, std::uint64_t nTo) {
    return m_pSegment->SetObjectData(nFrom, &nTo, 8, kObjectLinkTag);
  };
  const std::uint64_t nMounted = Find(2, u"C:\\mounted");
  const std::uint64_t nDrive = Find(20, u"M:", findOrCreate, fObjNoCase);
  ASSERT_CODE(errOK, Link(nDrive, nMounted));
  const std::uint64_t nFile = Find(1, u"M:\\f");
  EXPECT_EQ(u"C:\\mounted\\f", NameOf(nFile));
  EXPECT_EQ(nFile, Find(1, u"C:\\mounted\\f"));
  EXPECT_EQ(u"M:\\g", NameOf(Find(1, u"M:\\g", findOrCreate, RemoveObjectFlags(fObjFollowLinks))));

  // A registry root is always followed, and a linked key stands for another when a name is built.
  const std::uint64_t nMachine = Find(3, u"HKEY_LOCAL_MACHINE");
  ASSERT_CODE(errOK, Link(Find(3, u"HKLM"), nMachine));
  EXPECT_EQ(u"HKEY_LOCAL_MACHINE\\Software", NameOf(Find(3, u"HKLM\\Software")));
  const std::uint64_t nCurrent = Find(3, u"HKEY_LOCAL_MACHINE\\Current");
  ASSERT_CODE(errOK, Link(nCurrent, Find(3, u"HKEY_LOCAL_MACHINE\\Set001")));
  EXPECT_EQ(u"HKEY_LOCAL_MACHINE\\Set001", NameOf(nCurrent));

  // A link into the shared store cannot be followed; one that runs in a circle ends.
  std::uint64_t nShared = 0;
  const ObjectQuery Shared{2, 0, u"C:\\shared", kWideZeroTerminated, findOrCreate, 0};
  ASSERT_CODE(errOK, m_pSegment->FindObject(StoreChoice::Global, Shared, &nShared));
  EXPECT_EQ(0u, nShared >> 32);
  EXPECT_EQ(u"C:\\shared", NameOf(nShared));
  ASSERT_CODE(errOK, Link(nDrive, nShared));
  EXPECT_EQ(0u, Find(1, u"M:\\h"));
  EXPECT_CODE(errOBJECT_NOT_FOUND, m_nLast);
  const std::uint64_t nKey = Find(3, u"HKCU\\Loop");
  ASSERT_CODE(errOK, Link(nKey, nKey));
  EXPECT_EQ(u"", NameOf(nKey));
  EXPECT_CODE(errDATA_CORRUPTED, m_nLast);
  std::u16string Deep = u"D:";  // as long as a chain may be, it is no circle
  for (int i = 0; i < 20000; ++i) Deep += u"\\d";
  const std::uint64_t nDeep = Find(1, Deep.c_str());
  std::uint32_t nNeeded = 0;
  EXPECT_CODE(errOK, m_pSegment->GetObjectName(nDeep, nullptr, 0, &nNeeded, 0, nullptr));
  EXPECT_EQ(Deep.size() * 2, nNeeded);
}

TEST_F(ObjectNamesTest, RepairsOnRequest) {
  ASSERT_CODE(errOK, Start(Segment::Files::New, true));
  Find(77, u"one");
  const std::uint64_t nOld = Find(77, u"two");
  m_pSegment.reset();
  const Bytes Tree = ReadFile("00000003_objbt.dat");
  Bytes Broken = Tree;
  for (std::size_t nSlot = 16; nSlot < 1040; nSlot += 4) {
    Broken[nSlot + 3] = 0x80;  // every slot of the root leads to a node where there is none
    Broken[nSlot + 1] = 0x7F;
  }
  const std::uint32_t nCrc = Crc32(0, Broken.data() + 16, 1024);
  std::memcpy(Broken.data() + 1040, &nCrc, 4);
  WriteFile("00000003_objbt.dat", Broken);
  ASSERT_CODE(errOK, Start(Segment::Files::Existing, true));
  EXPECT_EQ(0u, Find(77, u"two"));
  EXPECT_CODE(errDATA_CORRUPTED, m_nLast);
  const std::uint64_t nNew = Find(77, u"two", findOrCreateRepairing);
  EXPECT_CODE(errDATA_REPAIRED, m_nLast);
  EXPECT_EQ(nOld + 1, nNew);
  EXPECT_EQ(u"two", NameOf(nNew));
  EXPECT_EQ(nNew, Find(77, u"two", findOrCreateRepairing));
  EXPECT_CODE(errOK, m_nLast);
  EXPECT_EQ(u"two", NameOf(nOld));  // still there under its id
}

}  // namespace
}  // namespace lumbra::test
