// A program of somebody else: an event about a file goes in, and comes out with its name.
#include <cstdio>
#include <lumbra/store.hpp>

struct Visit {
  lumbra::FileClock::time_point time;
  lumbra::ObjectId object;
};

int main() {
  auto store = lumbra::Store::open("outside-store");
  auto visits = store.database<Visit>("visits");
  visits.add({lumbra::FileClock::now(), visits.find_or_create(lumbra::Type::file, "/etc/hosts").id()});
  bool shown = false;
  for (const auto& [id, visit] : visits.last(1)) {
    shown = store.name_of(visit.object) == "/etc/hosts";
  }
  std::puts(shown ? "an event about /etc/hosts" : "it is gone");
  return shown ? 0 : 1;
}
