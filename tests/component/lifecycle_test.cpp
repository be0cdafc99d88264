// The instance: initialisation and what it gives back, properties, sharing, flushing.
#include "component/component_fixture.h"

namespace lumbra::test {
namespace {

class LifecycleTest : public ComponentTest {
 protected:
  bool IsMarked() const { return ReadText("g_db_id.dat").find("Ver 1.0 Corrupted") != std::string::npos; }

  ResultCode Access(std::uint32_t nProperty, std::uint32_t nMode, void* pBuffer, std::uint32_t nSize) {
    m_Record = {pBuffer, nSize, 0, m_Record.nCodePage, nMode};
    return m_Store.Instance()->pLifecycle->PropertyAccess(m_Store.Instance(), nProperty, &m_Record);
  }
  PropertyAccessRecord m_Record{};
};

TEST_F(LifecycleTest, TheHostSaysWhetherNewFilesAreChecked) {
  EXPECT_EQ("ODBO", ReadText("g_objdt.dat").substr(0, 4));
  m_Host->SetPlaceholder(u"%LumbraCheckData%", u"1");
  StartAnew();
  Restart();
  EXPECT_EQ("ODBS", ReadText("g_objdt.dat").substr(0, 4));
}

TEST_F(LifecycleTest, PutsTheStoreWhereItIsTold) {
  for (const auto& [pTail, pFile] :
       {std::pair{u"/a/b", "a/b/0A/segments.dat"}, {u"/c\\d\\", "c/d/g_db_id.dat"}, {u"/e/", "e/00/segments.dat"}}) {
    m_Store = m_Host->Create();
    Must(m_Store.SetReportFolder(WideFolder() + pTail));
    Must(m_Store.Init());
    Must(InitDb(10));
    EXPECT_TRUE(fs::exists(Folder() / pFile)) << pFile;
  }
  m_Host->SetPlaceholder(u"%Report%", u"");
  Step("nowhere", m_Host->Create().Init()).Is(errOPEN_FAILED);  // though the shared objects are open
}

TEST_F(LifecycleTest, InitialisedInstancesOfAProcessShareTheirObjects) {
  host::Store Second = m_Host->Create();
  Must(Second.SetReportFolder(WideFolder() + u"/second"));
  Must(Second.Init());
  const std::uint64_t nId = Find(0, u"C:\\shared");
  Close();  // they stay open for the second
  std::uint64_t nSame = 0;
  Must(Second.Call(&Ops::FindObjectSimple, 0, typeFile, u"C:\\SHARED", kZeroTerminated, 0, 0, &nSame));
  EXPECT_EQ(nId, nSame);
  EXPECT_FALSE(fs::exists(Folder() / "second/g_objbt.dat"));
}

TEST_F(LifecycleTest, MakesSeparateAndSharedInstances) {
  Close();
  host::Store First = m_Host->Create(kSharedInstance);
  const LumbraInstance* const pFirst = First.Instance();
  EXPECT_NE(pFirst, m_Host->Create(kSeparateInstance).Instance());
  host::Store Same = m_Host->Create(kSharedInstance);
  EXPECT_EQ(pFirst, Same.Instance());
  First = host::Store();  // it lasts until its last user ends
  Step("its initialisation", Same.Init()).Is(errOK);
  const host::Store New = m_Host->Create(kNewSharedInstance);
  EXPECT_NE(pFirst, New.Instance());
  Same = host::Store();  // no longer the shared one: its end changes nothing
  EXPECT_EQ(New.Instance(), m_Host->Create(kSharedInstance).Instance());
}

TEST_F(LifecycleTest, FlushesOnTheHostsMessage) {
  Must(m_Host->SendFlush());
  MarkCalls();
  Step("with nothing to flush", m_Host->SendFlush()).Is(errOK).Calls(SystemCall::Sync, 0);
  Fill(5, 1, 1);
  Fill(m_nNamed, 1, 1);
  Step("with an event in two databases", m_Host->SendFlush()).Is(errOK).Calls(SystemCall::Sync, 2);
  Find(0, u"D:\\shared");
  FailCalls(SystemCall::Sync, os::kIoDevice, 0, UINT64_MAX);
  Step("with shared files that cannot be synced", m_Host->SendFlush()).Is(errWRITE_FAILED).Calls(SystemCall::Sync, 3);
}

// ---- Damage -----------------------------------------------------------------------------------------------

TEST_F(LifecycleTest, MarksTheStoreForGoodWhenDamageIsMetOrAtTheNextFlush) {
  OpenFresh(1);
  const std::uint64_t nId = Find(0, u"C:\\damaged");
  const std::uint64_t nLast = FileSize("g_objdt.dat") - 1;
  Find(0, u"C:\\newer\\newest");  // where the quick check looks
  RestartWith("g_objdt.dat", nLast, {0}, 1);
  EXPECT_EQ(0u, Number(propCORRUPTED));
  FailCalls(SystemCall::Open, os::kIoDevice);
  EXPECT_EQ(u"errDATA_CORRUPTED (0x800000D8)", NameOf(nId));
  EXPECT_EQ(1u, Number(propCORRUPTED));
  EXPECT_FALSE(IsMarked());
  Must(m_Host->SendFlush());
  EXPECT_TRUE(IsMarked());
  Restart(1);
  EXPECT_EQ(1u, Number(propCORRUPTED));
}

TEST_F(LifecycleTest, FindsAllNamesAgainWhoseTreeIsLost) {
  OpenFresh(1);
  const std::uint64_t nId = Find(0, u"C:\\kept");
  RestartWith("g_objbt.dat", 1040, {1, 2, 3, 4}, 1);  // the CRC of its root
  EXPECT_EQ(nId, Find(0, u"C:\\kept", 0));
  EXPECT_EQ(u"System", NameOf(1));
  EXPECT_EQ(0u, Number(propCORRUPTED));
  // Half of a tree is no reason not to start; what it does not find is neither missing nor damaged.
  FailCalls(SystemCall::WriteAt, os::kDiskFull, 6, UINT64_MAX);
  RestartWith("g_objbt.dat", 1040, {1, 2, 3, 4}, 1);
  Step("a name meanwhile", FindObject(0, u"C:\\kept", 1, nullptr)).Is(errWRITE_FAILED);
  ResetSystem();
  EXPECT_EQ(nId, Find(0, u"C:\\kept", 0));
}

// ---- Properties -------------------------------------------------------------------------------------------

TEST_F(LifecycleTest, TakesItsReportFolderInTheHostsCodePage) {
  char Told[] = "/t\xC3\xA9st";
  char16_t Text[20] = {};
  m_Record.nCodePage = kCodePageUtf8;
  Must(Access(propREPORT_FOLDER, propertySet, Told, 6));
  Must(Access(propREPORT_FOLDER, propertyGet, Text, 12));
  EXPECT_EQ(u"/t\u00E9st", std::u16string(Text));
  EXPECT_EQ(Text + 6, m_Record.pBuffer);
}

}  // namespace
}  // namespace lumbra::test
