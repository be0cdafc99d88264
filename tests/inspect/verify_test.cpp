// What verification and dumps tell of sound and damaged stores.
#include <set>

#include "inspect/damaged_stores.h"
#include "inspect/dump.h"
#include "inspect/verify.h"
#include "platform/os.h"
#include "tools/tool_fixture.h"

namespace lumbra::test {
namespace {

class VerifyTest : public ToolTest {
 protected:
  // What is found in the store, and is no leftover: "file: what".
  std::vector<std::string> Damages(const std::string& Store = "store") const {
    std::vector<std::string> All;
    for (const inspect::Finding& One : Findings(Store)) {
      if (One.Of != inspect::Grade::Leftover) All.push_back(fs::path(One.File).string() + ": " + One.What);
    }
    return All;
  }
  std::vector<inspect::Finding> Findings(const std::string& Store = "store") const {
    std::unique_ptr<inspect::Store> pStore;
    EXPECT_EQ(os::kSuccess, inspect::Store::Open((Folder() / Store).u16string(), &pStore));
    std::vector<inspect::Finding> All;
    inspect::Verified Totals;
    const auto Keep = [&All](const inspect::Finding& One) {
      All.push_back(One);
    };
    const inspect::VerifyRequest Everything{{}, [](const inspect::Database&, std::uint32_t) {
                                              return std::vector<std::uint32_t>{8};
                                            }};
    EXPECT_CODE(errOK, inspect::Verify(*pStore, Everything, Keep, nullptr, &Totals));
    return All;
  }

  // A database of all that there can be in one, with events for each name.
  void MakeDatabase(const std::string& Options) {
    Record(Options, {"first", "second", "a name with \xC3\xA9", "third"});
    const std::string Id = Find(Options.substr(0, Options.find(' ')) + " --create --type name third");
    Run("data set " + Id + " 7 in", 0, "some data");
  }
};

TEST_F(VerifyTest, FindsNothingButLeftoversInSoundStores) {
  for (const std::string Mode : {"", "--check-mode "}) {
    fs::remove_all(Folder() / "store");
    MakeTree();
    MakeDatabase("1 --segment-events 1 " + Mode);
    MakeDatabase("named " + Mode);
    Run("scan tree --db 2 --segment-events 2 --max-events 5 " + Mode);
    Run("clear --db 1 --yes");
    MakeDatabase("1 " + Mode);
    const std::string Id = Find("1 --type name second");
    Run("data set " + Id + " 1 in", 0, std::string(3000, 'x'));
    Run("data set " + Id + " 1 in", 0, std::string(6000, 'x'));
    Run("data set " + Id + " 2 in", 0, "more");
    Run("data clear " + Id);
    Run("link " + Find("1 --create --type key one") + " " + Find("1 --create --type key another"));
    Run("find --db 0 --create shared");
    EXPECT_THAT(Damages(), ::testing::IsEmpty()) << Mode;
    Run("compact --replace");
    EXPECT_THAT(Damages(), ::testing::IsEmpty()) << Mode;
    Run("verify");
  }
}

#ifndef _WIN32
TEST_F(VerifyTest, FindsNothingButLeftoversAfterKills) {
  for (int i = 0; i < 8; ++i) {
    const std::string Time = "0.0" + std::to_string(i + 2);
    const std::string Scan = std::string(LUMBRA_TOOL) + (i % 2 == 0 ? " --check-mode" : "") + " --store store" +
                             std::to_string(i % 2) + " scan --db 3 --segment-events 50 --max-events 200 /usr/include";
    RunProgram({"/bin/sh", "-c", "timeout -s KILL " + Time + " " + Scan + " >/dev/null 2>&1 || true"});
    if (!fs::exists(Folder() / ("store" + std::to_string(i % 2)))) continue;
    EXPECT_THAT(Damages("store" + std::to_string(i % 2)), ::testing::IsEmpty());
  }
}
#endif

// Each in a copy of the database of its own, so that all are waited for at once.
TEST_F(VerifyTest, FindsEveryBitThatACrcCovers) {
  MakeDatabase("1 --check-mode");
  const std::pair<const char*, std::uint64_t> Heads[] = {
      {"00000001_objid.dat", 12}, {"00000001_objdt.dat", 4}, {"00000001_objbt.dat", 16}};
  std::set<std::string> Flipped;
  for (const auto& [pFile, nHead] : Heads) {
    for (std::uint64_t nAt = nHead; nAt < FileSize(fs::path("store/01") / pFile); ++nAt) {
      const std::string Copy = std::string(pFile) + " at " + std::to_string(nAt);
      fs::copy(Folder() / "store/01", Folder() / "store" / Copy);
      const fs::path File = fs::path("store") / Copy / pFile;
      Bytes Content = ReadFile(File);
      std::uint8_t& nByte = Content[static_cast<std::size_t>(nAt)];
      nByte = static_cast<std::uint8_t>(nByte ^ (1 << nAt * 5 % 8));
      WriteFile(File, Content);
      Flipped.insert(Copy);
    }
  }
  ASSERT_LT(1000u, Flipped.size());
  for (const inspect::Finding& One : Findings()) {
    const std::string File = fs::path(One.File).generic_string();
    if (One.Of == inspect::Grade::Damage) Flipped.erase(File.substr(0, File.find('/')));
  }
  EXPECT_THAT(Flipped, ::testing::IsEmpty()) << "not found";
}

// The dump of a file ends, too, and tells of what it says of itself.
TEST_F(VerifyTest, TellsOfEveryDamagedFile) {
  MakeDatabase("1");
  std::map<std::string, fs::path> Damaged;  // folders, and the file in them
  const auto Make = [&](const std::string& File, const Damage& Of) {
    const std::string Copy = File + ", " + Of.Name;
    fs::copy(Folder() / "store/01", Folder() / "store" / Copy);
    Damaged[Copy] = Folder() / "store" / Copy / File;
    Of.Do(Damaged[Copy]);
  };
  for (const auto& Entry : fs::directory_iterator(Folder() / "store/01")) {
    const std::string File = Entry.path().filename().string();
    for (const Damage& One : DamagesOfAnyFile()) Make(File, One);
    for (const KindOfDamage& One : DamagesOfKinds()) {
      if (File.ends_with(One.File)) Make(File, One.Of);
    }
  }
  std::set<std::string> Found;
  for (const inspect::Finding& One : Findings()) {
    const std::string File = fs::path(One.File).generic_string();
    Found.insert(File.substr(0, File.find('/')));
  }
  for (const auto& [Copy, File] : Damaged) {
    EXPECT_TRUE(Found.contains(Copy)) << Copy;
    os::FolderHandle pFolder;
    ASSERT_EQ(os::kSuccess, os::OpenFolder(File.parent_path().u16string(), {}, &pFolder));
    int nLines = 0;
    bool bSound = true;
    const inspect::DumpRequest What{[&nLines](const std::string&) { return ++nLines < 100000; }, nullptr};
    const os::SystemError nError = inspect::Dump(pFolder, File.filename().u16string(), What, &bSound);
    EXPECT_EQ(fs::is_regular_file(fs::symlink_status(File)), nError == os::kSuccess) << Copy;
  }
}

TEST_F(VerifyTest, SaysWhatIsWrongAndEndsWithIt) {
  MakeDatabase("1 --check-mode");
  EXPECT_THAT(Run("verify"), ::testing::MatchesRegex(".* objects read: 0 damages, 0 unsettled, 0 leftovers\n"));
  Patch("store/01/00000001_objid.dat", 12, {0});
  EXPECT_THAT(Run("verify --db 1", 3),
              StartsWith("damage     01/00000001_objid.dat at 12: the CRC of an id record is wrong"));
  const json Line = json::parse(Run("verify --json", 3).substr(0, Run("verify --json", 3).find('\n')));
  EXPECT_EQ("damage", Line["grade"]);
  EXPECT_EQ("01/00000001_objid.dat", Line["file"]);
  EXPECT_EQ(12, Line["offset"]);
  EXPECT_THAT(Run("dump store/01/00000001_objid.dat", 3), HasSubstr("        41  !! the CRC should be 0x"));
  EXPECT_THAT(Run("dump store/01/segments.dat"), HasSubstr("         4  the oldest segment is 1\n"));
  Fails("verify --db 9", "there is no such database");
  fs::create_directory(Folder() / "other");
  EXPECT_EQ("", RunProgram({LUMBRA_TOOL, "--store", "other", "verify"}, 1));
  EXPECT_THAT(Errors(), HasSubstr("there is no store here"));
}

// An event names an object that its segment does not have.
TEST_F(VerifyTest, FindsEventsWhoseObjectsAreLost) {
  MakeDatabase("1");
  Patch("store/01/00000001_events.dat", 12 + 8, {99});
  EXPECT_THAT(Damages(), ::testing::ElementsAre("01/00000001_events.dat: an event names an object that is not there"));
}

TEST_F(VerifyTest, FindsWhatIsMissingInTheChain) {
  MakeDatabase("1 --segment-events 1");
  fs::remove(Folder() / "store/01/00000002_events.dat");
  EXPECT_THAT(Damages(), ::testing::Contains(StartsWith("01/00000002_events.dat: it is missing")));
}

// In the newest segment the next event takes its place.
TEST_F(VerifyTest, FindsATornEventWhereNoneComesAnyMore) {
  MakeDatabase("1 --segment-events 1");
  for (const char* const pFile : {"store/01/00000001_events.dat", "store/01/00000004_events.dat"})
    fs::resize_file(Folder() / pFile, FileSize(pFile) - 1);
  EXPECT_THAT(Damages(), ::testing::ElementsAre(StartsWith("01/00000001_events.dat: its last event is torn")));
}

}  // namespace
}  // namespace lumbra::test
