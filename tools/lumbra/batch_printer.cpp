#include "batch_printer.h"

#include <algorithm>

namespace lumbra::tool {

void ApproachName(std::span<const inspect::ObjectView> Objects, std::size_t nNow) {
  constexpr std::size_t kAhead = 16;
  if (nNow + kAhead >= Objects.size()) return;
  const std::string_view Name = Objects[nNow + kAhead].Name;
  __builtin_prefetch(Name.data());
  __builtin_prefetch(Name.data() + Name.size());  // most are in two lines of the cache at most
}

void BatchPrinter::Print(EventOutput* pOutput, const inspect::Batch& Read, std::uint32_t nEventSize,
                         std::span<const std::uint32_t> Positions, const inspect::ObjectView* pObjects) {
  m_bAll = Wait();
  m_Events.assign(Read.Events.begin(), Read.Events.end());
  m_Positions.assign(Positions.begin(), Positions.end());
  m_Printing = std::async(std::launch::async,
                          [=, this, First = Read.First] { return PrintAll(pOutput, First, nEventSize, pObjects); });
}

bool BatchPrinter::PrintAll(EventOutput* pOutput, inspect::Place First, std::uint32_t nEventSize,
                            const inspect::ObjectView* pObjects) const {
  const std::span Objects(pObjects, pObjects == nullptr ? 0 : m_Positions.size());
  for (std::size_t i = 0; i < m_Positions.size(); ++i) {
    ApproachName(Objects, i);
    const std::uint32_t nPosition = m_Positions[i];
    pOutput->Print({First.nSegment, First.nIndex + nPosition}, m_Events.data() + std::size_t{nPosition} * nEventSize,
                   Objects.empty() ? nullptr : &Objects[i], {});
    if (!pOutput->WriteIfFull()) return false;
  }
  return true;
}

bool BatchPrinter::Wait() {
  if (m_Printing.valid()) m_bAll = m_Printing.get() && m_bAll;
  return m_bAll;
}

}  // namespace lumbra::tool
