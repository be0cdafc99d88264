#include "salvage/apply.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <map>
#include <new>
#include <optional>
#include <thread>
#include <utility>

#include "format/file_names.h"
#include "platform/result.h"
#include "salvage/file_work.h"
#include "salvage/folder_view.h"
#include "salvage/look.h"
#include "salvage/trees.h"

namespace lumbra::salvage {
namespace {

// "20261125T190000Z": when it is, for the name of a folder.
std::string Now() {
  constexpr std::uint64_t kUnitsPerSecond = 10000000;
  constexpr std::int64_t kSecondsTo1970 = 11644473600;
  const std::chrono::sys_seconds Time(
      std::chrono::seconds(static_cast<std::int64_t>(os::CurrentTime() / kUnitsPerSecond) - kSecondsTo1970));
  const auto Day = std::chrono::floor<std::chrono::days>(Time);
  const std::chrono::year_month_day Date(Day);
  const std::chrono::hh_mm_ss Clock(Time - Day);
  const auto Digits = [](auto nNumber) {
    const std::string Text = std::to_string(nNumber);
    return Text.size() < 2 ? '0' + Text : Text;
  };
  return Digits(static_cast<int>(Date.year())) + Digits(static_cast<unsigned>(Date.month())) +
         Digits(static_cast<unsigned>(Date.day())) + 'T' + Digits(Clock.hours().count()) +
         Digits(Clock.minutes().count()) + Digits(Clock.seconds().count()) + 'Z';
}

// A name that no folder in "set-aside" has anywhere in the store: by it all is taken back that is done now.
os::SystemError ChooseName(const os::FolderHandle& pStore, std::string* pName) {
  std::vector<std::u16string> Folders;
  const os::SystemError nError = os::ListFolders(pStore, &Folders);
  if (nError != os::kSuccess) return nError;
  std::vector<os::FolderHandle> Asides(1);
  (void)os::OpenFolder(pStore, kSetAsideFolder, &Asides.front());  // what cannot be opened is not asked when undoing
  for (const std::u16string& Folder : Folders) {
    os::FolderHandle pFolder;
    if (os::OpenFolder(pStore, Folder, &pFolder) == os::kSuccess)
      (void)os::OpenFolder(pFolder, kSetAsideFolder, &Asides.emplace_back());
  }
  const std::string Time = Now();
  constexpr int kMostInASecond = 10000;
  for (int nCounter = 1; nCounter <= kMostInASecond; ++nCounter) {
    *pName = Time + '-' + std::to_string(nCounter);
    const bool bFree = std::ranges::all_of(Asides, [pName](const os::FolderHandle& pAside) {
      os::FolderHandle pThere;
      return pAside == nullptr || IsMissing(os::OpenFolder(pAside, WideName(*pName), &pThere));
    });
    if (bFree) return os::kSuccess;
  }
  return os::kAlreadyExists;
}

// One folder of a store that a plan concerns.
struct Place {
  os::FolderHandle pFolder;
  os::FolderHandle pAside;  // "set-aside/<time>" in it
};

class Healer {
 public:
  Healer(const os::FolderHandle& pStore, StoreHold* pHold) : m_pStore(pStore), m_pHold(pHold) {}

  // Under the name of a folder in "set-aside" in which this was begun before, or a free one.
  os::SystemError Run(std::vector<Step>* pSteps, std::string Name = {}) {
    os::SystemError nError = Name.empty() ? ChooseName(m_pStore, &Name) : os::kSuccess;
    if (nError == os::kSuccess) nError = Record(*pSteps, WideName(Name));
    for (Step& One : *pSteps) {
      if (nError == os::kSuccess && One.Acts()) nError = Do(One);
      if (nError != os::kSuccess) {
        m_Refused = {.Folder = One.Folder, .File = One.File, .Why = "it cannot be healed now"};
        break;
      }
      One.bDone = One.Acts() && One.What != Step::Kind::Rebuild;
    }
    return nError;
  }

  // The step that failed.
  const Step& Refused() const { return m_Refused; }

 private:
  // What will be done, and all old bytes, in each folder that it concerns: on the disk before the first change. What
  // goes on has its record.
  os::SystemError Record(const std::vector<Step>& Steps, const std::u16string& Name) {
    std::map<std::u16string, std::vector<Step>> ByFolder;
    for (const Step& One : Steps) {
      if (One.Acts()) ByFolder[One.Folder].push_back(One);
    }
    os::SystemError nError = os::kSuccess;
    for (const auto& [Folder, Own] : ByFolder) {
      Place& At = m_Places[Folder];
      At.pFolder = m_pStore;
      os::FolderHandle pAll;
      std::vector<Step> There;
      if (!Folder.empty()) nError = os::OpenFolder(m_pStore, Folder, &At.pFolder);
      if (nError == os::kSuccess) nError = OpenOrMakeFolder(At.pFolder, kSetAsideFolder, &pAll);
      if (nError == os::kSuccess) nError = OpenOrMakeFolder(pAll, Name, &At.pAside);
      if (nError != os::kSuccess) return nError;
      nError = ReadRecord(At.pAside, &There);
      if (IsMissing(nError) || (nError == os::kSuccess && There.empty()))
        nError = WriteFile(At.pAside, kRecord, WriteSteps(Own), os::Disposition::CreateAlways);
      if (nError != os::kSuccess) return nError;
    }
    return os::kSuccess;
  }

  os::SystemError Do(const Step& One) {
    const Place& At = m_Places.at(One.Folder);
    switch (One.What) {
      case Step::Kind::Report:
        return os::kSuccess;
      case Step::Kind::Patch:
        return Patch(At, One);
      case Step::Kind::Create:
        return WriteFile(At.pFolder, One.File, One.After, os::Disposition::CreateNew);
      case Step::Kind::SetAside:
        m_pHold->Release(One.Folder, One.File);
        return os::Move(At.pFolder, One.File, At.pAside, One.File, os::IfTaken::Refuse);
      case Step::Kind::Replace:
        return ReplaceFile(At.pFolder, One.File, One.After);
      case Step::Kind::Rename:
        // What is held cannot be moved on Windows, nor another file over it.
        m_pHold->Release(One.Folder, One.File);
        m_pHold->Release(One.Folder, WideName(One.After));
        return MoveOverEmpty(At.pFolder, One.File, At.pFolder, WideName(One.After));
      case Step::Kind::Rebuild:  // when nobody holds the files
        return os::kSuccess;
    }
    return os::kNotSupported;
  }

  os::SystemError Patch(const Place& At, const Step& One) const {
    // What a folder's entry tells of a file may be older than the file.
    std::string There;
    const std::size_t nGrown = One.Before.size() < One.After.size() ? 1 : 0;
    os::SystemError nError = ReadFile(At.pFolder, One.File, One.nOffset, One.Before.size() + nGrown, &There);
    if (nError == os::kSuccess && There != One.Before) nError = os::kBusy;
    if (nError != os::kSuccess) return nError;
    if (const os::FileHandle Held = m_pHold->Find(One.Folder, One.File); Held != nullptr)
      return WriteAndSync(Held, One.nOffset, One.After);
    OpenFile File;
    nError = File.Open(At.pFolder, One.File, kHold, os::Disposition::OpenExisting);
    return nError == os::kSuccess ? WriteAndSync(File.Handle(), One.nOffset, One.After) : nError;
  }

  os::FolderHandle m_pStore;
  StoreHold* m_pHold;
  std::map<std::u16string, Place> m_Places;
  Step m_Refused;
};

// Carries out a plan, and adds to it what failed.
ResultCode CarryOut(const os::FolderHandle& pStore, StoreHold* pHold, Plan* pPlan) {
  Healer Acting(pStore, pHold);
  const os::SystemError nError = Acting.Run(&pPlan->Steps, pPlan->Replacing.value_or(""));
  if (nError != os::kSuccess) pPlan->Refusal = Describe(Acting.Refused());
  return ResultFromSystemError(nError);
}

// Whether a store that somebody holds looks as if it had to be healed, or must not be opened.
bool IsUneasy(const os::FolderHandle& pStore, const Wishes& Wanted) {
  Plan Seen;
  return Succeeded(Look(pStore, Wanted, &Seen)) && (Seen.Acts() || !Seen.Refusal.empty());
}

// Another process that looks or heals is done in a moment, and then what it has left would be opened unseen. So a store
// that is held and does not look sound is asked for again. *pbUneasy: it is held, and still looks like that.
os::SystemError TakeHold(const os::FolderHandle& pStore, const Wishes& Wanted, std::optional<StoreHold>* pHold,
                         bool* pbUneasy) {
  constexpr int kTries = 10;
  constexpr std::chrono::milliseconds kPause(20);
  for (int nTry = 1;; ++nTry) {
    const os::SystemError nError = pHold->emplace().Take(pStore);
    *pbUneasy = nError == os::kSharingViolation && IsUneasy(pStore, Wanted);
    if (!*pbUneasy || nTry == kTries) return nError;
    pHold->reset();
    std::this_thread::sleep_for(kPause);
  }
}

ResultCode HealHeld(const os::FolderHandle& pStore, const Wishes& Wanted, Plan* pDone) {
  std::optional<StoreHold> Hold;
  bool bUneasy = false;
  const os::SystemError nHeld = TakeHold(pStore, Wanted, &Hold, &bUneasy);
  const Step Refused = Hold->Refused();
  pDone->bHeld = nHeld == os::kSharingViolation;
  // Who holds a shared file keeps the component out, too. Who holds another one would let it change what is damaged.
  if (pDone->bHeld && (!bUneasy || Refused.Folder.empty())) return errOK;
  if (nHeld != os::kSuccess) {
    pDone->Refusal = Describe(Refused);
    return ResultFromSystemError(nHeld);
  }
  for (;;) {
    Plan Found;
    ResultCode nCode = Look(pStore, Wanted, &Found);
    const bool bActs = Succeeded(nCode) && Found.Refusal.empty() && Found.Acts();
    if (bActs) nCode = CarryOut(pStore, &*Hold, &Found);
    pDone->Steps.insert(pDone->Steps.end(), Found.Steps.begin(), Found.Steps.end());
    pDone->Refusal = Found.Refusal;
    if (Failed(nCode) || !bActs || !Found.Replacing) return nCode;
  }
}

}  // namespace

ResultCode Heal(const std::u16string& Store, const os::FolderRules& Rules, const Wishes& Wanted, Plan* pDone) try {
  os::FolderHandle pStore;
  os::SystemError nError = os::OpenFolder(Store, Rules, &pStore);
  if (IsMissing(nError)) return errOK;
  if (nError != os::kSuccess) return ResultFromSystemError(nError);
  const ResultCode nCode = HealHeld(pStore, Wanted, pDone);
  if (Failed(nCode) || pDone->bHeld || !pDone->Refusal.empty()) return nCode;
  for (Step& One : pDone->Steps) {
    if (One.What != Step::Kind::Rebuild) continue;
    const ResultCode nBuilt = RebuildTree(Store, Rules, One);
    if (Failed(nBuilt)) {
      pDone->Refusal = Describe({.Folder = One.Folder, .File = One.File, .Why = "it cannot be built anew now"});
      return nBuilt;
    }
    One.bDone = true;
  }
  return errOK;
} catch (const std::bad_alloc&) {
  return errOUT_OF_MEMORY;
}

namespace {

os::SystemError DigestOfPair(const os::FolderHandle& pStore, std::string* pDigest) {
  std::string Ids;
  std::string Data;
  os::SystemError nError = DigestOf(pStore, kSharedIdsFile, &Ids);
  if (nError == os::kSuccess) nError = DigestOf(pStore, kSharedDataFile, &Data);
  *pDigest = Ids + ' ' + Data;
  return nError;
}

}  // namespace

ResultCode DigestOfLivePair(const std::u16string& Store, const os::FolderRules& Rules, std::string* pDigest) try {
  os::FolderHandle pStore;
  os::SystemError nError = os::OpenFolder(Store, Rules, &pStore);
  if (nError == os::kSuccess) nError = DigestOfPair(pStore, pDigest);
  return ResultFromSystemError(nError);
} catch (const std::bad_alloc&) {
  return errOUT_OF_MEMORY;
}

ResultCode ReplaceByCompacted(const std::u16string& Store, const os::FolderRules& Rules, const std::string& Live,
                              Plan* pDone) try {
  os::FolderHandle pStore;
  StoreHold Hold;
  os::SystemError nError = os::OpenFolder(Store, Rules, &pStore);
  if (nError == os::kSuccess) nError = Hold.Take(pStore);
  for (const char16_t* const pName : {kCompactedIdsFile, kCompactedDataFile}) {
    std::uint64_t nSize = 0;
    if (nError == os::kSuccess) nError = os::MeasureFile(pStore, pName, &nSize);
  }
  if (nError == os::kFileNotFound) return errNOT_FOUND;
  std::string Now;
  std::string Name;
  if (nError == os::kSuccess) nError = DigestOfPair(pStore, &Now);
  if (nError == os::kSuccess && Now != Live) {
    pDone->Refusal = "the shared objects have changed since the pair was made of them";
    return errSTATE_INVALID;
  }
  if (nError == os::kSuccess) nError = ChooseName(pStore, &Name);
  if (nError == os::kSuccess)
    nError = WriteFile(pStore, kReplacingFile, WriteReplacement({Name}), os::Disposition::CreateAlways);
  if (nError != os::kSuccess) return ResultFromSystemError(nError);
  const ResultCode nLooked = Look(pStore, {}, pDone);
  return Failed(nLooked) ? nLooked : CarryOut(pStore, &Hold, pDone);
} catch (const std::bad_alloc&) {
  return errOUT_OF_MEMORY;
}

ResultCode SetDatabaseAside(const std::u16string& Store, const os::FolderRules& Rules,
                            const std::u16string& Folder) try {
  os::FolderHandle pStore;
  os::FolderHandle pFolder;
  StoreHold Hold;
  os::SystemError nError = os::OpenFolder(Store, Rules, &pStore);
  if (nError == os::kSuccess) nError = os::OpenFolder(pStore, Folder, &pFolder);
  if (nError == os::kSuccess) nError = Hold.TakeFile(Folder, pFolder, kSegmentsFile);
  std::vector<std::u16string> Names;
  if (nError == os::kSuccess) nError = os::ListPlainFiles(pFolder, &Names);
  std::erase_if(Names, [](const std::u16string& Name) { return !IsFileOfDatabase(Name) || Name == kIdentityFile; });
  // The newest segment first, and the header, which leads to the rest, last.
  std::ranges::sort(Names, std::greater<>());
  std::stable_partition(Names.begin(), Names.end(),
                        [](const std::u16string& Name) { return !Name.starts_with(kSegmentsFile); });
  std::vector<Step> Steps;
  Steps.reserve(Names.size());
  for (const std::u16string& Name : Names)
    Steps.push_back({.What = Step::Kind::SetAside, .Folder = Folder, .File = Name, .Why = "the database begins anew"});
  if (nError == os::kSuccess) nError = Healer(pStore, &Hold).Run(&Steps);
  return ResultFromSystemError(nError);
} catch (const std::bad_alloc&) {
  return errOUT_OF_MEMORY;
}

}  // namespace lumbra::salvage
