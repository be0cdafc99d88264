// How the commands that read see a store: they take no lock and write nothing, and so work beside whoever writes, and
// for a user who may only read. With --module or --trace they go through the component instead, as those do that write.
#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>

#include "inspect/finding.h"
#include "inspect/paths.h"
#include "inspect/store.h"
#include "session.h"

namespace lumbra::tool {

bool ReadsThroughComponent(const CommonOptions& Options);

// Opens the store that the options name, and a database of it; throws a Failure where there is none.
std::unique_ptr<inspect::Store> OpenToRead(const CommonOptions& Options);
inspect::Database Require(const inspect::Store& Store, const DatabaseName& Database);

// What a reader keeps of a store's files in memory, at least a little.
std::uint64_t CacheBytesOf(const CommonOptions& Options);

// What people are shown in place of an object's name; null where there is one.
const char* InPlaceOfName(const inspect::ObjectView& Of);

// Tells on stderr what is found, a line each, and remembers that something was.
class Findings {
 public:
  // The report that does so, of each finding once. This outlives it.
  inspect::Report Teller();

  // The exit status of a command that reads: kExitIncomplete where something was damaged or missing.
  int StatusOfReading(int nStatus) const;
  void NoteMissing() { m_bMissing = true; }

 private:
  bool m_bMissing = false;
  std::set<std::string> m_Told;
};

}  // namespace lumbra::tool
