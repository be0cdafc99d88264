// A program that includes the face alone, with no other folder than that of the public headers: it compiles without a
// warning, and everything in the face that is a template with it.
#include "lumbra/store.hpp"

using namespace lumbra::literals;

struct Visit {
  lumbra::FileClock::time_point time;
  lumbra::ObjectId object{};
  std::uint64_t bytes{};
};

int main() {
  auto store = lumbra::Store::open("store", {.check = true, .wait = std::chrono::seconds(1)});
  auto visits = store.database<Visit>("visits");
  visits.set_limits({.max_age = std::chrono::days(7), .max_size = 2_GiB});
  auto id = visits.add({.time = lumbra::FileClock::now(), .bytes = 12});
  id = visits.add_about(lumbra::Type::file, "/a", {.time = lumbra::FileClock::now()}, &Visit::object);
  if (const auto found = visits.get(id)) visits.update(id, *found);
  for (const auto& [one, visit] : visits.between(&Visit::time, {}, lumbra::FileClock::now()))
    store.name_of(visit.object);
  auto raw = store.database(7, sizeof(Visit));
  for (const auto& [one, bytes] : raw.from(lumbra::after(id))) raw.update(one, bytes);
  auto reader = store.database<Visit>(8).last(10);
  return reader.next_batch().empty() ? 0 : 1;
}
