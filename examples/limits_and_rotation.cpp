// A database that stays small: whole segments are dropped, with the names in them. Each kind of event that is to be
// kept for another time has a database of its own.
#include <cstdint>
#include <cstdio>
#include <exception>
#include <string>

#include "lumbra/store.hpp"

struct Visit {
  lumbra::FileClock::time_point time;
  lumbra::ObjectId object{};
  std::uint64_t bytes{};
};

int main() try {
  using namespace lumbra::literals;
  auto store = lumbra::Store::open("limits-store");
  auto visits = store.database<Visit>("visits");
  visits.set_limits({.max_events = 1000, .segment_events = 100});  // to be set after every start
  auto audits = store.database<Visit>("audits");
  audits.set_limits({.max_age = std::chrono::days(365)});
  store.set_max_size(10_GiB);  // of all databases without a size limit of their own

  // add_about() sees to it that a name stays as long as the event that is about it, whenever a segment is started.
  for (int i = 0; i < 5000; ++i) {
    const std::string path = "/srv/files/" + std::to_string(i % 7);
    visits.add_about(lumbra::Type::file, path, {.time = lumbra::FileClock::now()}, &Visit::object);
  }

  std::uint64_t nameless = 0;
  lumbra::EventId first{};
  for (const auto& [id, visit] : visits.all()) {
    if (first == lumbra::EventId{}) first = id;
    if (!store.name_of(visit.object)) ++nameless;
  }
  std::printf("%u events are left, %llu of them without a name\n", visits.info().events,
              static_cast<unsigned long long>(nameless));

  // An event is there until its segment is dropped.
  std::printf("the oldest is %s\n", visits.get(first) ? "there" : "gone");
  visits.clear();
  std::printf("now it is %s\n", visits.get(first) ? "there" : "gone");
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return 1;
}
