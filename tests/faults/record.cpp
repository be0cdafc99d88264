#include "faults/record.h"

#include <algorithm>

namespace lumbra::test {

void Record::EraseRange(Promises* pFrom, Id nFrom, Id nEnd) {
  std::erase_if(*pFrom, [=](const auto& One) { return One.first.nId >= nFrom && One.first.nId < nEnd; });
}

void Record::Apply(const Fact& Of) {
  const Id nFrom = Of.Of.nId;
  const auto IsInRange = [&](Id nId) {
    return nId >= nFrom && nId < Of.nEnd;
  };
  switch (Of.Kind) {
    case Fact::Promise:
      m_Now[Of.Of] = Of.Value;
      if (Of.Of.Kind == Key::Event && m_Used.insert(nFrom).second) ++m_Segments[nFrom >> kSegmentShift];
      [[fallthrough]];
    case Fact::Attempt:
      m_Tried[Of.Of].insert(Of.Value);
      if (Of.Of.Kind == Key::Event) m_TriedEvents.insert(Of.Value);
      break;
    case Fact::TakeBack:
      m_Now.erase(Of.Of);
      break;
    case Fact::Clear:
      std::erase_if(m_Used, IsInRange);
      std::erase_if(m_UsedAndFlushed, IsInRange);
      EraseRange(&m_Now, nFrom, Of.nEnd);
      [[fallthrough]];
    case Fact::Gone:
      std::erase_if(m_Segments, [&](const auto& One) { return IsInRange(One.first << kSegmentShift); });
      break;
    case Fact::Drop:
      EraseRange(&m_Now, nFrom, Of.nEnd);
      break;
    case Fact::Flushed:
      m_Flushed = m_Now;
      m_UsedAndFlushed = m_Used;
      break;
    case Fact::Begin:
      break;
  }
}

Promises Record::Covered() const {
  Promises Whole;
  std::set<Id> ChangedObjects;
  const auto Compare = [&](const auto& One, const Promises& With, Promises* pEqual) {
    const auto Other = With.find(One.first);
    if (Other != With.end() && Other->second == One.second) {
      if (pEqual != nullptr) pEqual->insert(One);
    } else if (One.first.Kind != Key::Event) {
      ChangedObjects.insert(One.first.nId);
    }
  };
  for (const auto& One : m_Flushed) Compare(One, m_Now, &Whole);
  for (const auto& One : m_Now) Compare(One, m_Flushed, nullptr);
  std::erase_if(
      Whole, [&](const auto& One) { return One.first.Kind != Key::Event && ChangedObjects.contains(One.first.nId); });
  return Whole;
}

bool Record::WasTried(const Key& Of, const std::string& Value) const {
  const auto Found = m_Tried.find(Of);
  if (Found != m_Tried.end() && Found->second.contains(Value)) return true;
  return Of.Kind == Key::Event && m_TriedEvents.contains(Value);
}

bool Record::IsTorn(Id nEvent, const std::string& Content) const {
  const auto Found = m_Tried.find({Key::Event, nEvent});
  for (std::size_t i = 0; i < Content.size(); ++i) {
    const auto HasByte = [&](const std::string& Tried) {
      return Tried[i] == Content[i];
    };
    const bool bKnown = Found != m_Tried.end() ? std::ranges::any_of(Found->second, HasByte)
                                               : std::ranges::any_of(m_TriedEvents, HasByte);
    if (Content[i] != 0 && !bKnown) return false;
  }
  return true;
}

}  // namespace lumbra::test
