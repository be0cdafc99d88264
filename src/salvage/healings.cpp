#include "salvage/healings.h"

#include <map>
#include <new>

#include "format/file_names.h"
#include "platform/result.h"
#include "salvage/file_work.h"

namespace lumbra::salvage {
namespace {

// Adds what was done in one folder.
void ListIn(const os::FolderHandle& pFolder, std::map<std::string, Healing>* pFound) {
  os::FolderHandle pAll;
  std::vector<std::u16string> Times;
  if (os::OpenFolder(pFolder, kSetAsideFolder, &pAll) != os::kSuccess) return;
  if (os::ListFolders(pAll, &Times) != os::kSuccess) return;
  for (const std::u16string& Name : Times) {
    const std::string Time(Name.begin(), Name.end());  // which is ASCII where it is one
    os::FolderHandle pAside;
    if (!IsTimeOfHealing(Time) || WideName(Time) != Name) continue;
    if (os::OpenFolder(pAll, Name, &pAside) != os::kSuccess) continue;
    Healing& At = (*pFound)[Time];
    std::vector<Step> Steps;
    At.Time = Time;
    (void)ReadRecord(pAside, &Steps);  // what cannot be read has none
    At.bTakenBack = At.bTakenBack || HasFile(pAside, kUndone);
    At.Steps.insert(At.Steps.end(), Steps.begin(), Steps.end());
  }
}

}  // namespace

ResultCode ListHealings(const std::u16string& Store, std::vector<Healing>* pFound) try {
  os::FolderHandle pStore;
  std::vector<std::u16string> Folders;
  os::SystemError nError = os::OpenFolder(Store, {}, &pStore);
  if (nError == os::kSuccess) nError = os::ListFolders(pStore, &Folders);
  if (nError != os::kSuccess) return ResultFromSystemError(nError);
  std::map<std::string, Healing> Found;
  ListIn(pStore, &Found);
  for (const std::u16string& Folder : Folders) {
    os::FolderHandle pFolder;
    if (os::OpenFolder(pStore, Folder, &pFolder) == os::kSuccess) ListIn(pFolder, &Found);
  }
  for (auto& [Time, One] : Found) pFound->push_back(std::move(One));
  return errOK;
} catch (const std::bad_alloc&) {
  return errOUT_OF_MEMORY;
}

}  // namespace lumbra::salvage
