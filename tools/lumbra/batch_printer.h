// Prints many events by a second thread, while the next ones are read.
#pragma once

#include <cstdint>
#include <future>
#include <span>
#include <vector>

#include "event_output.h"
#include "inspect/event_reader.h"
#include "inspect/paths.h"

namespace lumbra::tool {

class BatchPrinter {
 public:
  static constexpr std::size_t kFewest = 16384;  // below it that does not pay

  // Prints some events of a batch. The objects, if any, stay good until the next call; the output is used by nobody
  // else until Wait has been called.
  void Print(EventOutput* pOutput, const inspect::Batch& Read, std::uint32_t nEventSize,
             std::span<const std::uint32_t> Positions, const inspect::ObjectView* pObjects);

  // Until all is printed. False where standard output took no more.
  bool Wait();

 private:
  bool PrintAll(EventOutput* pOutput, inspect::Place First, std::uint32_t nEventSize,
                const inspect::ObjectView* pObjects) const;

  std::vector<std::uint8_t> m_Events;
  std::vector<std::uint32_t> m_Positions;
  bool m_bAll = true;
  std::future<bool> m_Printing;  // the last member: it ends before what it uses
};

// Names stand in the order of their ids, and are read in that of the events: brings the next ones near.
void ApproachName(std::span<const inspect::ObjectView> Objects, std::size_t nNow);

}  // namespace lumbra::tool
