#include "event_filter.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <numeric>

#include "failure.h"

namespace lumbra::tool {

// ---- Names ------------------------------------------------------------------------------------------------

namespace {

char Folded(char c, bool bCaseCounts) {
  return !bCaseCounts && c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
}

bool CaseCounts(std::string_view Name) {
  return Name.starts_with('/');
}

// Takes "[...]" off the front of a pattern, and says whether a character is one of those. A '[' that is never closed is
// itself.
bool TakeSet(std::string_view* pPattern, char c, bool bCaseCounts) {
  std::size_t n = 1;
  const bool bNot = n < pPattern->size() && ((*pPattern)[n] == '!' || (*pPattern)[n] == '^');
  if (bNot) ++n;
  const std::size_t nEnd = pPattern->find(']', n + 1);
  if (nEnd == std::string_view::npos) {
    pPattern->remove_prefix(1);
    return c == '[';
  }
  bool bIn = false;
  const auto At = [&](std::size_t i) {
    return static_cast<unsigned char>(Folded((*pPattern)[i], bCaseCounts));
  };
  const auto nByte = static_cast<unsigned char>(c);
  for (; n < nEnd; ++n) {
    const bool bRange = n + 2 < nEnd && (*pPattern)[n + 1] == '-';
    bIn |= bRange ? nByte >= At(n) && nByte <= At(n + 2) : nByte == At(n);
    if (bRange) n += 2;
  }
  pPattern->remove_prefix(nEnd + 1);
  return bIn != bNot;
}

// Goes back to the last '*' alone, which is enough: so it takes the length of the name times that of the pattern.
bool Matches(std::string_view Name, std::string_view Pattern, bool bCaseCounts) {
  std::optional<std::string_view> BehindStar;
  std::string_view FromStar;
  for (;;) {
    if (Pattern.starts_with('*')) {
      Pattern.remove_prefix(1);
      BehindStar = Pattern;
      FromStar = Name;
      continue;
    }
    if (Name.empty() && Pattern.empty()) return true;
    bool bFits = false;
    if (!Name.empty() && !Pattern.empty()) {
      const char c = Folded(Name.front(), bCaseCounts);
      if (Pattern.front() == '[') {
        bFits = TakeSet(&Pattern, c, bCaseCounts);
      } else {
        bFits = Pattern.front() == '?' || Folded(Pattern.front(), bCaseCounts) == c;
        Pattern.remove_prefix(1);
      }
      Name.remove_prefix(1);
    }
    if (bFits) continue;
    if (!BehindStar || FromStar.empty()) return false;
    FromStar.remove_prefix(1);
    Name = FromStar;
    Pattern = *BehindStar;
  }
}

}  // namespace

bool IsNameLike(std::string_view Name, std::string_view Pattern) {
  constexpr std::string_view kSeparators = "/\\";
  const bool bCaseCounts = CaseCounts(Name);
  if (Pattern.find_first_of(kSeparators) != std::string_view::npos) return Matches(Name, Pattern, bCaseCounts);
  const std::size_t nLast = bCaseCounts ? Name.rfind('/') : Name.find_last_of(kSeparators);
  return Matches(nLast == std::string_view::npos ? Name : Name.substr(nLast + 1), Pattern, bCaseCounts);
}

// ---- Numbers ----------------------------------------------------------------------------------------------

namespace {

constexpr std::uint64_t kSign = std::uint64_t{1} << 63;
constexpr std::int64_t kUnitsTo1970 = 116444736000000000;  // of 100 ns

// A field that is needed, of a type that fits.
template <class Rule>
const Field& FieldFor(const Schema& Layout, const char* pName, const char* pWhat, Rule Fits) {
  const Field* const pFound = Layout.Find(pName);
  if (pFound != nullptr && Fits(pFound->Type)) return *pFound;
  throw Failure("choose events", errNOT_FOUND,
                std::string("their schema has no field \"") + pName + "\" that is " + pWhat +
                    "; --schema gives one to this command, lumbra schema keeps one");
}

// A bound, as a FILETIME, in the units of a field; rounded so that a time in the field is inside when it was.
enum class Bound { First, Last };
std::uint64_t InUnitsOf(FieldType Type, std::uint64_t nFileTime, Bound Which) {
  if (Type == FieldType::FileTime) return nFileTime;
  const std::int64_t nUnits = static_cast<std::int64_t>(nFileTime) - kUnitsTo1970;
  if (Type == FieldType::UnixNs) {
    constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max() / 100;
    return static_cast<std::uint64_t>(std::clamp(nUnits, -kMost, kMost) * 100) ^ kSign;
  }
  const std::int64_t nUnit = Type == FieldType::UnixS ? 10000000 : Type == FieldType::UnixMs ? 10000 : 10;
  std::int64_t nRounded = nUnits / nUnit;
  const std::int64_t nRest = nUnits % nUnit;
  if (Which == Bound::First && nRest > 0) ++nRounded;
  if (Which == Bound::Last && nRest < 0) --nRounded;
  return static_cast<std::uint64_t>(nRounded) ^ kSign;
}

}  // namespace

EventFilter::EventFilter(const EventFilterOptions& Options, const Schema& Layout, Zone In)
    : m_bAsksForNames(!Options.Names.empty() || !Options.NotNames.empty() || !Options.Under.empty()),
      m_Names(Options.Names),
      m_NotNames(Options.NotNames) {
  if (!Options.Under.empty()) m_Under.emplace(Options.Under);
  if (!Options.Kinds.empty()) AddKinds(Options.Kinds, Layout, true);
  if (!Options.NotKinds.empty()) AddKinds(Options.NotKinds, Layout, false);
  const auto IsId = [](FieldType Type) {
    return Type == FieldType::Id;
  };
  if (Options.Object) {
    const Field& Where = FieldFor(Layout, "object", "an id", IsId);
    m_Conditions.push_back({Where.nOffset, Where.nSize, 0, {{*Options.Object, 0}}, true});
  }
  if (!Options.Since.empty() || !Options.Until.empty()) AddTimes(Options, Layout, In);
  if (m_bAsksForNames) (void)FieldFor(Layout, "object", "an id", IsId);
}

void EventFilter::AddTimes(const EventFilterOptions& Options, const Schema& Layout, Zone In) {
  const Field& Where = FieldFor(Layout, "time", "a time", &IsTime);
  const auto BoundOf = [&](const std::string& Text, Bound Which, std::uint64_t nOpen) {
    return Text.empty() ? nOpen : InUnitsOf(Where.Type, ParseMoment(Text, In).value_or(0), Which);
  };
  const std::uint64_t nFirst = BoundOf(Options.Since, Bound::First, 0);
  const std::uint64_t nLast = BoundOf(Options.Until, Bound::Last, UINT64_MAX);
  const std::uint64_t nFlip = Where.Type == FieldType::FileTime ? 0 : kSign;
  std::vector<Range> Ranges;  // none where they exclude each other
  if (nFirst <= nLast) Ranges.push_back({nFirst, nLast - nFirst});
  m_Conditions.push_back({Where.nOffset, Where.nSize, nFlip, Ranges, true});
}

void EventFilter::AddKinds(const std::vector<std::uint64_t>& Kinds, const Schema& Layout, bool bInOne) {
  const Field& Where = FieldFor(Layout, "kind", "a whole number", &IsWhole);
  std::vector<Range> Ranges;
  Ranges.reserve(Kinds.size());
  for (const std::uint64_t nKind : Kinds) Ranges.push_back({nKind, 0});
  m_Conditions.push_back({Where.nOffset, Where.nSize, 0, Ranges, bInOne});
}

template <class Number>
void EventFilter::Keep(const Condition& What, const std::uint8_t* pEvents, std::uint32_t nEventSize,
                       std::vector<std::uint32_t>* pPositions) {
  std::uint32_t* const pKept = pPositions->data();
  std::size_t nKept = 0;
  const auto KeepWhere = [&](auto Passes) {
    for (const std::uint32_t nPosition : *pPositions) {  // it never overtakes what is read
      Number nNumber = 0;
      std::memcpy(&nNumber, pEvents + std::size_t{nPosition} * nEventSize + What.nOffset, sizeof(nNumber));
      pKept[nKept] = nPosition;
      nKept += Passes(std::uint64_t{nNumber} ^ What.nFlip) ? 1 : 0;
    }
  };
  if (What.Ranges.size() == 1) {
    const Range One = What.Ranges.front();
    const bool bInOne = What.bInOne;
    KeepWhere([=](std::uint64_t n) { return (n - One.nFirst <= One.nSpan) == bInOne; });
  } else {
    KeepWhere([&](std::uint64_t n) {
      return std::ranges::any_of(What.Ranges, [n](const Range& One) { return n - One.nFirst <= One.nSpan; }) ==
             What.bInOne;
    });
  }
  pPositions->resize(nKept);
}

void EventFilter::Select(std::span<const std::uint8_t> Events, std::uint32_t nEventSize,
                         std::vector<std::uint32_t>* pPositions) const {
  pPositions->resize(Events.size() / nEventSize);
  std::iota(pPositions->begin(), pPositions->end(), 0U);
  for (const Condition& What : m_Conditions) {
    switch (What.nSize) {
      case 1:
        Keep<std::uint8_t>(What, Events.data(), nEventSize, pPositions);
        break;
      case 2:
        Keep<std::uint16_t>(What, Events.data(), nEventSize, pPositions);
        break;
      case 4:
        Keep<std::uint32_t>(What, Events.data(), nEventSize, pPositions);
        break;
      default:
        Keep<std::uint64_t>(What, Events.data(), nEventSize, pPositions);
    }
  }
}

bool EventFilter::PassesName(const inspect::ObjectView& Object) const {
  const bool bNamed = Object.Of == inspect::ObjectView::State::Named;
  const auto IsLike = [&](const std::string& Pattern) {
    return IsNameLike(Object.Name, Pattern);
  };
  if (!bNamed) return m_Names.empty() && !m_Under;
  if (m_Under && !m_Under->Matches(Object.Name)) return false;
  if (!m_Names.empty() && std::ranges::none_of(m_Names, IsLike)) return false;
  return std::ranges::none_of(m_NotNames, IsLike);
}

}  // namespace lumbra::tool
