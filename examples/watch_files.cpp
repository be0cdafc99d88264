// A daemon that records what happens to the files of some folders, until it is told to end: docs/tutorial.md tells how
// it came about. It asks Linux, by inotify.
//
//     watch_files STORE FOLDER...
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <system_error>

#include "lumbra/store.hpp"

namespace {

namespace fs = std::filesystem;
using namespace lumbra::literals;

// What is kept of a change. Its bytes are what is stored, so none is left between or behind the members.
enum class Kind : std::uint32_t { created = 1, written = 2, removed = 3 };
struct Change {
  lumbra::FileClock::time_point time;
  lumbra::ObjectId object{};
  std::uint64_t bytes = 0;
  Kind kind{};
  std::uint32_t unused = 0;
};

volatile std::sig_atomic_t g_stop = 0;

void end_on_signals() {
  struct sigaction action {};
  action.sa_handler = [](int) {
    g_stop = 1;
  };
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

class Watch {
 public:
  explicit Watch(const lumbra::Database<Change>& changes) : m_changes(changes), m_inotify(inotify_init1(IN_CLOEXEC)) {
    if (m_inotify < 0) throw std::system_error(errno, std::generic_category(), "inotify_init1");
  }
  ~Watch() { close(m_inotify); }
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;

  void add(const fs::path& folder) {
    const int id = inotify_add_watch(m_inotify, folder.c_str(), IN_CREATE | IN_CLOSE_WRITE | IN_DELETE | IN_MOVE);
    if (id < 0) throw std::system_error(errno, std::generic_category(), folder.string());
    m_folders[id] = fs::absolute(folder).lexically_normal();
  }

  // Records what has happened meanwhile; waits for something up to a second. How many changes there were.
  int record() {
    pollfd ready{m_inotify, POLLIN, 0};
    if (poll(&ready, 1, 1000) <= 0) return 0;
    alignas(inotify_event) char buffer[16384];
    const ssize_t size = read(m_inotify, buffer, sizeof(buffer));
    int count = 0;
    for (ssize_t at = 0; at < size; ++count) {
      inotify_event event;
      std::memcpy(&event, buffer + at, sizeof(event));
      if (event.len != 0) record_one(event, buffer + at + sizeof(event));
      at += static_cast<ssize_t>(sizeof(event) + event.len);
    }
    return count;
  }

 private:
  void record_one(const inotify_event& event, const char* name) {
    const fs::path path = m_folders[event.wd] / name;
    const bool is_gone = (event.mask & (IN_DELETE | IN_MOVED_FROM)) != 0;
    std::error_code not_a_file;
    const auto bytes = fs::file_size(path, not_a_file);
    m_changes.add_about((event.mask & IN_ISDIR) != 0 ? lumbra::Type::folder : lumbra::Type::file, path.native(),
                        {.time = lumbra::FileClock::now(),
                         .bytes = not_a_file ? 0 : bytes,
                         .kind = is_gone                              ? Kind::removed
                                 : (event.mask & IN_CLOSE_WRITE) != 0 ? Kind::written
                                                                      : Kind::created},
                        &Change::object);
  }

  const lumbra::Database<Change> m_changes;
  const int m_inotify;
  std::map<int, fs::path> m_folders;
};

void run(int count, char** arguments) {
  auto store = lumbra::Store::open(arguments[1], {.check = true, .wait = std::chrono::seconds(5)});
  for (const std::string& line : store.healed()) std::fprintf(stderr, "healed %s\n", line.c_str());
  for (const std::string& line : store.left()) std::fprintf(stderr, "left as it is: %s\n", line.c_str());

  auto changes = store.database<Change>("changes");
  changes.set_limits({.max_age = std::chrono::hours(24 * 30), .max_size = 1_GiB});

  Watch watch(changes);
  for (int i = 2; i < count; ++i) watch.add(arguments[i]);
  auto flushed = std::chrono::steady_clock::now();
  bool is_dirty = false;
  while (g_stop == 0) {
    is_dirty = watch.record() != 0 || is_dirty;
    if (is_dirty && std::chrono::steady_clock::now() - flushed >= std::chrono::seconds(1)) {
      store.flush();  // what came until now survives a loss of power
      flushed = std::chrono::steady_clock::now();
      is_dirty = false;
    }
  }
  store.flush();
}

}  // namespace

int main(int count, char** arguments) {
  if (count < 3) {
    std::fputs("usage: watch_files STORE FOLDER...\n", stderr);
    return 2;
  }
  end_on_signals();
  try {
    run(count, arguments);
  } catch (const lumbra::Error& error) {
    std::fprintf(stderr, "watch_files: %s\n", error.what());
    return error.help() == lumbra::Help::retry ? 75 : 1;  // 75: whoever started this may try again
  } catch (const std::exception& error) {
    std::fprintf(stderr, "watch_files: %s\n", error.what());
    return 1;
  }
}
