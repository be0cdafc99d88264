// The instance: initialisation and what it gives back, properties, sharing, flushing.
#include <gmock/gmock.h>

#include "component/component_fixture.h"
#include "platform/file.h"

namespace lumbra::test {
namespace {

class LifecycleTest : public ComponentTest {};

TEST_F(LifecycleTest, OpensTheStoreInTheHostsCheckMode) {
  const Bytes Index = ReadFile("g_db_id.dat");
  for (const std::uint32_t nMode : {0u, 1u}) {
    StartAnew();
    WriteFile("g_db_id.dat", Index);
    m_Host->SetPlaceholder(u"%LumbraCheckData%", nMode == 1 ? u"1" : u"0");
    TakeTrace();
    Expect({errOK, nMode == 1 ? Lines{"400  Lumbra check mode on"} : Lines{}}, {Open(), TakeTrace(400)});
    EXPECT_EQ(nMode == 1 ? "4f444253" : "4f44424f", ToHex(ReadFile("g_objdt.dat")).substr(0, 8));
    Expect({nMode, 0u, u"System"}, {Number(propCHECK_MODE), Number(propCORRUPTED), NameOf(1)});
    TakeTrace();
    Expect({errOK, Lines{"400 ObjectInitDone: Lumbra already initialized"}}, {m_Store.Init(), TakeTrace()});
  }
}

TEST_F(LifecycleTest, PutsTheStoreWhereItIsTold) {
  for (const auto& [pTail, pFile] :
       {std::pair{u"/a/b", "a/b/0A/segments.dat"}, {u"/c\\d\\", "c/d/g_db_id.dat"}, {u"/e/", "e/00/segments.dat"}}) {
    m_Store = m_Host->Create();
    Expect({errOK, errOK, errOK}, {m_Store.SetReportFolder(WideFolder() + pTail), m_Store.Init(), InitDb(10)});
    EXPECT_TRUE(Exists(pFile)) << pFile;
  }
  m_Host->SetPlaceholder(u"%Report%", u"");
  EXPECT_CODE(errOPEN_FAILED, m_Host->Create().Init());  // not even beside one that has opened the shared store
}

TEST_F(LifecycleTest, SharesOneObjectStoreInTheProcess) {
  host::Store Second = m_Host->Create();
  Expect({errOK, errOK}, {Second.SetReportFolder(WideFolder() + u"/second"), Second.Init()});
  EXPECT_FALSE(Exists("second/g_objbt.dat"));
  const std::uint64_t nId = Find(0, u"C:\\shared");
  std::uint64_t nSame = 0;
  std::uint32_t nType = 0;
  EXPECT_CODE(errOK, Second.Call(&Ops::FindObjectSimple, 0, typeFile, u"C:\\SHARED", kZeroTerminated, 0, 0, &nSame));
  EXPECT_EQ(nId, nSame);
  host::Store Uncounted = m_Host->Create();  // not initialised: the shared store could go while it uses it
  Expect({errOK, errOK, errOBJECT_NOT_FOUND},
         {Uncounted.SetReportFolder(WideFolder() + u"/third"), Uncounted.Call(&Ops::InitDB, 1, 16),
          Uncounted.Call(&Ops::GetObjectName, WithDatabase(1, 1), nullptr, 0, nullptr, 0, &nType)});
  m_Store = host::Store();  // the store stays open for the second
  EXPECT_CODE(errOK, Second.Call(&Ops::FindObjectSimple, 0, typeFile, u"C:\\after", kZeroTerminated, 1, 0, &nSame));
  File Held;
  const std::u16string kFile = WideFolder() + u"/g_objdt.dat";
  EXPECT_CODE(errSHARING_VIOLATION, Held.OpenWithFlags(kFile, fileRead, openExisting));
  Second = host::Store();
  EXPECT_CODE(errOK, Held.OpenWithFlags(kFile, fileRead, openExisting));
}

TEST_F(LifecycleTest, HandsOutSharedAndSeparateInstances) {
  m_Store = host::Store();
  host::Store First = m_Host->Create(kSharedInstance);
  host::Store Same = m_Host->Create(kSharedInstance);
  EXPECT_EQ(First.Instance(), Same.Instance());
  EXPECT_NE(First.Instance(), m_Host->Create(kSeparateInstance).Instance());
  First = host::Store();
  EXPECT_CODE(errOK, Same.Init());  // still there for its second user
  const host::Store New = m_Host->Create(kNewSharedInstance);
  EXPECT_NE(Same.Instance(), New.Instance());
  EXPECT_EQ(New.Instance(), m_Host->Create(kSharedInstance).Instance());
  EXPECT_FALSE(m_Host->Create(0x1234));
}

TEST_F(LifecycleTest, MarksDamageForGood) {
  OpenFresh(1);
  const std::uint64_t nId = Find(0, u"C:\\damaged");
  const Bytes Sound = ReadFile("g_objdt.dat");
  const std::size_t nLast = Sound.size() - 1;  // in the newest name's CRC
  const Bytes Damage{static_cast<std::uint8_t>(Sound[nLast] ^ 1)};
  // Found by the quick check.
  Expect({errOK, 1u}, {OpenPatched("g_objdt.dat", nLast, Damage, 1), Number(propCORRUPTED)});
  const Bytes Index = ReadFile("g_db_id.dat");
  EXPECT_EQ((Bytes{'.', 0}), (Bytes{Index[51], Index[53]}));

  // Met while working, where the check does not look: the file keeps the mark, also when the damage is gone.
  Expect({errOK, 0u}, {OpenPatched("g_objdt.dat", 0, Sound, 1), Number(propCORRUPTED)});
  Find(0, u"C:\\newer\\newest");
  Expect({errOK, 0u, u"", errDATA_CORRUPTED, 1u}, {OpenPatched("g_objdt.dat", nLast, Damage, 1), Number(propCORRUPTED),
                                                   NameOf(nId), m_nLast, Number(propCORRUPTED)});
  Expect({errOK, 1u}, {OpenPatched("g_objdt.dat", 0, Sound, 1), Number(propCORRUPTED)});
}

TEST_F(LifecycleTest, SavesAMarkThatCouldNotBeSavedAtTheNextFlush) {
  OpenFresh(1);
  const std::uint64_t nId = Find(0, u"C:\\damaged");
  const std::uint64_t nLast = FileSize("g_objdt.dat") - 1;
  Find(0, u"C:\\newer\\newest");
  const auto IsMarked = [this] {
    return ReadText("g_db_id.dat").find("Ver 1.0 Corrupted") != std::string::npos;
  };
  ASSERT_CODE(errOK, OpenPatched("g_objdt.dat", nLast, {0}, 1));
  FailCalls(SystemCall::Open, os::kIoDevice);
  Expect({u"", errDATA_CORRUPTED, false}, {NameOf(nId), m_nLast, IsMarked()});
  EXPECT_CODE(errOK, m_Host->SendFlush());
  EXPECT_TRUE(IsMarked());
}

// The tree of the shared objects is lost: everything is found under its old id, whatever the newest objects look like.
TEST_F(LifecycleTest, RebuildsALostTree) {
  const Bytes kLost{1, 2, 3, 4};  // in place of the CRC of its root
  OpenFresh(1);
  const std::uint64_t nId = Find(0, u"C:\\kept");
  Expect({errOK, nId, u"System", 0u},
         {OpenPatched("g_objbt.dat", 1040, kLost, 1), Find(0, u"C:\\kept", 0), NameOf(1), Number(propCORRUPTED)});

  Find(0, u"C:\\newest");
  m_Store = host::Store();
  Bytes Records = ReadFile("g_objid.dat");
  Records.back() ^= 1;
  WriteFile("g_objid.dat", Records);
  // Half of a tree is no reason not to start; what it does not find is neither missing nor damaged, and comes back.
  constexpr std::uint64_t kWritesOfAnEmptyTree = 4;
  for (std::uint64_t nSkip = 0; nSkip < 14; ++nSkip) {
    const bool bStarts = nSkip >= kWritesOfAnEmptyTree;
    FailCalls(SystemCall::WriteAt, os::kDiskFull, nSkip, UINT64_MAX);
    EXPECT_CODE(bStarts ? errOK : errOPEN_FAILED, OpenPatched("g_objbt.dat", 1040, kLost, 1)) << nSkip;
    if (bStarts) Expect({nSkip, UINT64_C(0), errWRITE_FAILED}, {nSkip, Find(0, u"C:\\never", 1), m_nLast});
    ResetSystem();
    if (bStarts) Expect({nSkip, nId}, {nSkip, Find(0, u"C:\\kept", 0)});
    Expect({nSkip, errOK, nId, 1u}, {nSkip, Open(1), Find(0, u"C:\\kept", 0), Number(propCORRUPTED)});
  }
}

TEST_F(LifecycleTest, AnswersForItsProperties) {
  m_Store = m_Host->Create();
  PropertyAccessRecord Record{};
  const auto Access = [&](std::uint32_t nProperty, std::uint32_t nMode, void* pBuffer, std::uint32_t nSize) {
    Record = {pBuffer, nSize, 0, Record.nCodePage, nMode};
    LumbraInstance* const pInstance = m_Store.Instance();
    return pInstance->pLifecycle->PropertyAccess(pInstance, nProperty, &Record);
  };
  // How far the last access moved on in a buffer.
  const auto Moved = [&](const void* pBuffer) {
    return static_cast<std::uint32_t>(static_cast<char*>(Record.pBuffer) - static_cast<const char*>(pBuffer));
  };
  std::uint32_t nValue = 99;
  for (const std::uint32_t nProperty :
       {propCHECK_MODE, propENVIRONMENT_FLAG, propEXACT_FILE_SIZES, propWRITES_SUSPENDED}) {
    for (std::uint32_t nSet : {7u, 0u}) {
      Expect({errOK, errOK, 4u, errBUFFER_TOO_SMALL, 0u, errOK, nSet, 4u, 4u},
             {Access(nProperty, propertyProbe, nullptr, 0), Access(nProperty, propertySet, &nSet, 4), Moved(&nSet),
              Access(nProperty, propertyGet, &nValue, 3), Moved(&nValue), Access(nProperty, propertyGet, &nValue, 4),
              nValue, Record.nCount, Moved(&nValue)});
    }
  }
  char Comment[] = "abcdefg";
  Expect({errPROPERTY_NOT_HANDLED, errPROPERTY_NOT_HANDLED, errOK, 1u, errOK, 6u, errOK, "Lumbra", 7u, errOK,
          kCodePage8Bit},
         {Access(propCORRUPTED, propertySet, &nValue, 4), Access(0x12345678, propertyGet, &nValue, 4),
          Access(propINTERFACE_CONSTANT, propertyGet, &nValue, 4), nValue,
          Access(propINTERFACE_COMMENT, propertySet, Comment, 8), Moved(Comment),
          Access(propINTERFACE_COMMENT, propertyGet, Comment, 8), std::string(Comment), Moved(Comment),
          Access(propINTERFACE_COMMENT, propertyCodePage, nullptr, 0), Record.nCodePage});

  char16_t Text[20] = {};
  char Folder[] = "/t\xC3\xA9st";
  Expect({errOK, 0u}, {Access(propREPORT_FOLDER, propertyGet, nullptr, 0), Record.nCount});
  Record.nCodePage = kCodePageUtf8;
  Expect({errOK, 6u, errOK, 12u, errBUFFER_TOO_SMALL, errOK, u"/t\u00E9st", 12u},
         {Access(propREPORT_FOLDER, propertySet, Folder, 6), Moved(Folder),
          Access(propREPORT_FOLDER, propertyGet, nullptr, 0), Record.nCount,
          Access(propREPORT_FOLDER, propertyGet, Text, 11), Access(propREPORT_FOLDER, propertyGet, Text, sizeof(Text)),
          std::u16string(Text), Moved(Text)});

  Expect({errOK, errPROPERTY_READ_ONLY, errOK}, {Open(), Access(propENVIRONMENT_FLAG, propertySet, &nValue, 4),
                                                 Access(propENVIRONMENT_FLAG, propertyGet, &nValue, 4)});
}

TEST_F(LifecycleTest, FlushesOnTheHostsMessage) {
  const auto SyncsOfFlush = [this] {
    ResetSystem();
    EXPECT_CODE(errOK, m_Host->SendFlush());
    return CallsOf(SystemCall::Sync);
  };
  EXPECT_LE(12u, SyncsOfFlush());
  EXPECT_EQ(0u, SyncsOfFlush());  // nothing was written since
  Expect({errOK, errOK, 2u}, {Add(5, 1), Add(m_nNamed, 1), SyncsOfFlush()});
}

}  // namespace
}  // namespace lumbra::test
