// What the objects of events are called.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "inspect/event_reader.h"
#include "inspect/paths.h"
#include "open_objects.h"
#include "reading.h"

namespace lumbra::tool {

class EventNames {
 public:
  // The store, the options and the findings outlive it.
  EventNames(const inspect::Store& Store, const CommonOptions& Common, Findings* pFindings);

  inspect::Paths* Paths() { return &m_Paths; }
  void Rest() { m_Paths.Rest(); }

  // The objects of some events of a batch, in the order of the positions. nObjectAt is where an event has its object's
  // id. They are good until the call after the next one.
  const std::vector<inspect::ObjectView>& Resolve(const inspect::Batch& Read, std::uint32_t nEventSize,
                                                  std::uint32_t nObjectAt, std::span<const std::uint32_t> Positions);

  // Tells of those that could not be read.
  void TellOfUnreadable() const;

 private:
  void Count(const std::vector<inspect::ObjectView>& Objects);
  void LookForHost();

  const inspect::Store& m_Store;
  const CommonOptions& m_Common;
  Findings* const m_pFindings;
  inspect::Paths m_Paths;
  std::vector<std::uint64_t> m_Ids;
  bool m_bHostKnown = false;  // whether it was looked for what kHostObjectAlias stands for
  std::uint64_t m_nLost = 0;
  std::uint64_t m_nDamaged = 0;
  std::uint64_t m_nUnsettled = 0;
  std::uint64_t m_nUnreadable = 0;
};

}  // namespace lumbra::tool
