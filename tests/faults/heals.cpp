// Each file of a store is lost, cut short or altered by a bit, and the store is healed before it is opened. Nothing but
// what stands in that file may be missing then, also where the healing itself was killed or met a fault.
#include <sys/wait.h>
#include <unistd.h>

#include "faults/programme.h"
#include "salvage/apply.h"
#include "salvage/look.h"

namespace lumbra::test {
namespace {

namespace fs = std::filesystem;

// A case's number: which file, and what becomes of it.
struct Damage {
  Damage(std::uint64_t nCase, const Files& Sound) {
    for (const auto& [Name, Content] : Sound) {
      const std::uint64_t nOwn = CasesOf(Content);
      if (nCase >= nOwn) {
        nCase -= nOwn;
        continue;
      }
      File = Name;
      nSize = Content.size();
      if (nCase > nSize) nBit = nCase - nSize - 1;
      if (nCase < nSize) nLength = nCase;
      break;
    }
  }
  static std::uint64_t CasesOf(const std::string& Content) { return 1 + 9 * Content.size(); }

  void Apply(Files* pStore) const {
    std::string& Content = pStore->at(File);
    if (nLength) {
      Content.resize(*nLength);
    } else if (nBit) {
      Content[*nBit / 8] = static_cast<char>(Content[*nBit / 8] ^ (1 << *nBit % 8));
    } else {
      pStore->erase(File);
    }
  }
  Driver::Shape ShapeLeft(bool bChecked) const {
    constexpr std::uint64_t kLowestOfFirst = 32;  // in "segments.dat": with it, or the next, a chain starts later
    if (nBit && *nBit - kLowestOfFirst < 2 && File.ends_with("segments.dat")) return Driver::Shape::StartsLater;
    return IsCutInRecord(bChecked) ? Driver::Shape::Shorter : Driver::Shape::Altered;
  }
  // Of names whose records are cut off as a whole nothing tells, where no event has them.
  bool IsCutInRecord(bool bChecked) const {
    return nLength && (!File.ends_with("objid.dat") || (*nLength - 12) % (bChecked ? 33 : 29) != 0);
  }
  std::string Describe() const {
    return File + (nLength ? " cut to " + std::to_string(*nLength) : nBit ? " bit " + std::to_string(*nBit) : " lost");
  }

  std::string File;
  std::uint64_t nSize = 0;
  std::optional<std::uint64_t> nLength;
  std::optional<std::uint64_t> nBit;
};

ResultCode Heal(const fs::path& Folder) {
  salvage::Plan Done;
  return salvage::Heal(Folder.u16string(), {}, {}, &Done);
}

// Takes back all that is set aside.
void Undo(const fs::path& Folder) {
  std::set<std::string> Times;
  for (const auto& Entry : fs::recursive_directory_iterator(Folder))
    if (Entry.path().parent_path().filename() == "set-aside") Times.insert(Entry.path().filename().string());
  std::vector<std::string> Left;
  for (const std::string& Time : Times) (void)salvage::Undo(Folder.u16string(), {}, Time, &Left);
}

// In a process that is gone before one of its changes.
void UntilKilled(std::uint64_t nChange, const std::function<void()>& Act) {
  const pid_t nChild = fork();
  if (nChild == 0) {
    PauseFaults(false);
    WatchChanges([&nChange](DiskChange&) {
      if (nChange-- == 0) _exit(0);
      return Fate::Happens;
    });
    Act();
    _exit(0);
  }
  waitpid(nChild, nullptr, 0);
}

// Healing again finds nothing to do, and what was done is taken back to the byte, also where that was killed.
void HealAndTakeBack(const fs::path& Folder, const Files& Damaged, std::uint64_t nChange) {
  salvage::Plan Second;
  if (Succeeded(Heal(Folder)) && Succeeded(salvage::Look(Folder.u16string(), {}, &Second)) && Second.Acts())
    Found("it is healed twice: " + salvage::Describe(Second.Steps.front()));
  UntilKilled(nChange, [&] { Undo(Folder); });
  Undo(Folder);
  Files Now = ReadFiles(Folder);
  std::erase_if(Now, [](const auto& One) { return One.first.find("set-aside") != std::string::npos; });
  if (Now != Damaged) Found("it is not taken back");
}

void HealUnderFault(const fs::path& Folder, std::uint64_t nCall) {
  PauseFaults(false);
  FailAnyCalls(static_cast<FaultCause>(nCall % 3), nCall, nCall % 2 != 0 ? UINT64_MAX : 1);
  (void)Heal(Folder);
  ResetSystem();
}

}  // namespace

std::string RunHeals(const Choice& Which) {
  std::uint64_t nRun = 0;
  std::uint64_t nAll = 0;
  for (const bool bChecked : {false, true}) {
    const fs::path Folder = Which.Fresh("heals");
    Which.Start("heals", kNoCase);
    const Record Known = MakeStore(Which, Folder, bChecked, 200);  // steps, so many that some chain starts behind 1
    const Files Sound = ReadFiles(Folder);
    std::uint64_t nOwn = 0;
    std::set<std::uint64_t> Chosen;  // every file is lost once
    for (const auto& One : Sound) {
      if (!Which.nOnly) Chosen.insert(nOwn + One.second.size());
      nOwn += Damage::CasesOf(One.second);
    }
    for (const std::uint64_t nCase : Which.Cases(nOwn, 500)) Chosen.insert(nCase);
    const Source Chance = SourceOf(Which.nSeed);
    for (const std::uint64_t nCase : Chosen) {
      const Damage How(nCase, Sound);
      Which.Start((bChecked ? "heals (checked), " : "heals, ") + How.Describe(), nCase);
      Files Damaged = Sound;
      How.Apply(&Damaged);
      WriteFiles(Folder, Damaged);
      const std::uint64_t nEnd = Chance(4);
      if (nEnd == 1) UntilKilled(Chance(12), [&] { (void)Heal(Folder); });
      if (nEnd == 2) HealUnderFault(Folder, Chance(200));
      if (nEnd == 3) HealAndTakeBack(Folder, Damaged, Chance(12));
      Driver::Setup With = Which.With(Folder, bChecked, kOtherSerials);
      With.What = host::Heal::On;
      Driver(std::move(With), Known).VerifyHealed(How.File, How.ShapeLeft(bChecked));
      ++nRun;
    }
    nAll += nOwn;
  }
  return std::to_string(nRun) + " of " + std::to_string(nAll);
}

}  // namespace lumbra::test
