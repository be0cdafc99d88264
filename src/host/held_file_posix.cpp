#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "host/held_file.h"

namespace lumbra::host {

HeldFile::~HeldFile() {
  close(static_cast<int>(m_nHandle));
}

ModuleProblem HeldFile::Open(const std::filesystem::path& Path, std::shared_ptr<const HeldFile>* ppFile) {
  const int nDescriptor = open(Path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  if (nDescriptor < 0 && (errno == ENOENT || errno == ENOTDIR)) return {errFILE_NOT_FOUND, "does not exist"};
  if (nDescriptor < 0) return {errACCESS_DENIED, "cannot be read: " + std::generic_category().message(errno)};
  struct stat Status {};
  const bool bKnown = fstat(nDescriptor, &Status) == 0;
  const auto pFile = std::make_shared<const HeldFile>(nDescriptor, static_cast<std::uint64_t>(Status.st_size));
  if (!bKnown || !S_ISREG(Status.st_mode)) return {errMODULE_NOT_FOUND, "is no file"};
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
