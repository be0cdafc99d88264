// Healing: what is lost or damaged costs itself, and nothing else.
#include "salvage/apply.h"

#include <gmock/gmock.h>

#include "component/component_fixture.h"
#include "salvage/look.h"

namespace lumbra::test {
namespace {

using Snapshot = std::map<std::string, Bytes>;  // the files of a store

// Databases 5, "named" and "other": three segments of two events each, of the times 1 to 6, each with a name.
class SalvageTest : public ComponentTest {
 protected:
  void SetUp() override {}

  void MakeStore(std::uint32_t nCheckMode) {
    OpenFresh(nCheckMode);
    for (const std::uint32_t nDb : {5u, m_nNamed, OpenNamed(u"other")}) {
      Must(SetLimit(nDb, limitSegmentEvents, 2));
      for (std::uint64_t nTime = 1; nTime <= 6; ++nTime)
        Must(Add(nDb, nTime, Find(nDb, u"C:\\" + std::u16string(static_cast<std::size_t>(nTime), u'a')), &m_nLast));
    }
    Close();
    m_Sound = Take();
  }
  Snapshot Take() const {
    Snapshot All;
    for (const auto& Entry : fs::recursive_directory_iterator(Folder())) {
      const std::string Name = fs::relative(Entry.path(), Folder()).generic_string();
      if (Entry.is_regular_file()) All[Name] = ReadFile(Name);
    }
    return All;
  }
  void Put(const Snapshot& All) {
    Close();
    fs::remove_all(Folder());
    for (const auto& [Name, Content] : All) WriteFile(Name, Content);
  }

  salvage::Plan Heal() {
    salvage::Plan Done;
    Must(salvage::Heal(WideFolder(), {}, {}, &Done));
    return Done;
  }
  std::string Words(const salvage::Plan& Of) const {
    std::string Text;
    for (const salvage::Step& One : Of.Steps) Text += salvage::Describe(One) + '\n';
    return Text;
  }

  Snapshot m_Sound;
  std::uint64_t m_nLast = 0;  // the id of the newest event of "other"
};

TEST_F(SalvageTest, LeavesASoundStoreAlone) {
  for (const std::uint32_t nCheckMode : {0u, 1u}) {
    MakeStore(nCheckMode);
    EXPECT_EQ("", Words(Heal()));
    EXPECT_EQ(m_Sound, Take());
  }
}

// That every other loss and damage costs itself alone is tried by the fault programme.
TEST_F(SalvageTest, KeepsIdsOfNamesThroughAByteBehindThem) {
  MakeStore(0);
  m_Sound["g_db_id.dat"].push_back(0);
  Put(m_Sound);
  EXPECT_TRUE(Heal().Acts());
  Restart();
  EXPECT_EQ(DatabaseOfId(m_nLast), OpenNamed(u"other"));
  EXPECT_EQ(Ids{6}, Times(0, m_nLast, 1));
}

TEST_F(SalvageTest, GivesTheOldBytesBack) {
  MakeStore(0);
  for (const std::string File :
       {"05/segments.dat", "named/segments.dat", "05/00000002_events.dat", "05/00000002_objid.dat", "g_db_id.dat"}) {
    Snapshot Damaged = m_Sound;
    if (File == "05/segments.dat") Damaged[File][4] = 9;
    if (File == "named/segments.dat") Damaged[File].resize(5);
    if (File.ends_with("g_db_id.dat")) Damaged[File].push_back('x');
    if (File.find("00000002") != std::string::npos) Damaged.erase(File);
    Put(Damaged);
    const fs::perms Rights = fs::status(Folder() / "g_db_id.dat").permissions();
    ASSERT_TRUE(Heal().Acts()) << File;
    EXPECT_EQ(Rights, fs::status(Folder() / "g_db_id.dat").permissions());
    std::string Time;
    for (const auto& Entry : fs::recursive_directory_iterator(Folder())) {
      if (Entry.path().parent_path().filename() == "set-aside") Time = Entry.path().filename().string();
    }
    std::vector<std::string> Left;
    Step(File, salvage::Undo(WideFolder(), {}, Time, &Left)).Is(errOK);
    EXPECT_EQ(std::vector<std::string>(), Left);
    Snapshot Now = Take();
    std::erase_if(Now, [](const auto& One) { return One.first.find("set-aside") != std::string::npos; });
    EXPECT_EQ(Damaged, Now) << File;
  }
}

TEST_F(SalvageTest, LeavesAStoreAloneThatIsOpen) {
  MakeStore(0);
  Restart();
  EXPECT_TRUE(Heal().bHeld);
}

// Killed anywhere, a replacement by the compacted pair is finished.
TEST_F(SalvageTest, FinishesWhatWasBeingReplaced) {
  MakeStore(0);
  Restart();
  Must(Call(&Ops::Compact, 0));
  Close();
  WriteFile("g_objreplacing.dat", {});
  const std::pair<const char*, const char*> kMoves[] = {{"g_objid.dat", "aside"},
                                                        {"g_objdt.dat", "aside too"},
                                                        {"g_objdtcompacted.dat", "g_objdt.dat"},
                                                        {"g_objidcompacted.dat", "g_objid.dat"},
                                                        {"g_objreplacing.dat", "over"}};
  const Snapshot kCompacted = Take();
  for (std::size_t nDone = 0; nDone <= std::size(kMoves); ++nDone) {
    Put(kCompacted);
    for (std::size_t i = 0; i < nDone; ++i) fs::rename(Folder() / kMoves[i].first, Folder() / kMoves[i].second);
    Heal();
    EXPECT_EQ(kCompacted.at("g_objidcompacted.dat"), ReadFile("g_objid.dat")) << nDone;
    EXPECT_EQ(kCompacted.at("g_objdtcompacted.dat"), ReadFile("g_objdt.dat")) << nDone;
    EXPECT_FALSE(fs::exists(Folder() / "g_objreplacing.dat")) << nDone;
  }
}

// What lay behind a restart must not be overwritten, nor joined to what came later.
TEST_F(SalvageTest, SetsAsideWhatARestartHasLeft) {
  MakeStore(0);
  Restart();
  Must(InitDb(5, 8));  // starts it anew
  Close();
  EXPECT_THAT(Words(Heal()), ::testing::HasSubstr("05/00000003_events.dat: it lies behind the end of the chain"));
  EXPECT_FALSE(fs::exists(Folder() / "05/00000002_events.dat"));
}

}  // namespace
}  // namespace lumbra::test
