#include "salvage/trees.h"

#include <cstring>

#include "format/file_names.h"
#include "format/record_file.h"
#include "objects/objdb.h"
#include "platform/result.h"
#include "platform/storage_environment.h"

namespace lumbra::salvage {
namespace {

class Owner final : public StorageOwner {
 public:
  explicit Owner(const os::FolderRules& Rules) : m_Rules(Rules) {}
  bool ExactFileSizes() override { return false; }
  os::FolderRules RulesOfFolders() override { return m_Rules; }

 private:
  const os::FolderRules m_Rules;
};

}  // namespace

ResultCode RebuildTree(const std::u16string& Store, const os::FolderRules& Rules, const Step& Of) {
  Owner ForUs(Rules);
  StorageEnvironment OfStore;
  StorageEnvironment OfDatabase;
  const bool bShared = Of.Folder.empty();
  if (!OfStore.Init(&ForUs, Store.c_str(), FolderContent::Keep, false)) return errOPEN_FAILED;
  if (!bShared && !OfDatabase.InitBelow(&ForUs, OfStore, Store.c_str(), Of.Folder.c_str(), false))
    return errOPEN_FAILED;
  StorageEnvironment& There = bShared ? OfStore : OfDatabase;
  const os::FolderHandle pFolder = There.PlaceOf(Of.File).pFolder;
  const std::uint32_t nNumber = bShared ? 0 : NumberOfSegmentFile(Of.File);
  // Under another name until it is whole: what of it is there after a kill would pass for a tree.
  const std::u16string New = Of.File + std::u16string(kHealingEnding);
  const os::SystemError nRemoved = os::RemoveFile(pFolder, New);
  if (nRemoved != os::kSuccess && nRemoved != os::kFileNotFound) return ResultFromSystemError(nRemoved);
  ObjectFiles Files;
  ResultCode nCode = There.OpenFile(New.c_str(), 0, true, true, &Files.pTree);
  if (Succeeded(nCode)) nCode = There.OpenFile(bShared ? kSharedIdsFile : kIdsFile, nNumber, false, true, &Files.pIds);
  if (Succeeded(nCode))
    nCode = There.OpenFile(bShared ? kSharedDataFile : kDataFile, nNumber, true, true, &Files.pData);
  char Magic[sizeof(kCheckedRecordMagic)] = {};
  std::uint32_t nRead = 0;
  if (Succeeded(nCode) && !Files.pIds->SeekRead(0, Magic, sizeof(Magic), &nRead)) nCode = errREAD_FAILED;
  if (Failed(nCode)) return nCode;
  ObjectDB Objects(std::memcmp(Magic, kCheckedRecordMagic, sizeof(Magic)) == 0);
  nCode = Objects.Open(nNumber, Files, bShared ? TreeHead::Large : TreeHead::Small);
  if (Succeeded(nCode)) nCode = Objects.RefillEmptyTree(ObjectDB::Refill::Always);
  (void)Objects.Flush();  // answers errOK always
  if (Succeeded(nCode) && !Objects.IsFlushed()) nCode = errWRITE_FAILED;
  (void)Objects.Close();  // the same
  if (Failed(nCode)) return nCode;
  // An empty one that was made for the component gives way.
  return ResultFromSystemError(os::Move(pFolder, New, pFolder, Of.File, os::IfTaken::Replace));
}

}  // namespace lumbra::salvage
