#include "replace_file.h"

#include "failure.h"
#include "machine.h"

namespace lumbra::tool {
namespace {

os::SystemError WriteNew(const os::FolderHandle& pFolder, std::u16string_view Name, const std::string& Bytes) {
  os::FileHandle Handle = nullptr;
  os::SystemError nError = os::Open(pFolder, Name, os::kGenericWrite, 0, os::Disposition::CreateAlways, 0, &Handle);
  if (nError != os::kSuccess) return nError;
  std::uint32_t nWritten = 0;
  nError = os::WriteAt(Handle, 0, Bytes.data(), static_cast<std::uint32_t>(Bytes.size()), &nWritten);
  if (nError == os::kSuccess) nError = os::Flush(Handle);
  const os::SystemError nClosed = os::Close(Handle);
  return nError == os::kSuccess ? nClosed : nError;
}

ResultCode CodeOf(os::SystemError nError) {
  if (nError == os::kAccessDenied || nError == os::kWriteProtect) return errACCESS_DENIED;
  if (nError == os::kPathNotFound || nError == os::kFileNotFound) return errPATH_NOT_FOUND;
  return nError == os::kSharingViolation ? errSHARING_VIOLATION : errWRITE_FAILED;
}

}  // namespace

void ReplaceFile(const std::filesystem::path& Path, const std::string& Bytes, const os::FolderRules& Rules) {
  const std::u16string Name = Path.filename().u16string();
  const std::u16string Fresh = Name + u".new";
  os::FolderHandle pFolder;
  os::SystemError nError = os::OpenFolder(Path.parent_path().u16string(), Rules, &pFolder);
  if (nError == os::kSuccess) nError = WriteNew(pFolder, Fresh, Bytes);
  if (nError == os::kSuccess) nError = os::Move(pFolder, Fresh, pFolder, Name, os::IfTaken::Replace);
  if (nError != os::kSuccess) throw Failure("write " + Printable(TextOf(Path)), CodeOf(nError));
}

}  // namespace lumbra::tool
