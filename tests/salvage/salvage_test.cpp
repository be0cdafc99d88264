// Healing: what is lost or damaged costs itself, and nothing else.
#include "salvage/apply.h"

#include <gmock/gmock.h>

#include "component/component_fixture.h"
#include "salvage/look.h"

namespace lumbra::test {
namespace {

using ::testing::HasSubstr;
using Snapshot = std::map<std::string, Bytes>;  // the files of a store

// Databases 5, "named" and "other": three segments of two events each, of the times 1 to 6, each with a name; and
// shared objects, one of which has data.
class SalvageTest : public ComponentTest {
 protected:
  void SetUp() override {}

  void MakeStore(std::uint32_t nCheckMode = 0) {
    OpenFresh(nCheckMode);
    for (const std::uint32_t nDb : {5u, m_nNamed, OpenNamed(u"other")}) {
      Must(SetLimit(nDb, limitSegmentEvents, 2));
      for (std::uint64_t nTime = 1; nTime <= 6; ++nTime) {
        const std::u16string Name = u"C:\\" + std::u16string(static_cast<std::size_t>(nTime), u'a');
        Must(Add(nDb, nTime, Find(nDb, Name), &m_nLast));
      }
    }
    MakeShared({u"C:\\one", u"C:\\two", u"C:\\three"});
    Close();
    m_Sound = Take();
  }
  // Shared objects; the data of each stands behind its name.
  void MakeShared(const std::vector<std::u16string>& Names) {
    for (const std::u16string& Name : Names) {
      m_Shared.emplace(Find(0, Name), Name);
      Must(Call(&Ops::SetObjectData, Find(0, Name), "some data", 9, 7));
    }
  }

  // The files of the store, without those that are set aside.
  Snapshot Take() const {
    Snapshot All;
    for (const auto& Entry : fs::recursive_directory_iterator(Folder())) {
      const std::string Name = fs::relative(Entry.path(), Folder()).generic_string();
      if (Entry.is_regular_file() && Name.find("set-aside") == std::string::npos) All[Name] = ReadFile(Name);
    }
    return All;
  }
  void Put(const Snapshot& All) {
    Close();
    fs::remove_all(Folder());
    for (const auto& [Name, Content] : All) WriteFile(Name, Content);
  }
  // Files that were copied with their times: written before they were made.
  void LetThemBeCopies() {
    for (const auto& Entry : fs::recursive_directory_iterator(Folder()))
      if (Entry.is_regular_file())
        fs::last_write_time(Entry.path(), fs::file_time_type::clock::now() - std::chrono::hours(2));
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
  // The times in all folders "set-aside", and what undoing one leaves.
  std::multiset<std::string> Healings() const {
    std::multiset<std::string> Found;
    for (const auto& Entry : fs::recursive_directory_iterator(Folder()))
      if (Entry.path().parent_path().filename() == "set-aside") Found.insert(Entry.path().filename().string());
    return Found;
  }
  std::vector<std::string> Undo(const std::string& Time) {
    std::vector<std::string> Left;
    Must(salvage::Undo(WideFolder(), {}, Time, &Left));
    return Left;
  }

  // A store whose pair was compacted, and put in its place. Its files before that, and after it.
  void MakeReplaced() {
    MakeStore();
    Restart();
    Must(Call(&Ops::Compact, 0));
    Close();
    m_Sound = Take();
    std::string Live;
    salvage::Plan Done;
    Must(salvage::DigestOfLivePair(WideFolder(), {}, &Live));
    Must(salvage::ReplaceByCompacted(WideFolder(), {}, Live, &Done));
  }

  Snapshot m_Sound;
  std::uint64_t m_nLast = 0;  // the id of the newest event of "other"
  std::map<std::uint64_t, std::u16string> m_Shared;
};

TEST_F(SalvageTest, LeavesASoundStoreAlone) {
  for (const std::uint32_t nCheckMode : {0u, 1u}) {
    MakeStore(nCheckMode);
    EXPECT_EQ("", Words(Heal()));
    LetThemBeCopies();
    EXPECT_EQ("", Words(Heal()));
    EXPECT_EQ(m_Sound, Take());
  }
}

// That every other loss and damage costs itself alone is tried by the fault programme.
struct Row {
  const char* pPlan;
  void (*pDamage)(Snapshot& Store);
  std::vector<std::uint64_t> EventsOf5 = {1, 2, 3, 4, 5, 6};
  bool bCopied = false;
};
const Row kRows[] = {
    {"05/segments.dat: it leads nowhere",
     [](Snapshot& Store) {
       Store["05/segments.dat"][4] = 9;
     }},
    {"named/segments.dat: it is damaged or missing",
     [](Snapshot& Store) {
       Store["named/segments.dat"].resize(5);
     }},
    {"05/00000002_events.dat: a segment is missing",
     [](Snapshot& Store) { Store.erase("05/00000002_events.dat"); },
     {1, 2, 5, 6}},
    {"05/00000002_objid.dat: it is missing",
     [](Snapshot& Store) {
       Store.erase("05/00000002_objid.dat");
     }},
    {"g_db_id.dat: ",
     [](Snapshot& Store) {
       Store["g_db_id.dat"].push_back(0);
     }},
    {"05/00000003_events.dat: no segment is left",
     [](Snapshot& Store) {
       Store["05/segments.dat"][4] = 3;
       std::erase_if(Store, [](const auto& One) { return One.first.starts_with("05/0"); });
     },
     {}},
    {"05/00000003_events.dat: its header contradicts",
     [](Snapshot& Store) { Store["05/00000003_events.dat"][8] ^= 8; },
     {1, 2, 3, 4, 5, 6},
     true},
    {"05/00000001_events.dat: its header contradicts",  // of a lone segment, whose three events could be two
     [](Snapshot& Store) {
       std::erase_if(Store, [](const auto& One) { return One.first > "05/00000002" && One.first < "05/00000004"; });
       Bytes& Events = Store["05/00000001_events.dat"];
       Events[8] ^= 8;
       Events.insert(Events.end(), 16, 9);
     },
     {1, 2, 0x0909090909090909}},
    {"g_objdt.dat: it is shorter than its newest names",  // from the data of the first on
     [](Snapshot& Store) {
       Store["g_objdt.dat"].resize(Store["g_objdt.dat"].size() - 70);
     }},
    {"g_objid.dat: its last record is torn",
     [](Snapshot& Store) {
       Store["g_objid.dat"].pop_back();
     }},
    {"g_objid.dat: its header contradicts",
     [](Snapshot& Store) {
       Store["g_objid.dat"][8] ^= 1;
     }},
    {"g_objbt.dat: its header places the root elsewhere",
     [](Snapshot& Store) {
       Store["g_objbt.dat"][4] = 0;
     }},
};

TEST_F(SalvageTest, HealsOnceAndGivesTheOldBytesBack) {
  MakeStore();
  for (const Row& One : kRows) {
    SCOPED_TRACE(One.pPlan);
    Snapshot Damaged = m_Sound;
    One.pDamage(Damaged);
    Put(Damaged);
    if (One.bCopied) LetThemBeCopies();
    const fs::perms Rights = fs::status(Folder() / "g_db_id.dat").permissions();
    EXPECT_THAT(Words(Heal()), HasSubstr(One.pPlan));
    EXPECT_FALSE(Heal().Acts());
    EXPECT_EQ(Rights, fs::status(Folder() / "g_db_id.dat").permissions());
    EXPECT_EQ(std::vector<std::string>(), Undo(*Healings().begin()));
    EXPECT_EQ(Damaged, Take());
    Heal();
    Restart();
    Must(InitDb(5));
    EXPECT_EQ(One.EventsOf5, Times(5, 0, 9));
    EXPECT_EQ(DatabaseOfId(m_nLast), OpenNamed(u"other"));
    EXPECT_EQ(Ids{6}, Times(0, m_nLast, 1));
    MakeShared({u"C:\\1", u"C:\\2", u"C:\\3", u"C:\\4", u"C:\\5", u"C:\\6"});
    for (const auto& [nId, Name] : m_Shared) EXPECT_THAT(NameOf(nId), ::testing::AnyOf(Name, u"C:\\", u"?", u""));
  }
}

// Drops that were interrupted leave one segment or two, whose files go when that is wanted.
TEST_F(SalvageTest, LeavesSegmentsAloneThatWereDropped) {
  MakeStore();
  m_Sound["05/segments.dat"][4] = 3;
  Put(m_Sound);
  EXPECT_EQ("", Words(Heal()));
  salvage::Plan Done;
  Must(salvage::Heal(WideFolder(), {}, {.bDropped = true}, &Done));
  std::erase_if(m_Sound, [](const auto& One) {
    return One.first.starts_with("05/00000001") || One.first.starts_with("05/00000002");
  });
  EXPECT_EQ(m_Sound, Take());
}

// A turned bit hides more.
TEST_F(SalvageTest, TakesSegmentsBackThatATurnedBitHides) {
  MakeStore();
  Restart();
  Must(InitDb(5));
  Must(SetLimit(5, limitSegmentEvents, 2));
  for (std::uint64_t nTime = 7; nTime <= 10; ++nTime) Must(Add(5, nTime));
  Close();
  const Bytes kSound = ReadFile("05/segments.dat");
  Patch("05/segments.dat", 4, {5});
  EXPECT_THAT(Words(Heal()), HasSubstr("05/segments.dat: it leads behind whole segments"));
  EXPECT_EQ(kSound, ReadFile("05/segments.dat"));
}

// Where the names or the records of the shared objects are lost, new ones must not be told for them.
TEST_F(SalvageTest, RefusesAStoreWhoseSharedObjectsAreLost) {
  MakeStore();
  fs::remove_all(Folder() / "05");
  for (const char* const pFolder : {"00", "named", "other"}) fs::remove_all(Folder() / pFolder);
  fs::remove(Folder() / "g_objid.dat");  // also of a store without events
  EXPECT_THAT(Heal().Refusal, HasSubstr("g_objid.dat: it is missing beside the names"));
  MakeStore();
  for (const char* const pFile : {"g_objid.dat", "g_objdt.dat"}) fs::remove(Folder() / pFile);
  EXPECT_THAT(Heal().Refusal, HasSubstr("g_objid.dat: it is missing beside the tree"));
  MakeStore();
  Restart();
  for (char16_t c = 0x4E00; c < 0x4E00 + 30; ++c) Find(0, u"C:\\" + std::u16string(20000, c));
  Close();
  fs::resize_file(Folder() / "g_objdt.dat", 100);  // more than 1 MiB is lost
  for (int i = 0; i < 2; ++i) EXPECT_THAT(Heal().Refusal, HasSubstr("g_objdt.dat: its end is lost"));
  for (const int nLeft : {0, 3}) {  // bytes of the name of a single object, of which more than 1 MiB is lost
    MakeStore();
    const std::uintmax_t nBefore = fs::file_size(Folder() / "g_objdt.dat");
    Restart();
    const Bytes kData(2 << 20);
    Must(Call(&Ops::SetObjectData, Find(0, u"C:\\largest"), kData.data(), static_cast<std::uint32_t>(kData.size()), 7));
    Close();
    fs::resize_file(Folder() / "g_objdt.dat", nBefore + nLeft);
    EXPECT_THAT(Heal().Refusal, HasSubstr("g_objdt.dat: its end is lost"));
  }
}

TEST_F(SalvageTest, LeavesAStoreAloneThatIsOpen) {
  MakeStore();
  Restart();
  EXPECT_TRUE(Heal().bHeld);
  Close();
  // Somebody has a part of it.
  m_Sound["05/segments.dat"][4] = m_Sound["other/segments.dat"][4] = 9;
  Put(m_Sound);
  os::FileHandle pHeld = nullptr;
  ASSERT_EQ(os::kSuccess, os::Open(Path("other/segments.dat"), os::kGenericRead | os::kGenericWrite, os::kShareRead,
                                   os::Disposition::OpenExisting, 0, &pHeld));
  m_Store = m_Host->Create();
  ASSERT_CODE(errSHARING_VIOLATION, m_Store.Init());
  EXPECT_THAT(m_Store.Healed(), ::testing::ElementsAre(HasSubstr("05/segments.dat: it leads nowhere")));
  (void)os::Close(pHeld);
}

TEST_F(SalvageTest, TakesAHealingBackByATimeOfItsOwn) {
  MakeStore();
  for (const char* const pFile : {"05/segments.dat", "named/segments.dat"}) {
    Patch(pFile, 4, {9});
    Heal();
  }
  const std::multiset<std::string> Times = Healings();
  EXPECT_NE(*Times.begin(), *Times.rbegin());
}

// Killed anywhere, a replacement by the compacted pair is finished; also where a process has looked meanwhile, which
// makes an empty file; and it is taken back as one.
TEST_F(SalvageTest, FinishesWhatWasBeingReplaced) {
  MakeReplaced();
  const std::string Time = *Healings().begin();
  const Snapshot kReplaced = Take();
  const std::string kAside = "set-aside/" + Time;
  const std::pair<std::string, std::string> kMoves[] = {{"g_objid.dat", kAside + "/g_objid.dat"},
                                                        {"g_objdt.dat", kAside + "/g_objdt.dat"},
                                                        {"g_objdtcompacted.dat", "g_objdt.dat"},
                                                        {"g_objidcompacted.dat", "g_objid.dat"}};
  const Bytes kRecord = ReadFile(kAside + "/healing.json");
  for (std::size_t nDone = 0; nDone <= std::size(kMoves); ++nDone) {
    SCOPED_TRACE(nDone);
    for (const bool bBack : {false, true}) {
      Put(m_Sound);
      WriteFile(kAside + "/healing.json", kRecord);
      const std::string Mark = (bBack ? "back " : "") + Time + '\n';
      WriteFile("g_objreplacing.dat", Bytes(Mark.begin(), Mark.end()));
      for (std::size_t i = 0; i < nDone; ++i) fs::rename(Folder() / kMoves[i].first, Folder() / kMoves[i].second);
      if (!fs::exists(Folder() / "g_objid.dat")) WriteFile("g_objid.dat", {});
      EXPECT_EQ(!bBack, Heal().Refusal.empty());
      if (!bBack) {
        EXPECT_FALSE(Heal().Acts());
        EXPECT_EQ(kReplaced, Take());
      }
      EXPECT_EQ(std::vector<std::string>(), Undo(Time));
      EXPECT_EQ(m_Sound, Take());
      EXPECT_FALSE(Heal().Acts());
    }
  }
}

TEST_F(SalvageTest, ReplacesOrTakesBackNothingThatHasChanged) {
  MakeReplaced();
  const auto nWritten = fs::last_write_time(Folder() / "g_objdt.dat");
  Patch("g_objdt.dat", 50, {'!'});  // of the same size
  fs::last_write_time(Folder() / "g_objdt.dat", nWritten);
  WriteFile("g_objdtcompacted.dat", {});
  WriteFile("g_objidcompacted.dat", {});
  EXPECT_THAT(Undo(*Healings().begin()), ::testing::ElementsAre(HasSubstr("it has changed since")));
  EXPECT_EQ("", Heal().Refusal);
  Put(m_Sound);
  std::string Live;
  salvage::Plan Done;
  Must(salvage::DigestOfLivePair(WideFolder(), {}, &Live));
  Restart();
  Find(0, u"C:\\written meanwhile");
  Close();
  const Snapshot kWritten = Take();
  EXPECT_CODE(errSTATE_INVALID, salvage::ReplaceByCompacted(WideFolder(), {}, Live, &Done));
  EXPECT_EQ(kWritten, Take());
}

TEST_F(SalvageTest, TakesBackAPairBesideWhichANewOneStands) {
  MakeReplaced();
  WriteFile("g_objdtcompacted.dat", {});
  WriteFile("g_objidcompacted.dat", {});
  EXPECT_EQ(std::vector<std::string>(), Undo(*Healings().begin()));
  EXPECT_EQ(m_Sound, Take());
}

// What lay behind a restart must not be overwritten, nor joined to what came later.
TEST_F(SalvageTest, SetsAsideWhatARestartHasLeft) {
  MakeStore();
  Restart();
  Must(InitDb(5, 8));  // starts it anew
  Close();
  EXPECT_THAT(Words(Heal()), HasSubstr("05/00000003_events.dat: it lies behind the end of the chain"));
  EXPECT_FALSE(fs::exists(Folder() / "05/00000002_events.dat"));
}

}  // namespace
}  // namespace lumbra::test
