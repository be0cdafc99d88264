// Reading events with their ids.
//
// The tables deliver events without their ids. So the files tell which segments there are and how many events they
// have, and the tables deliver those of one segment at a time.
#include <algorithm>
#include <deque>

#include "face/events.h"
#include "inspect/horizon.h"
#include "platform/file.h"

namespace lumbra {
inline namespace v1 {
namespace detail {
namespace {

constexpr std::size_t kBatchBytes = 256 * 1024;
constexpr std::size_t kBatchEvents = 4096;

// Whether a segment is there. For one that is not, the tables begin at the oldest event: its index is one that no
// segment has, and then it is said to be out of range only where the segment is known.
bool HasSegment(const Use& In, std::uint64_t nId) {
  return In.Call(&LumbraOperations::GetEvents, kSystemDatabase, nId | 0xFFFFFFFFu, nullptr, 0, 0, nullptr, nullptr) ==
         errINDEX_OUT_OF_RANGE;
}

// A failure that says nothing of what was to be read.
bool IsShortage(ResultCode nCode) {
  return nCode == errOUT_OF_MEMORY || IsTooManyOpenFiles(nCode);
}

}  // namespace

std::size_t ReadEvents(const Use& In, const OpenDatabase& Of, std::uint64_t nId, std::span<std::byte> Buffer) {
  if (SegmentOfId(nId) == 0) return 0;  // a position, to the tables
  std::uint32_t nRead = 0;
  const auto nSize = static_cast<std::uint32_t>(Buffer.size());
  const ResultCode nCode =
      In.Call(&LumbraOperations::GetEvents, Of.nId, nId, Buffer.data(), nSize, nSize / Of.nEventSize, &nRead, nullptr);
  if (nCode == errINDEX_OUT_OF_RANGE) return 0;
  // Afterwards: a segment that is there was there, since its number is not given again.
  if (!HasSegment(In, nId)) return 0;
  In.Check(nCode);
  return nRead;
}

// ---- Reading ----------------------------------------------------------------------------------------------

struct Reading::Place {
  Share pState;
  OpenDatabase* pDatabase;
  std::uint64_t nLast = UINT64_MAX;  // of the events, in the first round alone

  std::uint32_t nSegment = 0;  // what is read next
  std::uint64_t nIndex = 0;
  std::uint64_t nLife = 0;  // of the database, in which that is meant
  bool bInRound = false;
  inspect::Horizon Seen;                    // when the round began
  std::deque<inspect::SegmentExtent> Left;  // of the round
  std::vector<std::byte> Buffer;

  void Begin(const Use& In);
  void SkipAllButLast();
};

Reading::Reading(const Share& pState, OpenDatabase* pDatabase, Start from) : m_pPlace(std::make_unique<Place>()) {
  m_pPlace->pState = pState;
  m_pPlace->pDatabase = pDatabase;
  if (from.what == Start::Of::Last) m_pPlace->nLast = from.value;
  if (from.what == Start::Of::From) {
    m_pPlace->nSegment = SegmentOfId(from.value);
    m_pPlace->nIndex = static_cast<std::uint32_t>(from.value);
  }
  const auto Hold = pDatabase->HoldLife();
  m_pPlace->nLife = pDatabase->nLife;
}

Reading::Reading(Reading&&) noexcept = default;
Reading& Reading::operator=(Reading&&) noexcept = default;
Reading::~Reading() = default;

std::size_t Reading::event_size() const noexcept {
  return m_pPlace->pDatabase->nEventSize;
}

// Takes what is to be read. What is found damaged on the way there was healed or said when the store was opened.
void Reading::Place::Begin(const Use& In) {
  const auto Ignore = [](const inspect::Finding&) {
  };
  inspect::Horizon Now;
  ResultCode nCode = inspect::TakeHorizon(In.Files(), pDatabase->Files, Ignore, &Now, nSegment, Seen);
  // A chain that does not go on where we are is looked at from its start.
  const bool bGoesOn = !Now.Segments.empty() && Now.Segments.front().nNumber == nSegment;
  if (Succeeded(nCode) && nSegment != 0 && !bGoesOn)
    nCode = inspect::TakeHorizon(In.Files(), pDatabase->Files, Ignore, &Now);
  In.Check(nCode);
  Left.assign(Now.Segments.begin(), Now.Segments.end());
  std::erase_if(Left, [this](const inspect::SegmentExtent& One) { return One.nNumber < nSegment; });
  if (nLast != UINT64_MAX) SkipAllButLast();
  bInRound = true;
  Seen = std::move(Now);
}

void Reading::Place::SkipAllButLast() {
  std::uint64_t nSkip = 0;
  for (const inspect::SegmentExtent& One : Left) nSkip += One.nEvents;
  nSkip -= std::min(nSkip, nLast);
  nLast = UINT64_MAX;
  while (!Left.empty() && nSkip >= Left.front().nEvents && Left.size() > 1) {
    nSkip -= Left.front().nEvents;
    Left.pop_front();
  }
  if (Left.empty()) return;
  nSegment = Left.front().nNumber;
  nIndex = nSkip;
}

std::span<const std::byte> Reading::next(EventId* first) {
  if (m_pPlace == nullptr) return {};  // moved from
  Place& At = *m_pPlace;
  OpenDatabase& Of = *At.pDatabase;
  const Use Now(*At.pState, "read", &Of);
  const auto Hold = Of.HoldLife();
  if (At.nLife != Of.nLife) {
    At.nLife = Of.nLife;
    At.nSegment = 0;
    At.nIndex = 0;
    At.bInRound = false;
  }
  if (!At.bInRound) At.Begin(Now);
  const std::size_t nMost = std::clamp<std::size_t>(kBatchBytes / Of.nEventSize, 1, kBatchEvents);
  At.Buffer.resize(nMost * Of.nEventSize);
  for (; !At.Left.empty(); At.Left.pop_front()) {
    const inspect::SegmentExtent& One = At.Left.front();
    if (At.nSegment != One.nNumber) At.nIndex = 0;
    At.nSegment = One.nNumber;
    if (At.nIndex >= One.nEvents) continue;
    const auto nWanted = static_cast<std::size_t>(std::min<std::uint64_t>(nMost, One.nEvents - At.nIndex));
    const std::uint64_t nId = WithDatabase((std::uint64_t{One.nNumber} << 32) | At.nIndex, Of.nId);
    std::size_t nRead = 0;
    try {
      nRead = ReadEvents(Now, Of, nId, std::span(At.Buffer).first(nWanted * Of.nEventSize));
    } catch (const Error& Failure) {
      if (IsShortage(Failure.result())) throw;
      At.nIndex = One.nEvents;
      At.Left.pop_front();
      throw;
    }
    if (nRead == 0) continue;  // it was dropped
    *first = EventId{nId};
    At.nIndex += nRead;
    return std::span(At.Buffer).first(nRead * Of.nEventSize);
  }
  At.bInRound = false;
  return {};
}

}  // namespace detail
}  // namespace v1
}  // namespace lumbra
