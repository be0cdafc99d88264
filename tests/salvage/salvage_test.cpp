// Healing: what is lost or damaged costs itself, and nothing else.
#include "salvage/apply.h"

#include <gmock/gmock.h>

#include <functional>

#include "component/component_fixture.h"
#include "salvage/look.h"

namespace lumbra::test {
namespace {

// A file of a store, and when it was written.
struct Kept {
  Bytes Content;
  fs::file_time_type Written;
};
using Snapshot = std::map<std::string, Kept>;

// Databases 5, "named" and "other": three segments of two events each, of the times 1 to 6, each with a name.
class SalvageTest : public ComponentTest {
 protected:
  void SetUp() override {}

  void MakeStore(std::uint32_t nCheckMode) {
    StartAnew();
    Restart(nCheckMode);
    Ids Dbs = {5};
    Must(InitDb(5));
    for (const char16_t* const pName : {u"named", u"other"}) Dbs.push_back(OpenNamed(pName));
    m_Ids.clear();
    for (const std::uint64_t nDb : Dbs) {
      const auto n = static_cast<std::uint32_t>(nDb);
      Must(SetLimit(n, limitSegmentEvents, 2));
      for (std::uint64_t nTime = 1; nTime <= 6; ++nTime)
        Must(Add(n, nTime, Find(n, PathOf(nTime)), &m_Ids.emplace_back()));
    }
    Close();
    m_Sound = Take();
  }
  static std::u16string PathOf(std::uint64_t nTime) {
    return u"C:\\" + std::u16string(1, static_cast<char16_t>(u'a' + nTime));
  }
  Snapshot Take() const {
    Snapshot All;
    for (const auto& Entry : fs::recursive_directory_iterator(Folder())) {
      if (!Entry.is_regular_file()) continue;
      const std::string Name = fs::relative(Entry.path(), Folder()).generic_string();
      All[Name] = {ReadFile(Name), Entry.last_write_time()};
    }
    return All;
  }
  void Put(const Snapshot& All) {
    Close();
    fs::remove_all(Folder());
    for (const auto& [Name, One] : All) {
      WriteFile(Name, One.Content);
      fs::last_write_time(Folder() / Name, One.Written);
    }
  }
  static std::map<std::string, Bytes> Contents(const Snapshot& All) {
    std::map<std::string, Bytes> Found;
    for (const auto& [Name, One] : All) Found[Name] = One.Content;
    return Found;
  }

  salvage::Plan Heal() {
    salvage::Plan Done;
    Must(salvage::Heal(WideFolder(), {}, m_Wanted, &Done));
    return Done;
  }
  std::string Words(const salvage::Plan& Of) const {
    std::string Text;
    for (const salvage::Step& One : Of.Steps) Text += salvage::Describe(One) + '\n';
    return Text;
  }

  // Opens the store and finds what is outside of a segment: "" or what is not as it was.
  std::string Missing(const std::string& Damaged) {
    std::string Told;
    if (const ResultCode nCode = Open(); Failed(nCode)) return "does not open: " + Name(nCode);
    std::size_t nNext = 0;
    for (const char* const pName : {"05", "named", "other"}) {
      const std::string Db = pName;
      std::uint32_t nDb = 5;
      const ResultCode nOpened = Db == "05" ? InitDb(5) : InitNamed(fs::path(Db).u16string().c_str(), &nDb);
      if (Failed(nOpened)) return Told + Db + " does not open: " + Name(nOpened);
      if (m_Ids[nNext] >> 56 != nDb) Told += Db + " has another id\n";
      nNext += 6;
      Must(SetLimit(nDb, limitSegmentEvents, 2));
      const bool bHere = Damaged.starts_with(Db + '/');
      const int nSegment = bHere && Damaged.find('_') == Db.size() + 9 ? Damaged[Db.size() + 8] - '0' : 0;
      std::map<std::uint64_t, std::uint64_t> There;  // the objects of events, by their times
      for (const Event& One : Events(nDb, 0, 100)) There[One.nTime] = One.nObject;
      for (std::uint64_t nTime = 1; nTime <= 6; ++nTime) {
        const bool bMayGo = nSegment == static_cast<int>((nTime + 1) / 2);
        if (!bMayGo && !There.contains(nTime)) Told += Db + " lacks event " + std::to_string(nTime) + '\n';
        // An event that began a segment has its name in the one before.
        const bool bNamed = There.contains(nTime) && static_cast<int>(There[nTime] >> 32 & 0xFFFFFF) != nSegment;
        if (bNamed && NameOf(There[nTime]) != PathOf(nTime)) Told += Db + " lacks a name\n";
      }
      std::uint64_t nId = 0;
      const ResultCode nAdded = Add(nDb, 99, 0, &nId);
      if (Failed(nAdded)) Told += Db + " takes no event: " + Name(nAdded) + '\n';
      if (std::ranges::find(m_Ids, nId) != m_Ids.end()) Told += Db + " gives an id again\n";
    }
    return Told;
  }

  // Damages one file of the sound store, heals it, and holds the laws against what is there then.
  void Try(const std::string& Words, const std::string& File, const std::function<void(Bytes&)>& Damage, bool bRemove) {
    Snapshot Damaged = m_Sound;
    if (bRemove) {
      Damaged.erase(File);
    } else {
      Damage(Damaged[File].Content);
    }
    Put(Damaged);
    const salvage::Plan Done = Heal();
    salvage::Plan Again;
    Must(salvage::Look(WideFolder(), m_Wanted, &Again));
    EXPECT_FALSE(Again.Acts()) << File << ' ' << Words << ": healed twice\n" << this->Words(Done) << this->Words(Again);
    if (!Done.Refusal.empty()) return;
    const std::string Told = Missing(File);
    EXPECT_EQ("", Told) << File << ' ' << Words << "\n" << this->Words(Done);
  }

  salvage::Wishes m_Wanted;
  Snapshot m_Sound;
  Ids m_Ids;  // of all events
};

TEST_F(SalvageTest, LeavesASoundStoreAlone) {
  for (const std::uint32_t nCheckMode : {0u, 1u}) {
    MakeStore(nCheckMode);
    EXPECT_EQ("", Words(Heal()));
    EXPECT_EQ(Contents(m_Sound), Contents(Take()));
  }
}

// Some bits of the heads of its files, and each file as a whole.
TEST_F(SalvageTest, NoFileCostsMoreThanItself) {
  for (const std::uint32_t nCheckMode : {0u, 1u}) {
    MakeStore(nCheckMode);
    for (const auto& [File, Content] : Snapshot(m_Sound)) {
      const std::string Mode = nCheckMode != 0 ? " (checked)" : "";
      // Of events that are cut off the newest segment nothing tells.
      const std::size_t nHalf = Content.Content.size() / 2;
      if (!File.ends_with("00000003_events.dat"))
        Try(
            "cut in half" + Mode, File, [nHalf](Bytes& All) { All.resize(nHalf); }, false);
      Try("removed" + Mode, File, {}, true);
      Try(
          "emptied" + Mode, File, [](Bytes& All) { All.clear(); }, false);
      for (std::size_t nBit = 0; nBit < 8 * std::min<std::size_t>(12, Content.Content.size());
           nBit += nCheckMode != 0 ? 31 : 11) {
        Try(
            "bit " + std::to_string(nBit) + Mode, File,
            [nBit](Bytes& All) { All[nBit / 8] = static_cast<std::uint8_t>(All[nBit / 8] ^ (1u << nBit % 8)); }, false);
      }
    }
  }
}

// Each cost more than itself before there was healing.
TEST_F(SalvageTest, KeepsIdsThroughOneByte) {
  MakeStore(0);
  Restart();
  const std::uint64_t nShared = Find(0, u"C:\\shared");
  Close();
  m_Sound = Take();
  Try(
      "one byte longer", "g_db_id.dat", [](Bytes& All) { All.push_back(0); }, false);
  Try(
      "another magic", "05/00000003_events.dat", [](Bytes& All) { All[0] ^= 1; }, false);
  Try(
      "another record size", "g_objid.dat", [](Bytes& All) { All[8] ^= 1; }, false);
  for (std::uint64_t n = 1; n <= 6; ++n) EXPECT_NE(nShared, Find(0, PathOf(n)));
  EXPECT_EQ(u"C:\\shared", NameOf(nShared));
}

TEST_F(SalvageTest, GivesTheOldBytesBack) {
  MakeStore(0);
  for (const std::string File :
       {"05/segments.dat", "named/segments.dat", "05/00000002_events.dat", "05/00000002_objid.dat", "g_db_id.dat"}) {
    Snapshot Damaged = m_Sound;
    if (File == "05/segments.dat") Damaged[File].Content[4] = 9;
    if (File == "named/segments.dat") Damaged[File].Content.resize(5);
    if (File.ends_with("g_db_id.dat")) Damaged[File].Content.push_back('x');
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
    std::map<std::string, Bytes> Now = Contents(Take());
    std::erase_if(Now, [](const auto& One) { return One.first.find("set-aside") != std::string::npos; });
    EXPECT_EQ(Contents(Damaged), Now) << File;
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
    EXPECT_EQ(kCompacted.at("g_objidcompacted.dat").Content, ReadFile("g_objid.dat")) << nDone;
    EXPECT_EQ(kCompacted.at("g_objdtcompacted.dat").Content, ReadFile("g_objdt.dat")) << nDone;
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
