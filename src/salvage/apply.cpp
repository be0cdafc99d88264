#include "salvage/apply.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <new>
#include <utility>

#include "format/file_names.h"
#include "lumbra/lumbra.h"
#include "platform/result.h"
#include "salvage/look.h"
#include "salvage/trees.h"

namespace lumbra::salvage {
namespace {

constexpr char16_t kRecord[] = u"healing.json";
constexpr char16_t kUndone[] = u"undone.json";

// ---- Files ------------------------------------------------------------------------------------------------

bool IsMissing(os::SystemError nError) {
  return nError == os::kFileNotFound || nError == os::kPathNotFound;
}

class OpenFile {
 public:
  OpenFile() = default;
  ~OpenFile() { Close(); }
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;

  os::SystemError Open(const os::FolderHandle& pFolder, std::u16string_view Name, std::uint32_t nShare,
                       os::Disposition What) {
    return os::Open(pFolder, Name, os::kGenericRead | os::kGenericWrite, nShare, What, 0, &m_Handle);
  }
  void Close() {
    if (m_Handle != nullptr) (void)os::Close(std::exchange(m_Handle, nullptr));  // who has written has flushed
  }
  os::FileHandle Handle() const { return m_Handle; }

 private:
  os::FileHandle m_Handle = nullptr;
};

constexpr std::uint32_t kHoldNothing = os::kShareRead | os::kShareWrite | os::kShareDelete;
constexpr std::uint32_t kHold = os::kShareRead;

os::SystemError WriteAndSync(os::FileHandle Handle, std::uint64_t nOffset, const std::string& Bytes) {
  std::uint32_t nWritten = 0;
  const os::SystemError nError =
      os::WriteAt(Handle, nOffset, Bytes.data(), static_cast<std::uint32_t>(Bytes.size()), &nWritten);
  if (nError != os::kSuccess) return nError;
  return nWritten == Bytes.size() ? os::Flush(Handle) : os::kDiskFull;
}

os::SystemError WriteFile(const os::FolderHandle& pFolder, std::u16string_view Name, const std::string& Content,
                          os::Disposition What) {
  OpenFile File;
  const os::SystemError nError = File.Open(pFolder, Name, kHold, What);
  return nError == os::kSuccess ? WriteAndSync(File.Handle(), 0, Content) : nError;
}

// Gives a file that is not held another content at once, and leaves it its rights.
os::SystemError ReplaceFile(const os::FolderHandle& pFolder, const std::u16string& Name, const std::string& Content) {
  const std::u16string New = Name + std::u16string(kHealingEnding);
  OpenFile Old;
  OpenFile File;
  os::SystemError nError = Old.Open(pFolder, Name, kHoldNothing, os::Disposition::OpenExisting);
  if (nError == os::kSuccess) nError = File.Open(pFolder, New, kHold, os::Disposition::CreateAlways);
  if (nError == os::kSuccess) os::TakeRightsOf(File.Handle(), Old.Handle());
  if (nError == os::kSuccess) nError = WriteAndSync(File.Handle(), 0, Content);
  Old.Close();
  File.Close();
  return nError == os::kSuccess ? os::Move(pFolder, New, pFolder, Name, os::IfTaken::Replace) : nError;
}

// Bytes of a file from an offset on, fewer at its end.
os::SystemError ReadFile(const os::FolderHandle& pFolder, std::u16string_view Name, std::uint64_t nOffset,
                         std::size_t nMost, std::string* pContent) {
  os::FileHandle Handle = nullptr;
  os::SystemError nError =
      os::Open(pFolder, Name, os::kGenericRead, kHoldNothing, os::Disposition::OpenExisting, 0, &Handle);
  if (nError != os::kSuccess) return nError;
  std::uint64_t nSize = 0;
  std::uint32_t nRead = 0;
  nError = os::GetSize(Handle, &nSize);
  if (nError == os::kSuccess && nOffset < nSize) {
    pContent->resize(static_cast<std::size_t>(std::min<std::uint64_t>(nSize - nOffset, nMost)));
    nError = os::ReadAt(Handle, nOffset, pContent->data(), static_cast<std::uint32_t>(pContent->size()), &nRead);
  }
  pContent->resize(nRead);
  (void)os::Close(Handle);  // nothing was written
  return nError;
}

os::SystemError OpenOrMakeFolder(const os::FolderHandle& pParent, std::u16string_view Name,
                                 os::FolderHandle* ppFolder) {
  os::SystemError nError = os::OpenFolder(pParent, Name, ppFolder);
  if (nError != os::kFileNotFound) return nError;
  nError = os::MakeFolder(pParent, Name);
  return nError == os::kSuccess ? os::OpenFolder(pParent, Name, ppFolder) : nError;
}

// ---- Holding a store --------------------------------------------------------------------------------------

// The files by which a process holds a store as long as it has it open: those of the shared objects, and the header of
// the system's database.
class StoreHold {
 public:
  // kSharingViolation where another process holds one. What is missing is not held: the component makes it.
  os::SystemError Take(const os::FolderHandle& pStore) {
    os::SystemError nError = os::kSuccess;
    for (const char16_t* const pName : {kSharedTreeFile, kSharedIdsFile, kSharedDataFile}) {
      if (nError == os::kSuccess) nError = TakeFile({}, pStore, pName);
    }
    if (nError != os::kSuccess) return nError;
    const std::u16string System = NumberedFolder(kSystemDatabase);
    os::FolderHandle pSystem;
    nError = os::OpenFolder(pStore, System, &pSystem);
    if (IsMissing(nError)) return os::kSuccess;
    return nError == os::kSuccess ? TakeFile(System, pSystem, kSegmentsFile) : nError;
  }

  // One of its files.
  os::SystemError TakeFile(const std::u16string& Folder, const os::FolderHandle& pFolder, const std::u16string& Name) {
    auto pFile = std::make_unique<OpenFile>();
    const os::SystemError nError = pFile->Open(pFolder, Name, kHold, os::Disposition::OpenExisting);
    if (nError == os::kFileNotFound) return os::kSuccess;
    if (nError == os::kSuccess) m_Files[{Folder, Name}] = std::move(pFile);
    if (nError != os::kSuccess) m_Refused = {.Folder = Folder, .File = Name, .Why = "it cannot be opened"};
    return nError;
  }

  // Lets go of a file that is to be moved: on Windows what is held stays where it is.
  void Release(const std::u16string& Folder, const std::u16string& File) { m_Files.erase({Folder, File}); }

  // What Take could not open.
  const Step& Refused() const { return m_Refused; }

  // The file, if it is held: on Windows nobody else can write to it meanwhile, not even we.
  os::FileHandle Find(const std::u16string& Folder, const std::u16string& File) const {
    const auto Found = m_Files.find({Folder, File});
    return Found == m_Files.end() ? nullptr : Found->second->Handle();
  }

 private:
  std::map<std::pair<std::u16string, std::u16string>, std::unique_ptr<OpenFile>> m_Files;
  Step m_Refused;
};

// ---- Carrying out -----------------------------------------------------------------------------------------

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

std::u16string WideName(const std::string& Ascii) {
  return {Ascii.begin(), Ascii.end()};
}

// One folder of a store that a plan concerns.
struct Place {
  os::FolderHandle pFolder;
  os::FolderHandle pAside;  // "set-aside/<time>" in it
};

class Healer {
 public:
  Healer(const os::FolderHandle& pStore, StoreHold* pHold) : m_pStore(pStore), m_pHold(pHold) {}

  os::SystemError Run(const std::vector<Step>& Steps) {
    os::SystemError nError = Record(Steps);
    for (const Step& One : Steps) {
      if (nError == os::kSuccess && One.Acts()) nError = Do(One);
      if (nError != os::kSuccess) {
        m_Refused = {.Folder = One.Folder, .File = One.File, .Why = "it cannot be healed now"};
        break;
      }
    }
    return nError;
  }

  // The step that failed.
  const Step& Refused() const { return m_Refused; }

 private:
  // What will be done, and all old bytes, in each folder that it concerns: on the disk before the first change.
  os::SystemError Record(const std::vector<Step>& Steps) {
    std::map<std::u16string, std::vector<Step>> ByFolder;
    for (const Step& One : Steps) {
      if (One.Acts()) ByFolder[One.Folder].push_back(One);
    }
    std::map<std::u16string, os::FolderHandle> Asides;  // "set-aside" of each
    os::SystemError nError = os::kSuccess;
    for (const auto& [Folder, Own] : ByFolder) {
      Place& At = m_Places[Folder];
      At.pFolder = m_pStore;
      if (!Folder.empty()) nError = os::OpenFolder(m_pStore, Folder, &At.pFolder);
      if (nError == os::kSuccess) nError = OpenOrMakeFolder(At.pFolder, kSetAsideFolder, &Asides[Folder]);
      if (nError != os::kSuccess) return nError;
    }
    const std::u16string Name = FreeName(Asides);
    for (const auto& [Folder, Own] : ByFolder) {
      Place& At = m_Places[Folder];
      nError = os::MakeFolder(Asides[Folder], Name);
      if (nError == os::kSuccess) nError = os::OpenFolder(Asides[Folder], Name, &At.pAside);
      if (nError == os::kSuccess) nError = WriteFile(At.pAside, kRecord, WriteSteps(Own), os::Disposition::CreateNew);
      if (nError != os::kSuccess) return nError;
    }
    return os::kSuccess;
  }

  // One name for all that is done now, by which it is taken back.
  static std::u16string FreeName(const std::map<std::u16string, os::FolderHandle>& Asides) {
    const std::string Time = Now();
    for (int nCounter = 1;; ++nCounter) {
      std::u16string Name = WideName(Time + '-' + std::to_string(nCounter));
      const bool bFree = std::ranges::all_of(Asides, [&Name](const auto& One) {
        os::FolderHandle pThere;
        return IsMissing(os::OpenFolder(One.second, Name, &pThere));
      });
      if (bFree || nCounter == kMostInASecond) return Name;
    }
  }
  static constexpr int kMostInASecond = 10000;

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
        return os::Move(At.pFolder, One.File, At.pFolder, WideName(One.After), os::IfTaken::Refuse);
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

// ---- Taking back ------------------------------------------------------------------------------------------

class Undoer {
 public:
  Undoer(const os::FolderHandle& pFolder, const os::FolderHandle& pAside, StoreHold* pHold,
         std::vector<std::string>* pLeft)
      : m_pFolder(pFolder), m_pAside(pAside), m_pHold(pHold), m_pLeft(pLeft) {}

  os::SystemError Run() {
    std::string Text;
    constexpr std::size_t kLongestRecord = std::size_t{1} << 28;
    os::SystemError nError = ReadFile(m_pAside, kRecord, 0, kLongestRecord, &Text);
    if (nError != os::kSuccess) return nError;
    std::vector<Step> Steps = ReadSteps(Text);
    if (Steps.empty()) return os::kGeneralFailure;  // torn, or somebody else's
    const std::size_t nLeft = m_pLeft->size();
    // A pair that took the place of another is taken back as a whole, and only while nothing was written to it since.
    for (const Step& One : Steps) {
      if (One.What == Step::Kind::Rename && WasWritten(One)) return Leave(One, "it has changed since");
    }
    for (auto One = Steps.rbegin(); One != Steps.rend(); ++One) {
      // What is held cannot be moved on Windows, nor opened a second time for writing.
      m_pHold->Release(One->Folder, One->File);
      if (One->What == Step::Kind::Rename) m_pHold->Release(One->Folder, WideName(One->After));
      nError = TakeBack(*One);
      if (nError != os::kSuccess) return nError;
    }
    if (m_pLeft->size() != nLeft) return os::kSuccess;  // the rest can be tried again
    return os::Move(m_pAside, kRecord, m_pAside, kUndone, os::IfTaken::Replace);
  }

 private:
  os::SystemError TakeBack(const Step& One) {
    // What was replaced is taken back by names alone; that it is under way is over.
    if (One.What == Step::Kind::SetAside && One.File == kReplacingFile) return os::kSuccess;
    if (One.What == Step::Kind::Rename) {
      const os::SystemError nError = os::Move(m_pFolder, WideName(One.After), m_pFolder, One.File, os::IfTaken::Refuse);
      return nError == os::kFileNotFound ? os::kSuccess : nError;
    }
    if (One.What == Step::Kind::SetAside) {
      const os::SystemError nError = os::Move(m_pAside, One.File, m_pFolder, One.File, os::IfTaken::Refuse);
      if (nError != os::kAlreadyExists) return nError == os::kFileNotFound ? os::kSuccess : nError;
      return Leave(One, "a new file has its name");
    }
    if (One.What == Step::Kind::Rebuild) {
      const os::SystemError nTaken =
          os::Move(m_pFolder, One.File, m_pAside, One.File + u".built", os::IfTaken::Replace);
      return nTaken == os::kFileNotFound ? os::kSuccess : nTaken;
    }
    // Of a whole file, and of one that was extended, a byte more than it was given tells that it has grown.
    const bool bWhole = One.What != Step::Kind::Patch;
    const bool bExtended = One.Before.size() < One.After.size();
    std::string There;
    const os::SystemError nError =
        ReadFile(m_pFolder, One.File, One.nOffset, One.After.size() + (bWhole || bExtended ? 1 : 0), &There);
    if (nError == os::kFileNotFound) return os::kSuccess;  // it was not reached
    if (nError != os::kSuccess) return nError;
    if (One.What != Step::Kind::Create && There == One.Before) return os::kSuccess;
    if (There != One.After) return Leave(One, "it has changed since");
    if (One.What == Step::Kind::Create) return os::Move(m_pFolder, One.File, m_pAside, One.File, os::IfTaken::Replace);
    if (bWhole) return ReplaceFile(m_pFolder, One.File, One.Before);
    OpenFile File;
    os::SystemError nPut = File.Open(m_pFolder, One.File, kHold, os::Disposition::OpenExisting);
    if (nPut == os::kSuccess && bExtended) nPut = os::SetSize(File.Handle(), One.nOffset + One.Before.size());
    return nPut == os::kSuccess ? WriteAndSync(File.Handle(), One.nOffset, One.Before) : nPut;
  }

  // Whether a file was written after it got its name, or is not there any more.
  bool WasWritten(const Step& Renamed) const {
    std::uint64_t nSize = 0;
    std::int64_t nWritten = 0;
    std::int64_t nRecorded = 0;
    const auto TimeOf = [](const os::FolderHandle& pFolder, std::u16string_view Name, std::int64_t* pnTime) {
      return os::FindFiles(pFolder, Name, [pnTime](const os::FoundFile& Found) {
        *pnTime = Found.nWriteTimeSeconds;
        return false;
      });
    };
    const std::u16string Name = WideName(Renamed.After);
    const bool bKnown = os::MeasureFile(m_pFolder, Name, &nSize) == os::kSuccess &&
                        TimeOf(m_pFolder, Name, &nWritten) == os::kSuccess &&
                        TimeOf(m_pAside, kRecord, &nRecorded) == os::kSuccess;
    return !bKnown || nSize != Renamed.nOffset || nWritten > nRecorded;
  }

  os::SystemError Leave(const Step& One, const char* pWhy) {
    Step Told = One;
    Told.Why = std::string("left as it is: ") + pWhy;
    m_pLeft->push_back(Describe(Told));
    return os::kSuccess;
  }

  os::FolderHandle m_pFolder;
  os::FolderHandle m_pAside;
  StoreHold* m_pHold;
  std::vector<std::string>* m_pLeft;
};

}  // namespace

namespace {

ResultCode HealHeld(const os::FolderHandle& pStore, const Wishes& Wanted, Plan* pDone) {
  StoreHold Hold;
  const os::SystemError nHeld = Hold.Take(pStore);
  pDone->bHeld = nHeld == os::kSharingViolation;
  if (pDone->bHeld) return errOK;
  if (nHeld != os::kSuccess) {
    pDone->Refusal = Describe(Hold.Refused());
    return ResultFromSystemError(nHeld);
  }
  const ResultCode nLooked = Look(pStore, Wanted, pDone);
  if (Failed(nLooked) || !pDone->Refusal.empty() || !pDone->Acts()) return nLooked;
  Healer Acting(pStore, &Hold);
  const os::SystemError nError = Acting.Run(pDone->Steps);
  if (nError != os::kSuccess && nError != os::kSharingViolation) pDone->Refusal = Describe(Acting.Refused());
  pDone->bHeld = nError == os::kSharingViolation;  // somebody has one of its files
  return pDone->bHeld ? errOK : ResultFromSystemError(nError);
}

}  // namespace

ResultCode Heal(const std::u16string& Store, const os::FolderRules& Rules, const Wishes& Wanted, Plan* pDone) try {
  os::FolderHandle pStore;
  os::SystemError nError = os::OpenFolder(Store, Rules, &pStore);
  if (IsMissing(nError)) return errOK;
  if (nError != os::kSuccess) return ResultFromSystemError(nError);
  ResultCode nCode = HealHeld(pStore, Wanted, pDone);
  if (pDone->bHeld || !pDone->Refusal.empty()) return nCode;
  for (const Step& One : pDone->Steps) {
    if (Succeeded(nCode) && One.What == Step::Kind::Rebuild) nCode = RebuildTree(Store, Rules, One);
  }
  return nCode;
} catch (const std::bad_alloc&) {
  return errOUT_OF_MEMORY;
}

ResultCode ReplaceByCompacted(const std::u16string& Store, const os::FolderRules& Rules, Plan* pDone) try {
  os::FolderHandle pStore;
  StoreHold Hold;
  os::SystemError nError = os::OpenFolder(Store, Rules, &pStore);
  if (nError == os::kSuccess) nError = Hold.Take(pStore);
  for (const char16_t* const pName : {kCompactedIdsFile, kCompactedDataFile}) {
    std::uint64_t nSize = 0;
    if (nError == os::kSuccess) nError = os::MeasureFile(pStore, pName, &nSize);
  }
  if (nError == os::kFileNotFound) return errNOT_FOUND;
  if (nError == os::kSuccess)
    nError = WriteFile(pStore, kReplacingFile, "the compacted pair takes the place of the live one\n",
                       os::Disposition::CreateAlways);
  if (nError != os::kSuccess) return ResultFromSystemError(nError);
  const ResultCode nLooked = Look(pStore, {}, pDone);
  return Failed(nLooked) ? nLooked : ResultFromSystemError(Healer(pStore, &Hold).Run(pDone->Steps));
} catch (const std::bad_alloc&) {
  return errOUT_OF_MEMORY;
}

ResultCode SetDatabaseAside(const std::u16string& Store, const os::FolderRules& Rules,
                            const std::u16string& Folder) try {
  os::FolderHandle pStore;
  os::FolderHandle pFolder;
  os::SystemError nError = os::OpenFolder(Store, Rules, &pStore);
  if (nError == os::kSuccess) nError = os::OpenFolder(pStore, Folder, &pFolder);
  if (nError == os::kSuccess) nError = StoreHold().TakeFile(Folder, pFolder, kSegmentsFile);
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
    Steps.push_back({.What = Step::Kind::SetAside,
                     .Folder = Folder,
                     .File = Name,
                     .Why = "the database begins anew with events of another size"});
  StoreHold Nothing;
  if (nError == os::kSuccess) nError = Healer(pStore, &Nothing).Run(Steps);
  return ResultFromSystemError(nError);
} catch (const std::bad_alloc&) {
  return errOUT_OF_MEMORY;
}

ResultCode Undo(const std::u16string& Store, const os::FolderRules& Rules, const std::string& Time,
                std::vector<std::string>* pLeft) try {
  os::FolderHandle pStore;
  os::SystemError nError = os::OpenFolder(Store, Rules, &pStore);
  StoreHold Hold;
  if (nError == os::kSuccess) nError = Hold.Take(pStore);
  if (nError != os::kSuccess) return ResultFromSystemError(nError);
  std::vector<std::u16string> Folders;
  nError = os::ListFolders(pStore, &Folders);
  if (nError != os::kSuccess) return ResultFromSystemError(nError);
  Folders.push_back({});  // the store's own
  bool bFound = false;
  for (const std::u16string& Folder : Folders) {
    os::FolderHandle pFolder = pStore;
    os::FolderHandle pAll;
    os::FolderHandle pAside;
    if (!Folder.empty()) nError = os::OpenFolder(pStore, Folder, &pFolder);
    if (nError == os::kSuccess) nError = os::OpenFolder(pFolder, kSetAsideFolder, &pAll);
    if (nError == os::kSuccess) nError = os::OpenFolder(pAll, WideName(Time), &pAside);
    if (nError == os::kSuccess) nError = Undoer(pFolder, pAside, &Hold, pLeft).Run();
    if (nError == os::kSuccess) bFound = true;
    if (nError != os::kSuccess && !IsMissing(nError) && nError != os::kAccessDenied)
      return ResultFromSystemError(nError);
    nError = os::kSuccess;
  }
  return bFound ? errOK : errNOT_FOUND;
} catch (const std::bad_alloc&) {
  return errOUT_OF_MEMORY;
}

}  // namespace lumbra::salvage
