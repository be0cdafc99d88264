#include "faults/record.h"

#include <algorithm>
#include <iomanip>

namespace lumbra::test {

std::ostream& operator<<(std::ostream& To, const Fact& Of) {
  return To << Of.Kind << ' ' << Of.Of.Kind << ' ' << Of.Of.nId << ' ' << Of.Of.nTag << ' ' << Of.nEnd << ' '
            << std::quoted(Of.Value) << std::flush;
}
std::istream& operator>>(std::istream& From, Fact& Of) {
  int Kinds[2] = {};
  From >> Kinds[0] >> Kinds[1] >> Of.Of.nId >> Of.Of.nTag >> Of.nEnd >> std::quoted(Of.Value);
  Of.Kind = static_cast<Fact::Kinds>(Kinds[0]);
  Of.Of.Kind = static_cast<Key::Kinds>(Kinds[1]);
  return From;
}

void Record::Apply(const Fact& Of) {
  const Id nId = Of.Of.nId;
  const auto IsInRange = [&](Id nOne) {
    return nOne >= nId && nOne < Of.nEnd;
  };
  const auto IsReplaced = [&](const auto& One) {
    const bool bOfObject = One.first.nId == nId && One.first.Kind != Key::Event && Of.Of.Kind == Key::Data;
    return One.first == Of.Of || bOfObject;
  };
  const auto Forget = [&] {
    for (Promises* const pOf : {&m_Now, &m_Covered}) {
      std::erase_if(*pOf, [&](const auto& One) { return IsInRange(One.first.nId); });
    }
  };
  const auto Uncount = [&] {
    std::erase_if(m_Segments, [&](const auto& One) { return IsInRange(One.first << kSegmentShift); });
  };
  switch (Of.Kind) {
    case Fact::Promise:
      m_Now[Of.Of] = Of.Value;
      if (Of.Of.Kind == Key::Event && m_Used.insert(nId).second) ++m_Segments[nId >> kSegmentShift];
      [[fallthrough]];
    case Fact::Attempt:
      Try(Of.Of, Of.Value);
      break;
    case Fact::TakeBack:
      m_Now.erase(Of.Of);
      std::erase_if(m_Covered, IsReplaced);
      break;
    case Fact::Clear:
      std::erase_if(m_Used, IsInRange);
      std::erase_if(m_UsedAndFlushed, IsInRange);
      Forget();
      Uncount();
      break;
    case Fact::Drop:
      Forget();
      break;
    case Fact::Gone:
      Uncount();
      break;
    case Fact::Flushed:
      m_Covered = m_Now;
      m_UsedAndFlushed = m_Used;
      break;
    case Fact::Begin:
      break;
  }
}

// The parts that a path leads through are names under ids of their own.
void Record::Try(const Key& Of, const std::string& Value) {
  m_Tried[Of].insert(Value);
  if (Of.Kind != Key::Name) return;
  for (std::size_t nEnd = 0; (nEnd = Value.find('\\', nEnd)) != std::string::npos; ++nEnd) {
    m_Tried[{Key::Name, 0}].insert(Value.substr(0, nEnd));
  }
}

std::map<Id, std::uint32_t> Record::SegmentsOf(std::uint32_t nDatabase) const {
  const auto FirstOf = [](Id nOne) {
    return nOne << (kDatabaseShift - kSegmentShift);
  };
  return {m_Segments.lower_bound(FirstOf(nDatabase)), m_Segments.lower_bound(FirstOf(nDatabase + 1))};
}

const std::set<std::string>& Record::Tried(const Key& Of) const {
  static const std::set<std::string> None;
  const auto Found = m_Tried.find(Of);
  return Found != m_Tried.end() ? Found->second : None;
}

bool Record::WasTried(const Key& Of, const std::string& Value) const {
  return Tried(Of).contains(Value) || Tried({Of.Kind, 0}).contains(Value);
}

bool Record::IsTorn(Id nEvent, const std::string& Content) const {
  const Key Of{Key::Event, m_Tried.contains({Key::Event, nEvent}) ? nEvent : 0};
  for (std::size_t i = 0; i < Content.size(); ++i) {
    const auto HasByte = [&](const std::string& One) {
      return One[i] == Content[i];
    };
    if (Content[i] != 0 && std::ranges::none_of(Tried(Of), HasByte)) return false;
  }
  return true;
}

}  // namespace lumbra::test
