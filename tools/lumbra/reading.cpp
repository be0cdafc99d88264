#include "reading.h"

#include <algorithm>
#include <cstdio>

#include "commands.h"
#include "failure.h"
#include "format/file_names.h"
#include "host/text.h"
#include "machine.h"
#include "platform/result.h"

namespace lumbra::tool {

bool ReadsThroughComponent(const CommonOptions& Options) {
  return !Options.Module.empty() || Options.nTraceLevel != 0;
}

std::unique_ptr<inspect::Store> OpenToRead(const CommonOptions& Options) {
  const std::filesystem::path Folder = AbsolutePath(Options.Store);
  const std::string What = "open " + Printable(TextOf(Folder));
  if (std::error_code Ignored; std::filesystem::is_symlink(Folder, Ignored))
    throw Failure(What, errACCESS_DENIED, "it is a link; name the folder that it leads to");
  std::unique_ptr<inspect::Store> pStore;
  const os::SystemError nError = inspect::Store::Open(Folder.u16string(), &pStore);
  os::FileLook Found{};
  if (nError == os::kSuccess && os::LookAt(pStore->Folder(), kSharedIdsFile, &Found) == os::kAccessDenied)
    throw Failure(What, errACCESS_DENIED, "its folder may not be read by this user");
  if (nError == os::kFileNotFound || nError == os::kPathNotFound || (nError == os::kSuccess && !pStore->IsStore()))
    throw Failure(What, errOBJECT_NOT_FOUND, "there is no store here");
  Check(ResultFromSystemError(nError), What);
  return pStore;
}

std::uint64_t CacheBytesOf(const CommonOptions& Options) {
  constexpr std::uint64_t kLeast = 256;  // KiB
  return std::max<std::uint64_t>(Options.nCacheSize, kLeast) * 1024;
}

inspect::Database Require(const inspect::Store& Store, const DatabaseName& Database) {
  const std::optional<inspect::Database> Found = Store.Find(host::ToUtf16(Database.Folder()));
  if (!Found)
    throw Failure("open " + Database.Describe(), errOBJECT_NOT_FOUND, "there is no such database in this store");
  return *Found;
}

const char* InPlaceOfName(const inspect::ObjectView& Of) {
  using State = inspect::ObjectView::State;
  if (Of.Of == State::Named) return nullptr;
  if (Of.Of == State::Nothing) return kAboutNothing;
  if (Of.Of == State::TooLong) return kNameTooLong;
  return Of.Of == State::Gone || Of.Of == State::Lost ? kNameGone : kNameUnreadable;
}

inspect::Report Findings::Teller() {
  return [this](const inspect::Finding& What) {
    constexpr const char* kGrades[] = {"damaged", "left over", "unsettled"};
    const auto nGrade = static_cast<std::size_t>(What.Of);
    std::string Line = std::string(kGrades[nGrade]) + ' ' + Printable(host::ToUtf8(What.File)) + ": " + What.What;
    if (!What.Expected.empty()) Line += " (expected " + What.Expected + ')';
    if (!What.Found.empty()) Line += " (found " + What.Found + ')';
    constexpr std::size_t kMostKept = 1000;
    m_bMissing = m_bMissing || What.Of != inspect::Grade::Leftover;
    if (m_Told.contains(Line)) return;
    if (m_Told.size() < kMostKept) m_Told.insert(Line);
    std::fflush(stdout);
    std::fprintf(stderr, "lumbra: %s\n", Line.c_str());
  };
}

int Findings::StatusOfReading(int nStatus) const {
  return nStatus == kExitOk && m_bMissing ? kExitIncomplete : nStatus;
}

}  // namespace lumbra::tool
