// A store that is compared with others: what each must do, and the promise that it does it with. A write is handed to
// the system before the call returns, so that the end of the process loses nothing, and none waits for the disk, so
// that a loss of power may. Every failure is an exception: a benchmark that went wrong has no figures.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

namespace lumbra::peers {

struct Event {
  std::uint64_t nNumber;  // its position, from 0
  std::uint64_t nObject;
  std::uint8_t Rest[48];
};
static_assert(sizeof(Event) == 64);

// A path in the encoding of either interface, made before the clock runs.
struct Path {
  std::string Utf8;
  std::u16string Utf16;
};

// What those that cache blocks in memory of their own may use for it.
inline constexpr std::size_t kCacheSize = 16u << 20;

// One thread's use of one database. One session of a database writes at a time; others may read beside it.
class Session {
 public:
  virtual ~Session() = default;
  virtual void Append(const Event& Added) = 0;
  virtual void Read(std::uint64_t nFirst, std::span<Event> Into) = 0;
  virtual Event ReadLast() = 0;

  // The id of a path, which gets one when it has none. Raw calls have no paths.
  virtual std::uint64_t Intern(const Path&) { throw std::logic_error("no paths"); }
  // Copies the path of an id, in the encoding of the interface.
  virtual std::string_view PathOf(std::uint64_t, std::span<char>) { throw std::logic_error("no paths"); }
};

// An open store; its end closes it.
class Peer {
 public:
  virtual ~Peer() = default;
  virtual std::unique_ptr<Session> Use(std::uint32_t nDatabase) = 0;  // from 1
};

struct Place {
  std::filesystem::path Folder;
  std::uint32_t nDatabases = 1;
  std::uint32_t nSegmentEvents = 0;  // Lumbra alone has segments; 0: all in one
  bool bManySessions = false;        // of one database at a time
  bool bHeal = false;                // whether Lumbra looks for damage first; the others do what they need
};

// Opens the store in a folder, or makes it there.
std::unique_ptr<Peer> OpenLumbra(const Place& Where);
std::unique_ptr<Peer> OpenSqlite(const Place& Where);
std::unique_ptr<Peer> OpenLmdb(const Place& Where);
std::unique_ptr<Peer> OpenLeveldb(const Place& Where);
std::unique_ptr<Peer> OpenRocksdb(const Place& Where);
std::unique_ptr<Peer> OpenRaw(const Place& Where);

inline void Require(bool bTrue, const char* pWhat) {
  if (!bTrue) throw std::runtime_error(pWhat);
}

}  // namespace lumbra::peers
