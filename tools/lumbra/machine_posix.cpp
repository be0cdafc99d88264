#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>

#include "event_time.h"
#include "format/file_names.h"
#include "host/printed_text.h"
#include "host/text.h"
#include "lumbra/lumbra.h"
#include "machine.h"

namespace lumbra::tool {
namespace {

volatile std::sig_atomic_t g_bInterrupted = 0;

// A file that is open for reading: not what a link leads to, and nobody at the other end of a pipe is waited for.
class Descriptor {
 public:
  explicit Descriptor(const std::filesystem::path& Path)
      : m_nNumber(open(Path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK | O_NOFOLLOW)) {}
  ~Descriptor() {
    if (IsOpen()) close(m_nNumber);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  bool IsOpen() const { return m_nNumber >= 0; }
  int Number() const { return m_nNumber; }

 private:
  const int m_nNumber;
};

EntryKind KindOf(mode_t nMode) {
  if (S_ISREG(nMode)) return EntryKind::File;
  if (S_ISDIR(nMode)) return EntryKind::Folder;
  return S_ISLNK(nMode) ? EntryKind::Link : EntryKind::Other;
}

}  // namespace

std::vector<std::string> ProgramArguments(int nCount, char** ppArguments) {
  return {ppArguments, ppArguments + nCount};
}

void PrepareProcess() {}

std::string TextOf(const std::filesystem::path& Path) {
  return Path.string();
}

bool IsExactText(const std::string& /*Text*/, const std::filesystem::path& /*Path*/) {
  return true;
}

bool IsRootInFolderOfOthers() {
  struct stat Status {};
  return geteuid() == 0 && stat(".", &Status) == 0 && Status.st_uid != 0;
}

std::string WhyNoStorePath(const std::filesystem::path& Folder) {
  const std::string Text = Folder.string();
  const bool bNames = host::IsUtf8(Text) && Text.find('\\') == std::string::npos;
  return bNames ? "" : "the store's path must be UTF-8 without backslashes";
}

bool ListFolder(const std::filesystem::path& Folder, std::vector<std::filesystem::path>* pEntries,
                std::string* pReason) {
  std::error_code Refused;
  std::filesystem::directory_iterator Listing(Folder, Refused);
  for (; !Refused && Listing != std::filesystem::directory_iterator(); Listing.increment(Refused)) {
    pEntries->push_back(Listing->path());
  }
  if (Refused) *pReason = Refused.message();
  return !Refused;
}

std::filesystem::path AbsolutePath(const std::string& Text) {
  const std::filesystem::path Full = std::filesystem::absolute(Text).lexically_normal();
  return Full.has_filename() || Full == Full.root_path() ? Full : Full.parent_path();
}

bool IsSameFolderName(const std::string& Name, const std::string& Other) {
  return Name == Other;
}

std::string MessageOf(const std::error_code& Error) {
  return Error.message();
}

std::FILE* OpenStream(const std::string& Path, const char* pMode) {
  return std::fopen(Path.c_str(), pMode);
}

std::string MachineName() {
  char Name[HOST_NAME_MAX + 1] = {};
  return gethostname(Name, sizeof(Name) - 1) == 0 ? Name : "localhost";
}

std::uint32_t OwnProcess() {
  return static_cast<std::uint32_t>(getpid());
}

bool ErrorsGoToTerminal() {
  return isatty(STDERR_FILENO) != 0;
}

bool OutputIsFile() {
  struct stat Status {};
  return fstat(STDOUT_FILENO, &Status) == 0 && S_ISREG(Status.st_mode);
}

void SyncOutput() {
  (void)fdatasync(STDOUT_FILENO);  // a pipe or a terminal cannot be
}

void LetLimitsFailWrites() {
  signal(SIGXFSZ, SIG_IGN);
}

void WatchForInterrupt() {
  struct sigaction Action {};
  Action.sa_handler = [](int) {
    g_bInterrupted = 1;
  };
  // Without SA_RESTART: a read that waits for input ends.
  sigaction(SIGINT, &Action, nullptr);
  sigaction(SIGTERM, &Action, nullptr);
}

void SayInputIsRead(bool /*bRead*/) {}

bool Interrupted() {
  return g_bInterrupted != 0;
}

std::string WhyNotUsable(const std::filesystem::path& Folder) {
  struct stat Status {};
  if (stat(Folder.c_str(), &Status) != 0) {
    if (errno != ENOENT) return std::strerror(errno);
    return Folder.has_relative_path() ? WhyNotUsable(Folder.parent_path()) : std::string();
  }
  if (!S_ISDIR(Status.st_mode)) return host::Printable(Folder.string()) + " is no folder";
  const std::filesystem::path Used[] = {
      {}, kSharedTreeFile, kSharedIdsFile, kSharedDataFile, kIndexFile, NumberedFolder(kSystemDatabase)};
  for (const std::filesystem::path& Name : Used) {
    const std::filesystem::path Path = Folder / Name;
    if (access(Path.c_str(), R_OK | W_OK) != 0 && errno != ENOENT)
      return host::Printable(Path.string()) + ": " + std::strerror(errno);
  }
  return {};
}

std::filesystem::path FileWithSecondName(const std::filesystem::path& Store) {
  constexpr auto kWhatWeMay = std::filesystem::directory_options::skip_permission_denied;
  std::error_code Refused;
  std::filesystem::recursive_directory_iterator Listing(Store, kWhatWeMay, Refused);
  for (; !Refused && Listing != std::filesystem::recursive_directory_iterator(); Listing.increment(Refused)) {
    if (Listing.depth() == 1) Listing.disable_recursion_pending();  // a store has no files further down
    struct stat Status {};
    if (lstat(Listing->path().c_str(), &Status) == 0 && S_ISREG(Status.st_mode) && Status.st_nlink > 1)
      return Listing->path();
  }
  return {};
}

std::error_code ReadPlainFile(const std::filesystem::path& Path, std::uint64_t nOffset, std::size_t nSize,
                              std::string* pContent) {
  const Descriptor File(Path);
  if (!File.IsOpen()) return {errno == ELOOP ? EACCES : errno, std::generic_category()};
  struct stat Status {};
  if (fstat(File.Number(), &Status) != 0) return {errno, std::generic_category()};
  if (!S_ISREG(Status.st_mode)) return std::make_error_code(std::errc::invalid_argument);
  pContent->resize(nSize);
  std::size_t nRead = 0;
  while (nRead < nSize) {
    const ssize_t n =
        pread(File.Number(), pContent->data() + nRead, nSize - nRead, static_cast<off_t>(nOffset + nRead));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return {errno, std::generic_category()};
    if (n == 0) break;
    nRead += static_cast<std::size_t>(n);
  }
  pContent->resize(nRead);
  return {};
}

bool IsHeld(const std::filesystem::path& Path) {
  const Descriptor File(Path);
  return File.IsOpen() && flock(File.Number(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

bool Look(const std::filesystem::path& Path, Entry* pEntry, std::string* pReason) {
  struct stat Status {};
  if (lstat(Path.c_str(), &Status) != 0) {
    *pReason = std::strerror(errno);
    return false;
  }
  pEntry->Kind = KindOf(Status.st_mode);
  pEntry->nSize = static_cast<std::uint64_t>(Status.st_size);
  pEntry->nModified = FileTimeOf(Status.st_mtim.tv_sec, Status.st_mtim.tv_nsec);
  return true;
}

}  // namespace lumbra::tool
