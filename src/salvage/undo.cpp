// Takes back what was done at a time.
#include <algorithm>
#include <new>

#include "format/file_names.h"
#include "platform/result.h"
#include "salvage/apply.h"
#include "salvage/file_work.h"
#include "salvage/folder_view.h"

namespace lumbra::salvage {
namespace {

class Undoer {
 public:
  Undoer(const os::FolderHandle& pFolder, const os::FolderHandle& pAside, const std::string& Time, StoreHold* pHold,
         std::vector<std::string>* pLeft)
      : m_pFolder(pFolder), m_pAside(pAside), m_Time(Time), m_pHold(pHold), m_pLeft(pLeft) {}

  os::SystemError Run() {
    std::vector<Step> Steps;
    os::SystemError nError = ReadRecord(m_pAside, &Steps);
    if (nError != os::kSuccess) return nError;
    if (Steps.empty()) return os::kGeneralFailure;  // torn, or somebody else's
    const std::size_t nLeft = m_pLeft->size();
    const bool bPair = std::ranges::any_of(Steps, &IsRename);
    if (bPair) nError = BeginWithPair(Steps);
    if (nError != os::kSuccess || m_pLeft->size() != nLeft) return nError;
    for (auto One = Steps.rbegin(); One != Steps.rend(); ++One) {
      // What is held cannot be moved on Windows, nor opened a second time for writing.
      m_pHold->Release(One->Folder, One->File);
      if (IsRename(*One)) m_pHold->Release(One->Folder, WideName(One->After));
      nError = TakeBack(*One);
      if (nError != os::kSuccess) return nError;
    }
    if (m_pLeft->size() != nLeft) return os::kSuccess;  // the rest can be tried again
    if (bPair) nError = os::Move(m_pFolder, kReplacingFile, m_pAside, kReplacingFile, os::IfTaken::Replace);
    if (nError != os::kSuccess && nError != os::kFileNotFound) return nError;  // it was moved before the end came
    return os::Move(m_pAside, kRecord, m_pAside, kUndone, os::IfTaken::Replace);
  }

 private:
  static bool IsRename(const Step& One) { return One.What == Step::Kind::Rename; }

  // A pair that took the place of another is taken back as a whole, and only while nothing was written to it since.
  // That it is under way says a file, which also finds and goes on with what was killed; nobody may open it meanwhile:
  // so it is written only where all can be taken back.
  os::SystemError BeginWithPair(const std::vector<Step>& Steps) {
    std::string Mark;
    os::SystemError nError = ReadFile(m_pFolder, kReplacingFile, 0, kLongestMark, &Mark);
    const bool bMarked = nError == os::kSuccess;
    if (!bMarked && nError != os::kFileNotFound) return nError;
    const Replacement Underway = ReadReplacement(Mark);
    if (!Underway.Time.empty() && Underway.Time != m_Time)
      return Leave(Steps.front(), "another pair is taking its place");
    if (!bMarked && WasTakenBack()) return os::kSuccess;
    if (const char* const pWhy = WhyNot(Steps, !Underway.Time.empty())) return Leave(Steps.front(), pWhy);
    if (Underway.Time.empty()) nError = ClearPlaces(Steps);
    if (nError != os::kSuccess) return nError;
    const std::string Back = WriteReplacement({m_Time, true});
    return bMarked ? ReplaceFile(m_pFolder, kReplacingFile, Back)
                   : WriteFile(m_pFolder, kReplacingFile, Back, os::Disposition::CreateNew);
  }

  // Killed when all was done but the name of the record.
  bool WasTakenBack() const {
    std::string Mark;
    return ReadFile(m_pAside, kReplacingFile, 0, kLongestMark, &Mark) == os::kSuccess && ReadReplacement(Mark).bBack;
  }

  // Why the pair cannot be taken back. Under way, what is not in its old place yet is set aside, or was not reached.
  const char* WhyNot(const std::vector<Step>& Steps, bool bUnderway) const {
    for (const Step& One : Steps) {
      if (!IsRename(One)) continue;
      const bool bOld = HasFile(m_pAside, WideName(One.After));
      if (!bOld && (!bUnderway || !HasFile(m_pFolder, One.File))) return "the old one is not set aside any more";
      std::string Digest;
      if (!bUnderway && (DigestOf(m_pFolder, WideName(One.After), &Digest) != os::kSuccess || Digest != One.Before))
        return "it has changed since";
    }
    return nullptr;
  }

  // Another pair was compacted since, in the places to which this one goes back.
  os::SystemError ClearPlaces(const std::vector<Step>& Steps) const {
    for (const Step& One : Steps) {
      if (!IsRename(One)) continue;
      const os::SystemError nError = os::Move(m_pFolder, One.File, m_pAside, One.File, os::IfTaken::Replace);
      if (nError != os::kSuccess && nError != os::kFileNotFound) return nError;
    }
    return os::kSuccess;
  }

  os::SystemError TakeBack(const Step& One) {
    // What was replaced is taken back by names alone; that it is under way is over.
    if (One.What == Step::Kind::SetAside && One.File == kReplacingFile) return os::kSuccess;
    if (IsRename(One)) {
      const bool bSetAside = HasFile(m_pAside, WideName(One.After));
      if (!bSetAside || HasFile(m_pFolder, One.File)) return os::kSuccess;  // it was not reached, or was taken back
      const os::SystemError nError = os::Move(m_pFolder, WideName(One.After), m_pFolder, One.File, os::IfTaken::Refuse);
      return nError == os::kFileNotFound ? os::kSuccess : nError;
    }
    if (One.What == Step::Kind::SetAside) {
      const os::SystemError nError = MoveOverEmpty(m_pAside, One.File, m_pFolder, One.File);
      if (nError != os::kAlreadyExists) return nError == os::kFileNotFound ? os::kSuccess : nError;
      return Leave(One, "a new file has its name");
    }
    if (One.What == Step::Kind::Rebuild) {
      const os::SystemError nTaken =
          os::Move(m_pFolder, One.File, m_pAside, One.File + u".built", os::IfTaken::Replace);
      return nTaken == os::kFileNotFound ? os::kSuccess : nTaken;
    }
    return TakeBytesBack(One);
  }

  os::SystemError TakeBytesBack(const Step& One) {
    // Of a whole file, and of one that was extended, a byte more than it was given tells that it has grown.
    const bool bWhole = One.What != Step::Kind::Patch;
    const bool bExtended = One.Before.size() < One.After.size();
    std::string There;
    const os::SystemError nError =
        ReadFile(m_pFolder, One.File, One.nOffset, One.After.size() + (bWhole || bExtended ? 1 : 0), &There);
    if (nError == os::kFileNotFound) return os::kSuccess;  // it was not reached
    if (nError != os::kSuccess) return nError;
    if (One.What != Step::Kind::Create && There == One.Before) return os::kSuccess;
    const bool bCut = bExtended && There == One.After.substr(0, One.Before.size());  // and killed then
    if (There != One.After && !bCut) return Leave(One, "it has changed since");
    if (One.What == Step::Kind::Create) return os::Move(m_pFolder, One.File, m_pAside, One.File, os::IfTaken::Replace);
    if (bWhole) return ReplaceFile(m_pFolder, One.File, One.Before);
    OpenFile File;
    os::SystemError nPut = File.Open(m_pFolder, One.File, kHold, os::Disposition::OpenExisting);
    if (nPut == os::kSuccess && bExtended) nPut = os::SetSize(File.Handle(), One.nOffset + One.Before.size());
    return nPut == os::kSuccess ? WriteAndSync(File.Handle(), One.nOffset, One.Before) : nPut;
  }

  os::SystemError Leave(const Step& One, const char* pWhy) {
    Step Told = One;
    Told.Why = std::string("left as it is: ") + pWhy;
    m_pLeft->push_back(Describe(Told));
    return os::kSuccess;
  }

  static constexpr std::size_t kLongestMark = 64;

  os::FolderHandle m_pFolder;
  os::FolderHandle m_pAside;
  const std::string& m_Time;
  StoreHold* m_pHold;
  std::vector<std::string>* m_pLeft;
};

}  // namespace

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
    if (nError == os::kSuccess) nError = Undoer(pFolder, pAside, Time, &Hold, pLeft).Run();
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
