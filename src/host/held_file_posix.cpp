#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "host/held_file.h"
#include "platform/posix/posix.h"
#include "platform/result.h"

namespace lumbra::host {

HeldFile::~HeldFile() {
  if (m_nHandle >= 0) close(static_cast<int>(m_nHandle));
}

ModuleProblem HeldFile::Open(const std::filesystem::path& Path, std::shared_ptr<const HeldFile>* ppFile) {
  const auto pFile = std::make_shared<HeldFile>();
  const int nDescriptor = os::OpenDescriptor(AT_FDCWD, Path.string(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  if (nDescriptor < 0 && (errno == ENOENT || errno == ENOTDIR)) return {errFILE_NOT_FOUND, "does not exist"};
  if (nDescriptor < 0) {
    const int nErrno = errno;
    return {ResultFromSystemError(os::ErrorFromErrno(nErrno)),
            "cannot be read: " + std::generic_category().message(nErrno)};
  }
  pFile->m_nHandle = nDescriptor;
  struct stat Status {};
  if (fstat(nDescriptor, &Status) != 0 || !S_ISREG(Status.st_mode)) return {errMODULE_NOT_FOUND, "is no file"};
  pFile->m_nSize = static_cast<std::uint64_t>(Status.st_size);
  *ppFile = pFile;
  return {};
}

bool HeldFile::ReadAt(std::uint64_t nOffset, void* pBuffer, std::size_t nSize) const {
  auto* pTo = static_cast<char*>(pBuffer);
  while (nSize != 0) {
    const ssize_t nRead = pread(static_cast<int>(m_nHandle), pTo, nSize, static_cast<off_t>(nOffset));
    if (nRead < 0 && errno == EINTR) continue;
    if (nRead <= 0) return false;
    pTo += nRead;
    nOffset += static_cast<std::uint64_t>(nRead);
    nSize -= static_cast<std::size_t>(nRead);
  }
  return true;
}

}  // namespace lumbra::host
