// lumbra repair: what can be done about lost and damaged files, before the store meets them.
#include <algorithm>
#include <cstdio>
#include <filesystem>

#include "commands.h"
#include "failure.h"
#include "format/file_names.h"
#include "holder.h"
#include "machine.h"
#include "salvage/apply.h"
#include "salvage/healings.h"
#include "salvage/look.h"

namespace lumbra::tool {
namespace {

void PrintSteps(const salvage::Plan& Found) {
  for (const salvage::Step& One : Found.Steps)
    std::printf("%s %s\n", One.Acts() ? "-" : "!", Printable(salvage::Describe(One)).c_str());
}

int TakeBack(const CommonOptions& Common, const StoreFiles& Files, const std::string& Time, bool bYes,
             const std::string& What) {
  if (Time.find_first_not_of("0123456789TZ-") != std::string::npos)
    throw Failure(What, errPARAMETER_INVALID, "a time is the name of a folder in set-aside");
  if (!bYes) {
    std::puts("Nothing was changed. --yes takes back what was done at that time, as far as it has not changed since.");
    return kExitOk;
  }
  std::vector<std::string> Left;
  WaitForOther Wait(Common.nWait);
  ResultCode nCode = errOK;
  do {
    Left.clear();
    nCode = salvage::Undo(Files.Folder().u16string(), RulesOf(Common), Time, &Left);
  } while (nCode == errSHARING_VIOLATION && Wait.Again());
  if (nCode == errSHARING_VIOLATION) throw HeldByAnother(What, Files.Folder());
  if (nCode == errNOT_FOUND) throw Failure(What, nCode, "nothing was done at that time");
  Check(nCode, What);
  for (const std::string& Line : Left) std::printf("! %s\n", Printable(Line).c_str());
  std::puts(Left.empty() ? "Taken back." : "What is named is left; anything else is taken back.");
  return Left.empty() ? kExitOk : kExitIncomplete;
}

// Done says whether another process has the store still.
ResultCode HealWhenFree(const CommonOptions& Common, const StoreFiles& Files, const salvage::Wishes& Wanted,
                        salvage::Plan* pDone) {
  WaitForOther Wait(Common.nWait);
  for (;;) {
    *pDone = {};
    const ResultCode nCode = salvage::Heal(Files.Folder().u16string(), RulesOf(Common), Wanted, pDone);
    if (!pDone->bHeld || !Wait.Again()) return nCode;
  }
}

// Whether a compacted pair is half put in its place, or taken back: what is set aside is needed for that.
bool IsBeingReplaced(const StoreFiles& Files) {
  std::error_code Refused;
  return std::filesystem::status(Files.Folder() / kReplacingFile, Refused).type() !=
         std::filesystem::file_type::not_found;
}

// What was taken out of the way, and all old bytes: nothing else deletes them.
int Discard(const StoreFiles& Files, bool bYes, const std::string& What) {
  if (IsBeingReplaced(Files))
    throw Failure(What, errSTATE_INVALID,
                  "a compacted pair is being put in its place, or taken back, which needs what is set aside; lumbra "
                  "repair says how to finish it");
  std::printf("%llu bytes are set aside\n", static_cast<unsigned long long>(Files.SetAsideSize()));
  if (!bYes) {
    std::puts("Nothing was changed. --yes deletes them for good.");
    return kExitOk;
  }
  Files.DiscardSetAside();
  std::puts("They are deleted.");
  return kExitOk;
}

const char* NoteOf(const salvage::Healing& Of) {
  if (!Of.Steps.empty()) return "";
  return Of.bTakenBack ? " (was taken back)" : " (the record of what was done cannot be read)";
}

void TellOfHealings(const StoreFiles& Files, const std::string& What) {
  constexpr std::size_t kMostSteps = 10;
  std::vector<salvage::Healing> All;
  Check(salvage::ListHealings(Files.Folder().u16string(), &All), What);
  if (All.empty()) return;
  std::puts("Done earlier, with all old bytes in set-aside:");
  for (const salvage::Healing& One : All) {
    std::printf("%s%s\n", One.Time.c_str(), NoteOf(One));
    const std::size_t nTold = std::min(One.Steps.size(), kMostSteps);
    for (std::size_t i = 0; i < nTold; ++i) std::printf("  %s\n", Printable(salvage::Describe(One.Steps[i])).c_str());
    if (nTold != One.Steps.size())
      std::printf("  and %llu more\n", static_cast<unsigned long long>(One.Steps.size() - nTold));
  }
  if (std::ranges::any_of(All, [](const salvage::Healing& One) { return !One.Steps.empty(); }))
    std::puts("--undo TIME --yes takes one of these back.");
  std::puts("--discard-set-aside --yes deletes what is set aside.");
}

// What a look has found, and what of it is done or could be.
int TellPlan(const StoreFiles& Files, const salvage::Plan& Found, bool bYes) {
  PrintSteps(Found);
  if (Found.Steps.empty()) {
    std::puts("Nothing is missing or damaged that could be told.");
    return kExitOk;
  }
  if (!Found.Refusal.empty()) {
    std::puts(IsBeingReplaced(Files)
                  ? "Nothing was changed."
                  : "Nothing was changed: what is missing has to come from a copy, or --start-empty does "
                    "without it.");
    return kExitFailed;
  }
  if (!Found.Acts()) {
    std::puts("Nothing can be done about this here.");
  } else if (bYes) {
    std::printf("Done: %s. All old bytes are in set-aside; --undo takes it back.\n", salvage::Summary(Found).c_str());
  } else {
    std::printf("Nothing was changed. --yes does what stands behind a -: %s.\n", salvage::Summary(Found).c_str());
  }
  return kExitIncomplete;
}

}  // namespace

int Repair(const CommonOptions& Common, const RepairOptions& Options) {
  const StoreFiles Files = FilesOf(Common);
  const std::string What = "repair " + Printable(TextOf(Files.Folder()));
  if (!Files.IsFolder()) throw Failure(What, errOBJECT_NOT_FOUND, "there is no store here");
  if (Options.bDiscard) return Discard(Files, Options.bYes, What);
  if (!Options.Undo.empty()) return TakeBack(Common, Files, Options.Undo, Options.bYes, What);
  salvage::Plan Found;
  const salvage::Wishes Wanted{.bThorough = true, .bDropped = true, .bStartEmpty = Options.bStartEmpty};
  if (!Options.bYes) {
    const ResultCode nLooked = salvage::Look(Files.Folder().u16string(), Wanted, &Found);
    if (Failed(nLooked)) throw Failure(What, nLooked, Printable(Found.Refusal));
  } else {
    const ResultCode nHealed = HealWhenFree(Common, Files, Wanted, &Found);
    if (Found.bHeld) throw HeldByAnother(What, Files.Folder());
    if (Failed(nHealed)) throw Failure(What, nHealed, Printable(Found.Refusal));
  }
  const int nStatus = TellPlan(Files, Found, Options.bYes);
  if (!Options.bYes) TellOfHealings(Files, What);
  return nStatus;
}

}  // namespace lumbra::tool
