// Follows a database from within the program that records: what has come since is read now and then, also behind what
// an earlier run had come to. (Other processes follow with `lumbra events --follow`, which takes no locks.)
#include <cstdint>
#include <cstdio>
#include <exception>
#include <thread>

#include "lumbra/store.hpp"

struct Visit {
  lumbra::FileClock::time_point time;
  lumbra::ObjectId object{};
  std::uint64_t bytes{};
};

constexpr std::uint32_t kCursor = 1;  // the tag of what we keep with an object of the store

int main() try {
  auto store = lumbra::Store::open("follow-store");
  auto visits = store.database<Visit>("visits");

  // Where the last run has come to. Ids grow until the database is cleared.
  auto self = store.find_or_create(lumbra::Type::name, "follow example");
  lumbra::EventId next{};
  if (const auto kept = self.text(kCursor)) next = lumbra::EventId{std::stoull(*kept)};

  std::jthread recorder([&visits](const std::stop_token& stop) {
    for (std::uint64_t i = 1; i <= 3 && !stop.stop_requested(); ++i) {
      visits.add({.time = lumbra::FileClock::now(), .bytes = i});
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  });

  auto reader = visits.from(next);
  for (int shown = 0; shown < 3;) {
    const auto batch = reader.next_batch();
    for (const auto& [id, visit] : batch) {
      std::printf("%llu bytes\n", static_cast<unsigned long long>(visit.bytes));
      next = lumbra::after(id);
      ++shown;
    }
    if (batch.empty()) std::this_thread::sleep_for(std::chrono::milliseconds(10));  // nothing for now
  }
  self.set_data(kCursor, std::to_string(static_cast<std::uint64_t>(next)));
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return 1;
}
