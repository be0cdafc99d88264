// The process or the power ends at any moment of a run of work, and the store is opened on what is left. Beside that,
// the order of what is written; and faults that are planted, to see that the programme reports them.
#include <cstdio>

#include "faults/disk.h"
#include "faults/driver.h"
#include "faults/findings.h"
#include "faults/kinds.h"

namespace lumbra::test {
namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t kSteps = 150;
constexpr std::uint64_t kOtherSerials = 1000000;  // added to the seed of what is added later

// A path below the folder; nothing for another one.
std::optional<std::string> Below(const fs::path& Folder, const std::string& Path) {
  const std::string Inside = fs::path(Path).lexically_normal().lexically_relative(Folder).string();
  if (Inside.starts_with("..")) return {};
  return Inside == "." ? "" : Inside.ends_with('/') ? Inside.substr(0, Inside.size() - 1) : Inside;
}

bool EndsWith(const DiskChange& Change, DiskChange::Kind What, std::string_view Name) {
  return Change.What == What && Change.Path.ends_with(Name);
}

// Works in a folder, and tells what is told and changed, in its order. Decide says what becomes of a change. Nothing is
// really synced: the disk is ours.
template <class Note, class Decide>
void Work(const Choice& Which, bool bChecked, Note Tell, Decide FateOf) {
  const fs::path Folder = Which.Fresh("work");
  ResetSystem();
  SetClock(SystemClock() + 1000);
  WatchChanges([&](DiskChange& Change) {
    const std::optional<std::string> Path = Below(Folder, Change.Path);
    if (!Path) return Fate::IsLost;
    Change.Path = *Path;
    const Fate Decided = FateOf(Change);
    Tell(Change);
    const bool bSync = Change.What == DiskChange::Sync || Change.What == DiskChange::SyncFolder;
    return Decided == Fate::Happens && bSync ? Fate::IsLost : Decided;
  });
  Driver Work({Folder, bChecked, Which.nSeed, Tell});
  Work.Open();
  for (std::uint64_t nStep = 0; nStep < kSteps; ++nStep) Work.Step(nStep);
  Work.Flush();
}

Tape TapeOf(const Choice& Which, bool bChecked) {
  Tape All;
  Work(
      Which, bChecked, [&](const auto& One) { All.emplace_back(One); },
      [](const DiskChange&) { return Fate::Happens; });
  return All;
}

// Opens what is left, compares it, and goes on.
void CheckMoment(const Choice& Which, bool bChecked, const Disk& Left, const Record& Known, Random* pPower,
                 Driver::Lookups Names) {
  const fs::path Folder = Which.Folder / "moment";
  Left.Build(Folder, pPower);
  ResetSystem();
  Driver Next({Folder, bChecked, Which.nSeed + kOtherSerials}, Known);
  if (!Next.Open(Driver::Limits::No)) Found("it does not open");
  Next.Verify(pPower == nullptr ? Driver::End::Whole : Driver::End::Power, Names);
  Next.AddToEach("after a new start");
}

// A tape that is played: the disk and the record as they are at each moment.
struct Player {
  Disk Made;
  Record Known;
  bool bTreeUnflushed = false;  // a tree was written since the last flush ...
  bool bTreeJust = false;       // ... and with the last change

  void Apply(const Fact& Of) {
    Known.Apply(Of);
    if (Of.Kind == Fact::Flushed) bTreeUnflushed = false;
  }
  void Apply(const DiskChange& Change) {
    Made.Apply(Change);
    bTreeJust = EndsWith(Change, DiskChange::Write, "objbt.dat");
    bTreeUnflushed = bTreeUnflushed || bTreeJust;
  }
};

// Whether the record is at its strongest before this one: a change, or a fact that takes back.
bool EndsMoment(const Tape::value_type& Next) {
  const Fact* const pFact = std::get_if<Fact>(&Next);
  return pFact == nullptr || pFact->Kind == Fact::TakeBack || pFact->Kind == Fact::Drop || pFact->Kind == Fact::Clear;
}

// A case's number: checked or not, the process or the power, and at which moment. Answers how many there were.
std::uint64_t CheckMoments(const Choice& Which, bool bChecked, const Tape& All, std::uint64_t nWanted) {
  std::vector<std::size_t> Moments;
  for (std::size_t i = 1; i < All.size(); ++i) {
    if (EndsMoment(All[i])) Moments.push_back(i);
  }
  Moments.push_back(All.size());
  Choice Half = Which;
  if (Which.nOnly && (*Which.nOnly % 2 != 0) != bChecked) return 0;
  if (Which.nOnly) Half.nOnly = *Which.nOnly / 2;
  const std::vector<std::uint64_t> Cases = Half.Cases(2 * Moments.size(), nWanted);
  Player Now;
  std::size_t nPlayed = 0;
  for (const std::uint64_t nCase : Cases) {
    for (; nPlayed < Moments.at(nCase / 2); ++nPlayed) {
      std::visit([&](const auto& One) { Now.Apply(One); }, All[nPlayed]);
    }
    const bool bPower = nCase % 2 != 0;
    Which.Start("moments", 2 * nCase + (bChecked ? 1 : 0));
    Random Power(Which.nSeed + nCase);
    const bool bMayFail = bPower ? Now.bTreeUnflushed : Now.bTreeJust && bChecked;
    CheckMoment(Which, bChecked, Now.Made, Now.Known, bPower ? &Power : nullptr,
                bMayFail ? Driver::Lookups::MayFail : Driver::Lookups::MustSucceed);
  }
  return Cases.size();
}

void CheckOrder(const Tape& All) {
  OrderWatch Watch;
  for (const auto& Entry : All) std::visit([&](const auto& One) { Watch.Apply(One); }, Entry);
}

// The same work while a header that leaves a segment out cannot be written or synced.
void CheckOrderUnderFault(const Choice& Which, bool bChecked, DiskChange::Kind What, std::uint64_t nWhich) {
  OrderWatch Watch;
  bool bLimits = false;
  bool bFailed = false;
  const auto FateOf = [&](const DiskChange& Change) {
    const bool bHeader = bLimits && EndsWith(Change, What, "segments.dat");
    const bool bMoves = bHeader && (What == DiskChange::Sync || Change.Bytes != Watch.Made().Now(Change.Path));
    bFailed = bMoves && nWhich-- == 0;
    return bFailed ? Fate::Fails : Fate::Happens;
  };
  struct {
    OrderWatch* pWatch;
    bool* pbLimits;
    bool* pbFailed;
    void operator()(const Fact& Of) const {
      pWatch->Apply(Of);
      if (Of.Kind == Fact::Begin) *pbLimits = Of.Of.nTag == kAddOrLimit;
    }
    void operator()(const DiskChange& Change) const {
      if (*pbFailed) return pWatch->ApplyFailed(Change);
      pWatch->Apply(Change);
    }
  } Tell{&Watch, &bLimits, &bFailed};
  Work(Which, bChecked, Tell, FateOf);
}

}  // namespace

void RunMoments(const Choice& Which) {
  std::uint64_t nCuts = 0;
  for (const bool bChecked : {false, true}) {
    const Tape Played = TapeOf(Which, bChecked);
    if (!Which.nOnly) {
      Which.Start("moments, order of writes", UINT64_MAX);
      CheckOrder(Played);
      for (std::uint64_t n = 0; n < (Which.bLong ? 30 : 6); ++n) {
        Which.Start("moments, header not written", n);
        CheckOrderUnderFault(Which, bChecked, DiskChange::Write, n);
        Which.Start("moments, header not synced", n);
        CheckOrderUnderFault(Which, bChecked, DiskChange::Sync, n);
      }
    }
    nCuts += CheckMoments(Which, bChecked, Played, 1200);
  }
  std::printf("moments: %llu cuts\n", static_cast<unsigned long long>(nCuts));
}

// ---- Planted faults ---------------------------------------------------------------------------------------

namespace {

template <class Plant>
void Expect(const Choice& Which, const char* pWhat, Plant RunPlanted) {
  std::uint64_t nReports = 0;
  Which.Start(std::string("canary, ") + pWhat, UINT64_MAX);
  {
    const PlantedFault Planted;
    RunPlanted();
    nReports = Planted.Reports();
  }
  if (nReports == 0) Found("a planted fault was not reported");
}

// Work during which something becomes of the tenth event on its way, which shows at the end.
template <class Spoil>
void WorkWithASpoiledEvent(const Choice& Which, Spoil Decide) {
  int nEvents = 0;
  const fs::path Folder = Which.Fresh("work");
  ResetSystem();
  WatchChanges([&](DiskChange& Change) {
    const bool bTenth =
        EndsWith(Change, DiskChange::Write, "_events.dat") && Change.Bytes.size() == 32 && ++nEvents == 10;
    return bTenth ? Decide(Change) : Fate::Happens;
  });
  Driver Work({Folder, false, Which.nSeed});
  Work.Open();
  for (int i = 0; i < 5; ++i) Work.AddToEach("");
  Work.Verify(Driver::End::Whole, Driver::Lookups::MustSucceed);
}

// The position of the first such change from another one on.
std::size_t FindChange(const Tape& All, std::size_t nFrom, DiskChange::Kind What, std::string_view Name) {
  for (; nFrom < All.size(); ++nFrom) {
    const DiskChange* const pChange = std::get_if<DiskChange>(&All[nFrom]);
    if (pChange != nullptr && EndsWith(*pChange, What, Name)) return nFrom;
  }
  Found("there is nothing to plant a fault in");
  return 0;
}

}  // namespace

void RunCanary(const Choice& Chosen) {
  Choice Which = Chosen;
  Which.nSeed = 1;  // the same work each time: a planted fault must stand where it matters
  Expect(Which, "a write that never arrives",
         [&] { WorkWithASpoiledEvent(Which, [](DiskChange&) { return Fate::IsLost; }); });
  Expect(Which, "an event altered on its way", [&] {
    WorkWithASpoiledEvent(Which, [](DiskChange& Change) {
      Change.Bytes[3] ^= 1;
      return Fate::Happens;
    });
  });
  Tape All = TapeOf(Which, false);
  Expect(Which, "a sync that is none", [&] {
    Player Now;
    for (const auto& Entry : All) {
      const DiskChange* const pChange = std::get_if<DiskChange>(&Entry);
      if (pChange != nullptr && EndsWith(*pChange, DiskChange::Sync, "_events.dat")) continue;
      std::visit([&](const auto& One) { Now.Apply(One); }, Entry);
    }
    for (std::uint64_t i = 0; i < 8; ++i) {
      Random Power(i);
      CheckMoment(Which, false, Now.Made, Now.Known, &Power, Driver::Lookups::MayFail);
    }
  });
  const std::size_t nEvent = FindChange(All, All.size() / 2, DiskChange::Write, "_events.dat");
  const std::size_t nNext = FindChange(All, nEvent + 1, DiskChange::Write, ".dat");
  Expect(Which, "two writes exchanged", [&] {
    std::swap(All[nEvent], All[nNext]);
    CheckMoments(Which, false, All, UINT64_MAX);
    std::swap(All[nEvent], All[nNext]);
  });
  Expect(Which, "a header that is written behind what it orders", [&] {
    const std::size_t nRemoval = FindChange(All, 0, DiskChange::Remove, "_events.dat");
    std::size_t nHeader = nRemoval;
    for (std::size_t i = 0; i < nRemoval; ++i) {
      const DiskChange* const pChange = std::get_if<DiskChange>(&All[i]);
      if (pChange != nullptr && EndsWith(*pChange, DiskChange::Write, "segments.dat")) nHeader = i;
    }
    std::swap(All[nHeader], All[nRemoval]);
    CheckOrder(All);
  });
  std::printf("canary: 5 planted faults\n");
}

}  // namespace lumbra::test
