// Bare system calls: events in a file, one call each. No store does with less, unless it gathers events in memory.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "peer.h"

namespace lumbra::peers {
namespace {

class RawSession final : public Session {
 public:
  explicit RawSession(const std::filesystem::path& File)
      : m_nFile(open(File.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666)) {
    struct stat Status {};
    Require(m_nFile >= 0 && fstat(m_nFile, &Status) == 0, "raw: open");
    m_nEnd = Status.st_size;
  }
  ~RawSession() override { close(m_nFile); }

  void Append(const Event& Added) override {
    Require(pwrite(m_nFile, &Added, sizeof(Added), m_nEnd) == sizeof(Added), "raw: pwrite");
    m_nEnd += static_cast<off_t>(sizeof(Added));
  }
  void Read(std::uint64_t nFirst, std::span<Event> Into) override {
    const auto nRead = pread(m_nFile, Into.data(), Into.size_bytes(), static_cast<off_t>(nFirst * sizeof(Event)));
    Require(nRead == static_cast<ssize_t>(Into.size_bytes()), "raw: pread");
  }
  Event ReadLast() override {
    Event Last;
    Read(static_cast<std::uint64_t>(m_nEnd) / sizeof(Event) - 1, {&Last, 1});
    return Last;
  }

 private:
  int m_nFile;
  off_t m_nEnd = 0;
};

class Raw final : public Peer {
 public:
  explicit Raw(const Place& Where) : m_Folder(Where.Folder) {}
  std::unique_ptr<Session> Use(std::uint32_t nDatabase) override {
    return std::make_unique<RawSession>(m_Folder / std::to_string(nDatabase));
  }

 private:
  std::filesystem::path m_Folder;
};

}  // namespace

std::unique_ptr<Peer> OpenRaw(const Place& Where) {
  return std::make_unique<Raw>(Where);
}

}  // namespace lumbra::peers
