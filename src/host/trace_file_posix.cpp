#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "host/trace_file.h"
#include "host/trust.h"
#include "platform/posix/posix.h"

namespace lumbra::host {
namespace {

bool IsOurs(int nDescriptor) {
  struct stat Status {};
  return fstat(nDescriptor, &Status) == 0 && S_ISREG(Status.st_mode) && Status.st_nlink == 1 &&
         WhyNotTrusted(nDescriptor, TrustedOwner::User).empty();
}

// Opens what is there and ours, or makes it. The mode is set as well: the process's mask may have taken all of it.
int Open(const std::filesystem::path& Path) {
  constexpr int kFlags = O_WRONLY | O_APPEND | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
  constexpr mode_t kOwnerAlone = S_IRUSR | S_IWUSR;
  const int nMade = os::OpenDescriptor(AT_FDCWD, Path.string(), kFlags | O_CREAT | O_EXCL, kOwnerAlone);
  if (nMade >= 0) (void)fchmod(nMade, kOwnerAlone);  // a file system without modes refuses
  if (nMade >= 0 || errno != EEXIST) return nMade;
  const int nThere = os::OpenDescriptor(AT_FDCWD, Path.string(), kFlags);
  if (nThere < 0 || IsOurs(nThere)) return nThere;
  close(nThere);
  return -1;
}

}  // namespace

std::FILE* OpenTraceFile(const std::filesystem::path& Path, bool bReplace) {
  const int nDescriptor = Open(Path);
  if (nDescriptor < 0) return nullptr;
  std::FILE* pFile = nullptr;
  if (!bReplace || ftruncate(nDescriptor, 0) == 0) pFile = fdopen(nDescriptor, "ab");
  if (pFile == nullptr) close(nDescriptor);
  return pFile;
}

}  // namespace lumbra::host
