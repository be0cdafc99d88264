// Objects: what events are about. They have a name, something that they are in, a type, and data of your own.
#include <cstdio>
#include <exception>

#include "lumbra/store.hpp"

constexpr std::uint32_t kOwner = 1;  // the tags of our data
constexpr std::uint32_t kChecksum = 2;

int main() try {
  auto store = lumbra::Store::open("names-store");

  // Objects of the store stay; those of a database go with the events of their time.
  auto report = store.find_or_create(lumbra::Type::file, "/srv/reports/today.txt");
  report.set_data(kOwner, "ada");
  const std::byte checksum[] = {std::byte{0xC0}, std::byte{0xDE}};
  report.set_data(kChecksum, checksum);

  // The folders on the way are objects, too.
  for (std::optional<lumbra::Object> at = report; at; at = at->parent()) std::puts(at->name().value_or("").c_str());

  // What is not there is no error.
  const auto found = store.find(lumbra::Type::file, "/srv/reports/yesterday.txt");
  std::printf("yesterday's report is %s\n", found ? "known" : "not known");
  std::printf("today's belongs to %s, and has a checksum of %zu bytes\n",
              report.text(kOwner).value_or("nobody").c_str(),
              report.data(kChecksum).value_or(std::vector<std::byte>()).size());

  // Names of files are bytes: they come back as they were, also where they are no UTF-8.
  const auto odd = store.find_or_create(lumbra::Type::file, "/srv/reports/caf\xE9.txt");
  std::printf("%s\n", odd.name() == "/srv/reports/caf\xE9.txt" ? "the same bytes" : "other bytes");

  report.clear_data();
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return 1;
}
