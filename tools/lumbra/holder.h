// Another process that has the store: who it is, and waiting for its end.
#pragma once

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "failure.h"
#include "inspect/store.h"

namespace lumbra::tool {

// "lumbra (pid 4711, user ada)", of several with ", " between them; empty for none.
std::string Describe(const std::vector<inspect::Holder>& Holders);

// That another process has the store of this folder, and which one, where the system tells.
Failure HeldByAnother(const std::string& What, const std::filesystem::path& Store);

// How long a command waits for another process.
class WaitForOther {
 public:
  explicit WaitForOther(std::uint32_t nSeconds);

  // Waits a little before the next try. False, at once, when the time is up, and after Ctrl-C.
  bool Again();

 private:
  std::chrono::steady_clock::time_point m_End;
  std::chrono::milliseconds m_Next{50};
};

}  // namespace lumbra::tool
