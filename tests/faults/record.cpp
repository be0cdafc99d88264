#include "faults/record.h"

#include <algorithm>

namespace lumbra::test {

void Record::EraseRange(Promises* pFrom, Id nFrom, Id nEnd) {
  std::erase_if(*pFrom, [=](const auto& One) { return One.first.nId >= nFrom && One.first.nId < nEnd; });
}

// A path without a folder is one that others may lead through, itself.
void Record::TryFolders(const std::string& Path) {
  std::size_t nEnd = Path.find('\\');
  if (nEnd == std::string::npos) m_TriedAnywhere.insert(Path);
  for (; nEnd != std::string::npos; nEnd = Path.find('\\', nEnd + 1)) m_TriedAnywhere.insert(Path.substr(0, nEnd));
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
      if (Of.Of.Kind == Key::Event) m_TriedAnywhere.insert(Of.Value);
      if (Of.Of.Kind == Key::Name) TryFolders(Of.Value);
      break;
    case Fact::TakeBack:
      m_Now.erase(Of.Of);
      if (Of.Of.Kind == Key::Data) m_ChangedObjects.insert(nFrom);
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
      m_ChangedObjects.clear();
      m_UsedAndFlushed = m_Used;
      break;
    case Fact::Begin:
      break;
  }
}

Promises Record::Covered() const {
  Promises Whole;
  for (const auto& One : m_Flushed) {
    const auto Now = m_Now.find(One.first);
    const bool bSame = Now != m_Now.end() && Now->second == One.second;
    const bool bChanged = One.first.Kind != Key::Event && m_ChangedObjects.contains(One.first.nId);
    if (bSame && !bChanged) Whole.insert(One);
  }
  return Whole;
}

bool Record::WasTried(const Key& Of, const std::string& Value) const {
  const auto Found = m_Tried.find(Of);
  if (Found != m_Tried.end() && Found->second.contains(Value)) return true;
  return Of.Kind != Key::Data && m_TriedAnywhere.contains(Value);
}

bool Record::IsTorn(Id nEvent, const std::string& Content) const {
  const auto Found = m_Tried.find({Key::Event, nEvent});
  const std::set<std::string>& Tried = Found != m_Tried.end() ? Found->second : m_TriedAnywhere;
  for (std::size_t i = 0; i < Content.size(); ++i) {
    const auto HasByte = [&](const std::string& One) {
      return One.size() > i && One[i] == Content[i];
    };
    if (Content[i] != 0 && std::ranges::none_of(Tried, HasByte)) return false;
  }
  return true;
}

}  // namespace lumbra::test
