// Which events are to be shown. What their bytes tell is asked first, of many at once: names are looked up for the
// rest alone.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "commands.h"
#include "event_time.h"
#include "inspect/paths.h"
#include "path_filter.h"
#include "schema.h"

namespace lumbra::tool {

// Whole names like this one: '*' is any text, '?' a byte, "[a-z]" and "[!a-z]" one of some. Case counts in names that
// begin with '/', as it does in the store.
bool IsNameLike(std::string_view Name, std::string_view Pattern);

class EventFilter {
 public:
  // Throws a Failure when the schema lacks a field that is asked for.
  EventFilter(const EventFilterOptions& Options, const Schema& Layout, Zone In);

  // The positions of the events whose bytes pass.
  void Select(std::span<const std::uint8_t> Events, std::uint32_t nEventSize,
              std::vector<std::uint32_t>* pPositions) const;

  bool AsksForNames() const { return m_bAsksForNames; }
  bool PassesName(const inspect::ObjectView& Object) const;

  bool PassesAll() const { return m_Conditions.empty() && !m_bAsksForNames; }

 private:
  // A number of the event is in one of these ranges, or in none.
  struct Range {
    std::uint64_t nFirst;
    std::uint64_t nSpan;  // from the first to the last
  };
  struct Condition {
    std::uint32_t nOffset;  // bytes from the event's start
    std::uint32_t nSize;    // bytes
    std::uint64_t nFlip;    // bits that are turned first, so that numbers with a sign are in their order
    std::vector<Range> Ranges;
    bool bInOne;
  };

  void AddTimes(const EventFilterOptions& Options, const Schema& Layout, Zone In);
  void AddKinds(const std::vector<std::uint64_t>& Kinds, const Schema& Layout, bool bInOne);
  template <class Number>
  static void Keep(const Condition& What, const std::uint8_t* pEvents, std::uint32_t nEventSize,
                   std::vector<std::uint32_t>* pPositions);

  std::vector<Condition> m_Conditions;
  bool m_bAsksForNames;
  std::vector<std::string> m_Names;
  std::vector<std::string> m_NotNames;
  std::optional<PathFilter> m_Under;
};

}  // namespace lumbra::tool
