#include "salvage/trees.h"

#include "format/file_names.h"
#include "objects/objdb.h"
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
  const std::uint32_t nNumber = bShared ? 0 : NumberOfSegmentFile(Of.File);
  ObjectFiles Files;
  ResultCode nCode = There.OpenFile(bShared ? kSharedTreeFile : kTreeFile, nNumber, true, true, &Files.pTree);
  if (Succeeded(nCode)) nCode = There.OpenFile(bShared ? kSharedIdsFile : kIdsFile, nNumber, false, true, &Files.pIds);
  if (Succeeded(nCode))
    nCode = There.OpenFile(bShared ? kSharedDataFile : kDataFile, nNumber, true, true, &Files.pData);
  if (Failed(nCode)) return nCode;
  ObjectDB Objects(false);
  nCode = Objects.Open(nNumber, Files, bShared ? TreeHead::Large : TreeHead::Small);
  if (Succeeded(nCode)) nCode = Objects.RefillEmptyTree(ObjectDB::Refill::Always);
  (void)Objects.Flush();  // answers errOK always
  return nCode;
}

}  // namespace lumbra::salvage
