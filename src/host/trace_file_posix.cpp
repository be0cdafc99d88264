#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "host/trace_file.h"

namespace lumbra::host {

std::FILE* OpenTraceFile(const std::filesystem::path& Path, bool bReplace) {
  constexpr int kFlags = O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
  const int nDescriptor = open(Path.c_str(), kFlags, S_IRUSR | S_IWUSR);
  if (nDescriptor < 0) return nullptr;
  struct stat Status {};
  const bool bPlain = fstat(nDescriptor, &Status) == 0 && S_ISREG(Status.st_mode) && Status.st_nlink == 1;
  std::FILE* pFile = nullptr;
  if (bPlain && (!bReplace || ftruncate(nDescriptor, 0) == 0)) pFile = fdopen(nDescriptor, "ab");
  if (pFile == nullptr) close(nDescriptor);
  return pFile;
}

}  // namespace lumbra::host
