// The process or the power ends at any moment of a run of work, and the store is opened on what is left. Beside that,
// the order of what is written; and faults that are planted, to see that the programme reports them.
#include <algorithm>

#include "faults/disk.h"
#include "faults/programme.h"

namespace lumbra::test {
namespace {

namespace fs = std::filesystem;

constexpr int kSteps = 150;

// A path below the folder; nothing for another one.
std::optional<std::string> Inside(const fs::path& Folder, const std::string& Path) {
  const std::string Below = fs::path(Path).lexically_normal().lexically_relative(Folder).string();
  if (Below.starts_with("..")) return {};
  return Below == "." ? "" : Below.ends_with('/') ? Below.substr(0, Below.size() - 1) : Below;
}

bool Is(const Moment& One, DiskChange::Kind What, std::string_view Name) {
  const DiskChange* const pChange = std::get_if<DiskChange>(&One);
  return pChange != nullptr && pChange->What == What && pChange->Path.ends_with(Name);
}

using Decide = std::function<Fate(DiskChange& Change, const Tape& Before)>;
Fate LetHappen(DiskChange&, const Tape&) {
  return Fate::Happens;
}

// Works, and notes what is told and changed. Nothing is really synced: the disk is ours.
Tape Work(const Choice& Which, bool bChecked, const Decide& FateOf) {
  const fs::path Folder = Which.Fresh("work");
  Tape All;
  ResetSystem();
  SetClock(SystemClock() + 1000);
  WatchChanges([&](DiskChange& Change) {
    const std::optional<std::string> Path = Inside(Folder, Change.Path);
    if (!Path) return Fate::IsLost;
    Change.Path = *Path;
    const Fate Decided = FateOf(Change, All);
    if (Decided == Fate::Fails) All.emplace_back(FailedChange{Change});
    if (Decided != Fate::Fails) All.emplace_back(Change);
    const bool bSync = Change.What == DiskChange::Sync || Change.What == DiskChange::SyncFolder;
    return Decided == Fate::Happens && bSync ? Fate::IsLost : Decided;
  });
  Driver::Setup With = Which.With(Folder, bChecked);
  With.Tell = [&](const Fact& Of) {
    All.emplace_back(Of);
  };
  Driver Work(std::move(With));
  (void)Work.Open();  // where it fails, the next step or start goes on
  for (int i = 0; i < kSteps; ++i) Work.Step();
  Work.Flush();
  Work.Verify(Driver::End::Whole, Driver::Lookups::MayFail);
  return All;
}

// ---- The order --------------------------------------------------------------------------------------------

void CheckOrder(const Tape& All) {
  OrderWatch Watch;
  for (const Moment& One : All) std::visit([&](const auto& Of) { Watch.Apply(Of); }, One);
}

// The last one that is meant; null where there is none.
const Moment* Last(const Tape& All, const std::function<bool(const Moment&)>& IsMeant) {
  const auto Found = std::find_if(All.rbegin(), All.rend(), IsMeant);
  return Found == All.rend() ? nullptr : &*Found;
}

// The same work while a header that leaves a segment out cannot be written or synced.
void CheckOrderUnderFault(const Choice& Which, bool bChecked, DiskChange::Kind What, std::uint64_t nWhich) {
  const auto FateOf = [&](const DiskChange& Change, const Tape& Before) {
    if (!Is(Change, What, "segments.dat")) return Fate::Happens;
    const Moment* const pBegun = Last(Before, [](const Moment& One) {
      const Fact* const pFact = std::get_if<Fact>(&One);
      return pFact != nullptr && pFact->Kind == Fact::Begin;
    });
    const Moment* const pWritten = Last(Before, [&](const Moment& One) { return Is(One, What, Change.Path); });
    const bool bLimits = pBegun != nullptr && std::get<Fact>(*pBegun).Of.nTag == kAddOrLimit;
    const bool bMoves =
        What == DiskChange::Sync || pWritten == nullptr || std::get<DiskChange>(*pWritten).Bytes != Change.Bytes;
    return bLimits && bMoves && nWhich-- == 0 ? Fate::Fails : Fate::Happens;
  };
  CheckOrder(Work(Which, bChecked, FateOf));
}

// ---- The moments ------------------------------------------------------------------------------------------

// The disk and the record as they are when a tape is played up to a moment.
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
    bTreeJust = Is(Change, DiskChange::Write, "objbt.dat");
    bTreeUnflushed = bTreeUnflushed || bTreeJust;
  }
  void Apply(const FailedChange&) {}
  void Play(const Moment& One) {
    std::visit([this](const auto& Of) { Apply(Of); }, One);
  }
};

// Both ends, of the process and with a seed of the power: opens what is left, compares it, and goes on.
void CheckMoment(const Choice& Which, bool bChecked, const Player& Now, std::optional<std::uint64_t> nPower) {
  const Source Chance = SourceOf(nPower.value_or(0));
  // In one of four losses of power nothing is there that was not synced.
  const bool bNothing = nPower && Chance(4) == 0;
  const fs::path Folder = Which.Folder / "moment";
  Now.Made.Build(Folder, [&](std::uint64_t nEnd) { return bNothing ? 0 : nPower ? Chance(nEnd) : nEnd - 1; });
  ResetSystem();
  Driver Next(Which.With(Folder, bChecked, kOtherSerials), Now.Known);
  if (!Next.Open(Driver::Limits::No)) Found("it does not open");
  const bool bMayFail = nPower ? Now.bTreeUnflushed : Now.bTreeJust && bChecked;
  Next.Verify(nPower ? Driver::End::Power : Driver::End::Whole,
              bMayFail ? Driver::Lookups::MayFail : Driver::Lookups::MustSucceed);
  Next.AddToEach("after a new start");
}

// Whether the record is at its strongest before this one: a change, or a fact that takes back.
bool EndsMoment(const Moment& Next) {
  const Fact* const pFact = std::get_if<Fact>(&Next);
  return pFact == nullptr || pFact->Kind == Fact::TakeBack || pFact->Kind == Fact::Drop || pFact->Kind == Fact::Clear;
}

// A case's number: checked or not, the process or the power, and at which moment. Answers how many there were.
std::size_t CheckMoments(const Choice& Which, bool bChecked, const Tape& All, std::uint64_t nWanted) {
  std::vector<std::size_t> Moments;
  for (std::size_t i = 1; i <= All.size(); ++i) {
    if (i == All.size() || EndsMoment(All[i])) Moments.push_back(i);
  }
  Choice Half = Which;
  if (Which.nOnly && (*Which.nOnly % 2 != 0) != bChecked) return 0;
  if (Which.nOnly) Half.nOnly = *Which.nOnly / 2;
  const std::vector<std::uint64_t> Cases = Half.Cases(2 * Moments.size(), nWanted);
  Player Now;
  std::size_t nPlayed = 0;
  for (const std::uint64_t nCase : Cases) {
    Which.Start("moments", 2 * nCase + (bChecked ? 1 : 0));
    while (nPlayed < Moments.at(nCase / 2)) Now.Play(All[nPlayed++]);
    CheckMoment(Which, bChecked, Now, nCase % 2 != 0 ? std::optional(Which.nSeed + nCase) : std::nullopt);
  }
  return Cases.size();
}

}  // namespace

std::string RunMoments(const Choice& Which) {
  std::size_t nCuts = 0;
  for (const bool bChecked : {false, true}) {
    Which.Start("moments, order of writes", kNoCase);
    const Tape All = Work(Which, bChecked, &LetHappen);
    if (!Which.nOnly) CheckOrder(All);
    for (std::uint64_t n = 0; n < (Which.nOnly ? 0 : Which.bLong ? 30 : 6); ++n) {
      for (const auto What : {DiskChange::Write, DiskChange::Sync}) {
        Which.Start(What == DiskChange::Write ? "moments, header not written" : "moments, header not synced", n);
        CheckOrderUnderFault(Which, bChecked, What, n);
      }
    }
    nCuts += CheckMoments(Which, bChecked, All, 1200);
  }
  return std::to_string(nCuts) + " cuts";
}

// ---- Planted faults ---------------------------------------------------------------------------------------

// A case's number: which of the faults. The work is the same each time, so that they stand where it matters.
std::string RunCanary(const Choice& Chosen) {
  Choice Which = Chosen;
  Which.nSeed = 1;
  Which.nOnly.reset();
  std::uint64_t nPlanted = 0;
  const auto Expect = [&](const char* pWhat, const std::function<void()>& Planted) {
    Which.Start(std::string("canary, ") + pWhat, nPlanted++);
    if (!IsFound(Planted)) Found("a planted fault was not reported");
  };
  // One event on its way, so late in the work that it is still there in the end.
  const auto SpoilEvent = [&](auto Spoil) {
    bool bDone = false;
    (void)Work(Which, false, [&](DiskChange& Change, const Tape& Before) {
      const bool bEvent = Is(Change, DiskChange::Write, "_events.dat") && Change.Bytes.size() == 32;
      if (bDone || !bEvent || Before.size() < 900) return Fate::Happens;
      bDone = true;
      return Spoil(Change);
    });
  };
  Expect("a write that never arrives", [&] { SpoilEvent([](DiskChange&) { return Fate::IsLost; }); });
  Expect("an event altered on its way", [&] {
    SpoilEvent([](DiskChange& Change) {
      Change.Bytes[3] ^= 1;
      return Fate::Happens;
    });
  });
  Tape All = Work(Which, false, &LetHappen);
  const auto Next = [&](std::size_t nFrom, DiskChange::Kind What, std::string_view Name) {
    while (nFrom < All.size() && !Is(All[nFrom], What, Name)) ++nFrom;
    if (nFrom == All.size()) Found("there is nothing to plant a fault in");
    return nFrom % All.size();
  };
  Expect("a sync that is none", [&] {
    Player Now;
    for (const Moment& One : All) {
      if (!Is(One, DiskChange::Sync, "_events.dat")) Now.Play(One);
    }
    for (std::uint64_t nPower = 0; nPower < 8; ++nPower) CheckMoment(Which, false, Now, nPower);
  });
  const std::size_t nEvent = Next(All.size() / 2, DiskChange::Write, "_events.dat");
  const std::size_t nBehind = Next(nEvent + 1, DiskChange::Write, ".dat");
  Expect("two writes exchanged", [&] {
    std::swap(All[nEvent], All[nBehind]);
    CheckMoments(Which, false, All, UINT64_MAX);
    std::swap(All[nEvent], All[nBehind]);
  });
  const std::size_t nRemoval = Next(0, DiskChange::Remove, "_events.dat");
  std::size_t nHeader = nRemoval;
  while (nHeader > 0 && !Is(All[nHeader], DiskChange::Write, "segments.dat")) --nHeader;
  Expect("a header that is written behind what it orders", [&] {
    std::swap(All[nHeader], All[nRemoval]);
    CheckOrder(All);
  });
  return std::to_string(nPlanted) + " planted faults";
}

}  // namespace lumbra::test
