// lumbra backup: a copy of a store that may be in use, at one moment; and the check of such a copy by its manifest.
#include <chrono>
#include <cstdio>

#include "backup_manifest.h"
#include "commands.h"
#include "failure.h"
#include "format/file_names.h"
#include "host/text.h"
#include "machine.h"
#include "platform/result.h"
#include "reading.h"
#include "replace_file.h"
#include "store_copy.h"

namespace lumbra::tool {
namespace {

namespace fs = std::filesystem;

os::FolderHandle OpenBackup(const fs::path& Folder) {
  os::FolderHandle pFolder;
  const os::SystemError nError = os::OpenFolder(Folder.u16string(), {}, &pFolder);
  if (nError != os::kSuccess) throw Failure("open " + Printable(TextOf(Folder)), ResultFromSystemError(nError));
  return pFolder;
}

// The folder, made where it is missing. One that holds anything else than a backup is left alone.
os::FolderHandle PrepareFolder(const fs::path& Folder) {
  const os::SystemError nMade = os::MakeFolder(Folder.u16string(), {});
  os::FolderHandle pFolder = OpenBackup(Folder);
  if (nMade == os::kSuccess || fs::is_empty(Folder)) return pFolder;
  os::FileLook Found{};
  const bool bBackup = os::LookAt(pFolder, kManifestFile, &Found) == os::kSuccess ||
                       os::LookAt(pFolder, kSourceFile, &Found) == os::kSuccess;
  if (!bBackup)
    throw Failure("back up into " + Printable(TextOf(Folder)), errOBJECT_ALREADY_EXISTS,
                  "it holds something else than a backup");
  return pFolder;
}

bool IsWithin(const fs::path& Inner, const fs::path& Outer) {
  const fs::path In = fs::weakly_canonical(Inner);
  const fs::path Out = fs::weakly_canonical(Outer);
  return std::mismatch(Out.begin(), Out.end(), In.begin(), In.end()).first == Out.end();
}

bool IsOneName(std::u16string_view Name) {
  return !Name.empty() && Name != u"." && Name != u".." && Name.find_first_of(u"/\\") == std::u16string_view::npos;
}

// Opens the folder of a file of a backup, which lies in the backup itself or one folder below; its own name. False for
// any other name, by which a text that somebody has changed would lead elsewhere.
bool OpenPlaceOf(const os::FolderHandle& pBackup, const std::string& Name, os::FolderHandle* ppFolder,
                 std::u16string* pFile) {
  const std::size_t nSlash = Name.find('/');
  *pFile = host::ToUtf16(nSlash == std::string::npos ? Name : Name.substr(nSlash + 1));
  *ppFolder = pBackup;
  if (!IsOneName(*pFile)) return false;
  if (nSlash == std::string::npos) return true;
  const std::u16string Folder = host::ToUtf16(Name.substr(0, nSlash));
  return IsOneName(Folder) && os::OpenFolder(pBackup, Folder, ppFolder) == os::kSuccess;
}

// Files of the earlier backup that the store has no more.
void RemoveOld(const os::FolderHandle& pBackup, const BackupFiles& Before, const BackupFiles& Now) {
  for (const auto& [Name, Known] : Before) {
    os::FolderHandle pFolder;
    std::u16string File;
    if (Now.contains(Name) || !OpenPlaceOf(pBackup, Name, &pFolder, &File)) continue;
    (void)os::RemoveFile(pFolder, File);  // otherwise it stays, and stands in no manifest
  }
}

}  // namespace

int Backup(const CommonOptions& Common, const BackupOptions& Options) {
  const auto pStore = OpenToRead(Common);
  const fs::path Folder = AbsolutePath(Options.Folder);
  const fs::path From = AbsolutePath(Common.Store);
  const std::string What = "back up into " + Printable(TextOf(Folder));
  if (IsWithin(Folder, From) || IsWithin(From, Folder))
    throw Failure(What, errPARAMETER_INVALID, "the store and its backup must not lie in one another");
  os::FileLook Replacing{};
  if (os::LookAt(pStore->Folder(), kReplacingFile, &Replacing) == os::kSuccess)
    throw Failure("back up " + Printable(TextOf(From)), errSHARING_VIOLATION,
                  "its shared objects are being replaced; the next command that writes finishes that");
  const os::FolderHandle pTo = PrepareFolder(Folder);
  os::FileLook Ids{};
  (void)os::LookAt(pStore->Folder(), kSharedIdsFile, &Ids);  // without a birth when it fails
  const BackupOrigin Origin{TextOf(From), Ids.nBirth};
  BackupOrigin Earlier;
  const BackupFiles Before = ReadBackupSource(pTo, &Earlier);
  if (!Earlier.Path.empty() && !Origin.CouldBe(Earlier))
    throw Failure(What, errOBJECT_ALREADY_EXISTS,
                  "it holds a backup of another store, " + Printable(Earlier.Path) + "; name another folder");
  // From here on it is no finished backup.
  const os::SystemError nRemoved = os::RemoveFile(pTo, kManifestFile);
  if (nRemoved != os::kSuccess && nRemoved != os::kFileNotFound) throw Failure(What, ResultFromSystemError(nRemoved));

  WatchForInterrupt();
  Findings Found;
  const auto Start = std::chrono::steady_clock::now();
  StoreCopy Copy(*pStore, Folder, Before, &Found);
  const BackupFiles& Files = Copy.Run();
  RemoveOld(pTo, Before, Files);
  ReplaceFile(Folder / kSourceFile, SourceOf(Files, Origin), {});
  ReplaceFile(Folder / kManifestFile, ManifestOf(Files), {});
  const std::chrono::duration<double> Taken = std::chrono::steady_clock::now() - Start;
  std::printf("backed up %zu files, copied %llu bytes in %.3f s\n", Files.size(),
              static_cast<unsigned long long>(Copy.BytesCopied()), Taken.count());
  return Found.StatusOfReading(kExitOk);
}

int VerifyManifest(const CommonOptions& Common) {
  const fs::path Folder = AbsolutePath(Common.Store);
  const std::string What = "verify " + Printable(TextOf(Folder));
  const os::FolderHandle pFolder = OpenBackup(Folder);
  const std::optional<std::map<std::string, std::string>> Sums = ReadManifest(pFolder);
  if (!Sums) throw Failure(What, errOBJECT_NOT_FOUND, "there is no finished backup here");
  std::uint64_t nBytes = 0;
  std::size_t nWrong = 0;
  Progress Shown("bytes");
  for (const auto& [Name, Sum] : *Sums) {
    os::FolderHandle pIn;
    std::u16string File;
    std::string Found;
    std::uint64_t nSize = 0;
    os::SystemError nError = os::kFileNotFound;
    if (OpenPlaceOf(pFolder, Name, &pIn, &File)) nError = SumOf(pIn, File, &Found, &nSize);
    nBytes += nSize;
    Shown.Tell(nBytes);
    if (Found == Sum) continue;
    Shown.End();
    ++nWrong;
    const char* const pWhy = nError == os::kSuccess        ? "its sum is another one than in the manifest"
                             : nError == os::kFileNotFound ? "it is missing"
                                                           : "it cannot be read";
    std::printf("damage  %s: %s\n", Printable(Name).c_str(), pWhy);
  }
  Shown.End();
  std::printf("verified %zu files, %llu bytes: %zu damaged\n", Sums->size(), static_cast<unsigned long long>(nBytes),
              nWrong);
  return nWrong == 0 ? kExitOk : kExitIncomplete;
}

}  // namespace lumbra::tool
