// Records visits of files, and reads the last of them back.
#include <cstdint>
#include <cstdio>
#include <exception>

#include "lumbra/store.hpp"

struct Visit {
  lumbra::FileClock::time_point time;
  lumbra::ObjectId object{};
  std::uint64_t bytes{};
};

int main() try {
  using namespace lumbra::literals;
  auto store = lumbra::Store::open("audit-store");
  auto visits = store.database<Visit>("visits");  // or a number; Visit is trivially copyable
  visits.set_limits({.max_age = std::chrono::days(7), .max_size = 2_GiB});

  auto file = visits.find_or_create(lumbra::Type::file, "/var/log/syslog");
  visits.add({.time = lumbra::FileClock::now(), .object = file.id(), .bytes = 12});
  visits.add_about(lumbra::Type::file, "/var/log/auth.log", {.time = lumbra::FileClock::now()}, &Visit::object);
  store.flush();  // what was added survives the program anyway; this brings it to the disk

  for (const auto& [id, visit] : visits.last(10)) std::puts(store.name_of(visit.object).value_or("(gone)").c_str());
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return 1;
}
