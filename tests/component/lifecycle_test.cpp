// The instance: initialisation and what it gives back, properties, sharing, flushing.
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "component/component_fixture.h"
#include "platform/file.h"

namespace lumbra::test {
namespace {

using std::filesystem::exists;

class LifecycleTest : public ComponentTest {};

TEST_F(LifecycleTest, OpensTheStore) {
  ASSERT_CODE(errOK, Open());
  for (const char* const pName : {"g_objbt.dat", "g_objid.dat", "g_objdt.dat", "g_db_id.dat", "00/segments.dat"}) {
    EXPECT_TRUE(exists(Folder() / pName)) << pName;
  }
  EXPECT_EQ(u"System", NameOf(1));
  EXPECT_EQ(u"test-host", NameOf(kHostObjectAlias));
  EXPECT_EQ(0u, Number(propCORRUPTED));
  TakeTrace();
  EXPECT_CODE(errOK, m_Store.Init());
  EXPECT_EQ(Lines{"400 ObjectInitDone: Lumbra already initialized"}, TakeTrace());
}

TEST_F(LifecycleTest, PutsTheStoreWhereItIsTold) {
  for (const char16_t* const pTail : {u"/a/b", u"/c\\d\\", u"/e/"}) {
    m_Store = m_Host->Create();
    ASSERT_CODE(errOK, m_Store.SetReportFolder(WideFolder() + pTail));
    ASSERT_CODE(errOK, m_Store.Init());
    ASSERT_CODE(errOK, Call(&Ops::InitDB, 10, 16));
  }
  m_Store = host::Store();
  for (const char* const pName : {"a/b/0A/segments.dat", "c/d/g_db_id.dat", "e/00/segments.dat"}) {
    EXPECT_TRUE(exists(Folder() / pName)) << pName;
  }
  ASSERT_CODE(errOK, Open());
  m_Host->SetPlaceholder(u"%Report%", u"");
  EXPECT_CODE(errOPEN_FAILED, m_Host->Create().Init());  // not even beside one that has opened the shared store
}

TEST_F(LifecycleTest, TakesTheCheckModeFromTheHost) {
  ASSERT_CODE(errOK, Open());
  for (const bool bOn : {false, true}) {
    m_Store = host::Store();
    for (const char* const pName : {"g_objbt.dat", "g_objid.dat", "g_objdt.dat"}) {
      std::filesystem::remove(Folder() / pName);
    }
    m_Host->SetPlaceholder(u"%LumbraCheckData%", bOn ? u"1" : u"0");
    TakeTrace();
    ASSERT_CODE(errOK, Open());
    EXPECT_EQ(bOn ? Lines{"400  Lumbra check mode on"} : Lines{}, TakeTrace(400));
    EXPECT_EQ(bOn ? 1u : 0u, Number(propCHECK_MODE));
    EXPECT_EQ(bOn ? "4f444253" : "4f44424f", ToHex(ReadFile("g_objdt.dat")).substr(0, 8));
  }
}

// Whatever fails while an instance is initialised, it can be tried again, and everything balances in the end.
TEST_F(LifecycleTest, GivesBackWhatAFailedStartTook) {
  for (const SystemCall Failing :
       {SystemCall::Open, SystemCall::WriteAt, SystemCall::SetSize, SystemCall::MakeFolder}) {
    for (std::uint64_t nSkip = 0; nSkip < 12; ++nSkip) {
      m_Store = host::Store();
      std::filesystem::remove_all(Folder());
      std::filesystem::create_directory(Folder());
      m_Store = m_Host->Create();
      FailCalls(Failing, ENOSPC, nSkip);
      const ResultCode nCode = m_Store.Init();
      ResetSystem();
      EXPECT_TRUE(nCode == errOK || nCode == errOPEN_FAILED || nCode == errWRITE_FAILED || nCode == errOUT_OF_SPACE)
          << Name(nCode);
      EXPECT_CODE(errOK, m_Store.Init());
      EXPECT_CODE(errOK, Call(&Ops::InitDB, 1, 16));
      EXPECT_CODE(errOK, Add(1, 5));
      m_Host->SendFlush();
      EXPECT_LE(1u, CallsOf(SystemCall::Sync));
    }
  }
}

TEST_F(LifecycleTest, SharesOneObjectStoreInTheProcess) {
  ASSERT_CODE(errOK, Open());
  host::Store Second = m_Host->Create();
  ASSERT_CODE(errOK, Second.SetReportFolder(WideFolder() + u"/second"));
  ASSERT_CODE(errOK, Second.Init());
  EXPECT_FALSE(exists(Folder() / "second/g_objbt.dat"));
  const std::uint64_t nId = Find(0, u"C:\\shared");
  std::uint64_t nSame = 0;
  EXPECT_CODE(errOK, Second.Call(&Ops::FindObjectSimple, 0, typeFile, u"C:\\SHARED", kZeroTerminated, 0, 0, &nSame));
  EXPECT_EQ(nId, nSame);
  m_Store = host::Store();  // the store stays open for the second
  EXPECT_CODE(errOK, Second.Call(&Ops::FindObjectSimple, 0, typeFile, u"C:\\after", kZeroTerminated, 1, 0, &nSame));
  File Held;
  EXPECT_CODE(errSHARING_VIOLATION, Held.OpenWithFlags((Folder() / "g_objdt.dat").u16string(), fileRead, openExisting));
  Second = host::Store();
  EXPECT_CODE(errOK, Held.OpenWithFlags((Folder() / "g_objdt.dat").u16string(), fileRead, openExisting));
}

TEST_F(LifecycleTest, HandsOutSharedAndSeparateInstances) {
  host::Store First = m_Host->Create(kSharedInstance);
  host::Store Same = m_Host->Create(kSharedInstance);
  host::Store Other = m_Host->Create(kSeparateInstance);
  EXPECT_EQ(First.Instance(), Same.Instance());
  EXPECT_NE(First.Instance(), Other.Instance());
  First = host::Store();
  EXPECT_CODE(errOK, Same.Init());  // still there for its second user
  host::Store New = m_Host->Create(kNewSharedInstance);
  EXPECT_NE(Same.Instance(), New.Instance());
  EXPECT_EQ(New.Instance(), m_Host->Create(kSharedInstance).Instance());
  New = host::Store();
  EXPECT_FALSE(m_Host->Create(0x1234));
}

TEST_F(LifecycleTest, MarksDamageForGood) {
  ASSERT_CODE(errOK, Open(1));
  const std::uint64_t nId = Find(0, u"C:\\damaged");
  m_Store = host::Store();
  Bytes Data = ReadFile("g_objdt.dat");
  Data.back() ^= 1;  // in the newest name's CRC
  WriteFile("g_objdt.dat", Data);
  ASSERT_CODE(errOK, Open(1));
  EXPECT_EQ(1u, Number(propCORRUPTED));  // found by the quick check
  EXPECT_EQ('.', ReadFile("g_db_id.dat")[51]);
  EXPECT_EQ(0, ReadFile("g_db_id.dat")[53]);

  // Met while working: the file keeps the mark, also when the damage is gone.
  Data.back() ^= 1;
  m_Store = host::Store();
  WriteFile("g_objdt.dat", Data);
  ASSERT_CODE(errOK, Open(1));
  EXPECT_EQ(0u, Number(propCORRUPTED));
  Patch("g_objdt.dat", Data.size() - 1, {static_cast<std::uint8_t>(Data.back() ^ 1)});
  EXPECT_EQ(u"", NameOf(nId));
  EXPECT_CODE(errDATA_CORRUPTED, m_nLast);
  EXPECT_EQ(1u, Number(propCORRUPTED));
  m_Store = host::Store();
  WriteFile("g_objdt.dat", Data);
  ASSERT_CODE(errOK, Open(1));
  EXPECT_EQ(1u, Number(propCORRUPTED));
}

// The tree of the shared objects is lost: everything is found under its old id, whatever the newest objects look like.
TEST_F(LifecycleTest, RebuildsALostTree) {
  ASSERT_CODE(errOK, Open(1));
  const std::uint64_t nId = Find(0, u"C:\\kept");
  m_Store = host::Store();
  Patch("g_objbt.dat", 1040, {1, 2, 3, 4});  // the CRC of its root
  ASSERT_CODE(errOK, Open(1));
  EXPECT_EQ(nId, Find(0, u"C:\\kept", 0));
  EXPECT_EQ(u"System", NameOf(1));
  EXPECT_EQ(0u, Number(propCORRUPTED));

  Find(0, u"C:\\newest");
  m_Store = host::Store();
  Bytes Records = ReadFile("g_objid.dat");
  Records.back() ^= 1;
  WriteFile("g_objid.dat", Records);
  for (std::uint64_t nSkip = 0; nSkip < 14; ++nSkip) {  // half of a tree is not enough to go on
    Patch("g_objbt.dat", 1040, {1, 2, 3, 4});
    FailCalls(SystemCall::WriteAt, ENOSPC, nSkip);
    EXPECT_CODE(errOPEN_FAILED, Open(1)) << nSkip;
    ResetSystem();
    ASSERT_CODE(errOK, Open(1));
    EXPECT_EQ(nId, Find(0, u"C:\\kept", 0));
    EXPECT_EQ(1u, Number(propCORRUPTED));
    m_Store = host::Store();
  }
}

TEST_F(LifecycleTest, AnswersForItsProperties) {
  m_Store = m_Host->Create();
  std::uint32_t nCount = 0;
  std::uint32_t nCodePage = 0;
  const auto Access = [&](std::uint32_t nProperty, std::uint32_t nMode, void* pBuffer, std::uint32_t nSize) {
    PropertyAccessRecord Record{pBuffer, nSize, 0, nCodePage, nMode};
    LumbraInstance* const pInstance = m_Store.Instance();
    const ResultCode nCode = pInstance->pLifecycle->PropertyAccess(pInstance, nProperty, &Record);
    nCodePage = Record.nCodePage;
    nCount = Record.nCount;
    return nCode;
  };
  std::uint32_t nValue = 7;
  for (const std::uint32_t nProperty :
       {propCHECK_MODE, propENVIRONMENT_FLAG, propEXACT_FILE_SIZES, propWRITES_SUSPENDED}) {
    for (const std::uint32_t nSet : {7u, 0u}) {
      nValue = nSet;
      EXPECT_CODE(errOK, Access(nProperty, propertyProbe, nullptr, 0));
      EXPECT_CODE(errOK, Access(nProperty, propertySet, &nValue, 4));
      EXPECT_CODE(errBUFFER_TOO_SMALL, Access(nProperty, propertyGet, &nValue, 3));
      nValue = 99;
      EXPECT_CODE(errOK, Access(nProperty, propertyGet, &nValue, 4));
      EXPECT_EQ((std::pair{nSet, 4u}), (std::pair{nValue, nCount}));
    }
  }
  EXPECT_CODE(errPROPERTY_NOT_HANDLED, Access(propCORRUPTED, propertySet, &nValue, 4));
  EXPECT_CODE(errPROPERTY_NOT_HANDLED, Access(0x12345678, propertyGet, &nValue, 4));
  EXPECT_CODE(errOK, Access(propINTERFACE_CONSTANT, propertyGet, &nValue, 4));
  EXPECT_EQ(1u, nValue);
  char Comment[8] = "abcdefg";
  EXPECT_CODE(errOK, Access(propINTERFACE_COMMENT, propertySet, Comment, 8));
  EXPECT_CODE(errOK, Access(propINTERFACE_COMMENT, propertyGet, Comment, 8));
  EXPECT_STREQ("Lumbra", Comment);
  EXPECT_CODE(errOK, Access(propINTERFACE_COMMENT, propertyCodePage, nullptr, 0));
  EXPECT_EQ(kCodePage8Bit, nCodePage);

  char16_t Text[20] = {};
  EXPECT_CODE(errOK, Access(propREPORT_FOLDER, propertyGet, nullptr, 0));
  EXPECT_EQ(0u, nCount);
  nCodePage = kCodePageUtf8;
  EXPECT_CODE(errOK, Access(propREPORT_FOLDER, propertySet, const_cast<char*>("/t\xC3\xA9st"), 6));
  EXPECT_CODE(errOK, Access(propREPORT_FOLDER, propertyGet, nullptr, 0));
  EXPECT_EQ(12u, nCount);
  EXPECT_CODE(errBUFFER_TOO_SMALL, Access(propREPORT_FOLDER, propertyGet, Text, 11));
  EXPECT_CODE(errOK, Access(propREPORT_FOLDER, propertyGet, Text, sizeof(Text)));
  EXPECT_EQ(u"/t\u00E9st", std::u16string(Text));

  ASSERT_CODE(errOK, Open());
  EXPECT_CODE(errPROPERTY_READ_ONLY, Access(propENVIRONMENT_FLAG, propertySet, &nValue, 4));
  EXPECT_CODE(errOK, Access(propENVIRONMENT_FLAG, propertyGet, &nValue, 4));
}

TEST_F(LifecycleTest, FlushesOnTheHostsMessage) {
  ASSERT_CODE(errOK, Open());
  ASSERT_CODE(errOK, Call(&Ops::InitDB, 1, 16));
  const std::uint32_t nNamed = OpenNamed(u"named");
  ResetSystem();
  m_Host->SendFlush();
  const std::uint64_t nFirst = CallsOf(SystemCall::Sync);
  EXPECT_LE(12u, nFirst);
  m_Host->SendFlush();
  EXPECT_EQ(nFirst, CallsOf(SystemCall::Sync));  // nothing was written since
  ASSERT_CODE(errOK, Add(1, 1));
  ASSERT_CODE(errOK, Add(nNamed, 1));
  m_Host->SendFlush();
  EXPECT_EQ(nFirst + 2, CallsOf(SystemCall::Sync));
}

}  // namespace
}  // namespace lumbra::test
