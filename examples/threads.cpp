// Several threads record, and one of them reads meanwhile. Every function may be called from any thread.
#include <cstdint>
#include <cstdio>
#include <exception>
#include <string>
#include <thread>
#include <vector>

#include "lumbra/store.hpp"

struct Visit {
  lumbra::FileClock::time_point time;
  lumbra::ObjectId object{};
  std::uint64_t bytes{};
};

void record(const lumbra::Database<Visit>& visits, int worker) try {
  const std::string path = "/srv/worker/" + std::to_string(worker);
  for (std::uint64_t i = 0; i < 1000; ++i)
    visits.add_about(lumbra::Type::file, path, {.time = lumbra::FileClock::now(), .bytes = i}, &Visit::object);
} catch (const lumbra::Error& error) {  // would otherwise end the program
  std::fprintf(stderr, "%s\n", error.what());
}

int main() try {
  auto store = lumbra::Store::open("threads-store");
  auto visits = store.database<Visit>("visits");
  visits.clear();
  std::vector<std::thread> workers;
  workers.reserve(4);
  for (int i = 0; i < 4; ++i) workers.emplace_back(record, visits, i);  // a handle is cheap to copy

  // A reader is for one thread. It goes as far as the events that are there when it begins.
  const std::uint64_t seen = [&] {
    std::uint64_t count = 0;
    auto reader = visits.all();
    for (auto batch = reader.next_batch(); !batch.empty(); batch = reader.next_batch()) count += batch.size();
    return count;
  }();

  for (std::thread& worker : workers) worker.join();
  std::printf("%s, then %u\n", seen <= 4000 ? "some were there" : "too many", visits.info().events);

  // Opening the folder again shares the store; close() ends it for all who have it.
  lumbra::Store::open("threads-store").close();
  try {
    visits.add({.time = lumbra::FileClock::now()});
  } catch (const lumbra::Error& error) {
    std::printf("%s: %s\n", error.name(), error.help() == lumbra::Help::reopen ? "open it again" : "?");
  }
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return 1;
}
