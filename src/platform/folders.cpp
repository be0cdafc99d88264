#include "platform/folders.h"

#include <string>

#include "platform/exception.h"
#include "platform/result.h"

namespace lumbra {
namespace {

std::u16string AbsolutePath(std::u16string_view Folder) {
  std::u16string Absolute;
  const os::SystemError nError = os::MakeAbsolute(Folder, &Absolute);
  if (nError != os::kSuccess) {
    throw ulo::ResultCodeException(__FILE__, __LINE__, std::u16string(Folder), ResultFromSystemError(nError));
  }
  return Absolute;
}

ResultCode CreateAbsolute(std::u16string_view Path, const os::FolderRules& Rules) {
  bool bFolder = false;
  const ResultCode nFound = ResultFromSystemError(os::IsFolder(Path, &bFolder));
  if (Succeeded(nFound)) return bFolder ? errOK : errPATH_NAME_INVALID;
  if (nFound != errFILE_NOT_FOUND && nFound != errPATH_NOT_FOUND) return nFound;

  const std::u16string_view Parent = os::ParentOf(Path);
  if (!Parent.empty()) {
    if (Parent == Path) return errPATH_NOT_FOUND;  // a root that does not exist
    const ResultCode nParent = CreateAbsolute(Parent, Rules);
    if (Failed(nParent)) return nParent;
  }
  if (os::IsFolder(Path, &bFolder) == os::kSuccess && bFolder) return errFALSE;
  return ResultFromSystemError(os::MakeFolder(Path, Rules));
}

}  // namespace

ResultCode CreateDirectories(std::u16string_view Folder, const os::FolderRules& Rules) noexcept {
  try {
    return CreateAbsolute(AbsolutePath(Folder), Rules);
  } catch (...) {
    return ResultFromCurrentException();
  }
}

}  // namespace lumbra
