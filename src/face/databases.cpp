// Databases: limits, figures, and adding, reading and rewriting single events.
#include <algorithm>
#include <cstring>

#include "face/events.h"
#include "face/state.h"

namespace lumbra {
inline namespace v1 {

using detail::Use;

std::uint32_t AnyDatabase::number() const noexcept {
  return m_pDatabase->nId;
}

const std::string& AnyDatabase::name() const noexcept {
  return m_pDatabase->Name;
}

std::size_t AnyDatabase::event_size() const noexcept {
  return m_pDatabase->nEventSize;
}

// ---- Limits and figures -----------------------------------------------------------------------------------

namespace {

// Only whole segments are dropped: a limit of the database needs segments that are smaller.
constexpr std::uint64_t kPart = 16;
std::uint64_t SegmentLimit(std::uint64_t nOwn, std::uint64_t nOfDatabase) {
  return nOwn != 0 || nOfDatabase == 0 ? nOwn : std::max<std::uint64_t>(1, nOfDatabase / kPart);
}

}  // namespace

// Those of segments first: what the others drop is to be as little as can be.
void AnyDatabase::set_limits(const Limits& limits) const {
  const Use Now(*m_pState, "set_limits", m_pDatabase);
  if (limits.max_age.count() < 0 || limits.segment_age.count() < 0)
    Now.Fail(errPARAMETER_INVALID, "an age is negative");
  const auto nMaxAge = static_cast<std::uint64_t>(limits.max_age.count());
  const auto nSegmentAge = static_cast<std::uint64_t>(limits.segment_age.count());
  const std::pair<LumbraLimit, std::uint64_t> kWanted[] = {
      {limitSegmentAge, SegmentLimit(nSegmentAge, nMaxAge)},
      {limitSegmentSize, SegmentLimit(limits.segment_size.count, limits.max_size.count)},
      {limitSegmentEvents, SegmentLimit(limits.segment_events, limits.max_events)},
      {limitDatabaseAge, nMaxAge},
      {limitDatabaseSize, limits.max_size.count},
      {limitDatabaseEvents, limits.max_events},
  };
  const std::lock_guard Hold(m_pDatabase->Limits);
  for (const auto& [nKind, nValue] : kWanted) Now.Must(&LumbraOperations::SetDBParams, m_pDatabase->nId, nKind, nValue);
}

Info AnyDatabase::info() const {
  const Use Now(*m_pState, "info", m_pDatabase);
  Info Found{};
  std::uint64_t nTime = 0;
  Now.Must(&LumbraOperations::GetDBInfo, m_pDatabase->nId, &Found.events, &Found.size.count, &nTime);
  if (nTime != 0) Found.oldest = FileClock::time_point(FileClock::duration(static_cast<FileClock::rep>(nTime)));
  return Found;
}

void AnyDatabase::clear() const {
  const Use Now(*m_pState, "clear", m_pDatabase);
  const std::lock_guard Turn(m_pDatabase->Entry);
  const std::lock_guard Hold(m_pDatabase->Life);
  ++m_pDatabase->nLife;  // also when it fails in the middle
  Now.Must(&LumbraOperations::ClearDB, m_pDatabase->nId);
}

// ---- Events -----------------------------------------------------------------------------------------------

namespace {

void CheckSize(const Use& In, const detail::OpenDatabase& Of, std::size_t nSize) {
  if (nSize == Of.nEventSize) return;
  In.Fail(errSIZE_INVALID, "its events have " + std::to_string(Of.nEventSize) + " bytes, not " + std::to_string(nSize));
}

// The id as a number, which must be one of this database. Segment 0 means another one to the tables than to us: none.
std::uint64_t CheckId(const Use& In, const detail::OpenDatabase& Of, EventId nId) {
  const auto nNumber = static_cast<std::uint64_t>(nId);
  if (DatabaseOfId(nNumber) != Of.nId) In.Fail(errPARAMETER_INVALID, "this is the id of no event of it");
  return nNumber;
}

EventId Add(const Use& In, const detail::OpenDatabase& To, std::span<const std::byte> Event) {
  std::uint64_t nId = 0;
  In.Must(&LumbraOperations::AddEvent, To.nId, Event.data(), To.nEventSize, &nId);
  return EventId{nId};
}

bool Update(const Use& In, const detail::OpenDatabase& Of, std::uint64_t nId, std::span<const std::byte> Event) {
  if (SegmentOfId(nId) == 0) return false;
  const ResultCode nCode = In.Call(&LumbraOperations::UpdateEvent, nId, Event.data(), Of.nEventSize);
  if (detail::IsMissing(nCode) || nCode == errINDEX_OUT_OF_RANGE) return false;
  In.Check(nCode);
  return true;
}

}  // namespace

EventId AnyDatabase::add_bytes(std::span<const std::byte> event) const {
  const Use Now(*m_pState, "add", m_pDatabase);
  CheckSize(Now, *m_pDatabase, event.size());
  return Add(Now, *m_pDatabase, event);
}

// The object may be of a later segment than the event, which goes later: never of an earlier one.
EventId AnyDatabase::add_bytes_about(Type type, std::string_view name, std::span<std::byte> event,
                                     std::size_t offset) const {
  const Use Now(*m_pState, "add_about", m_pDatabase);
  CheckSize(Now, *m_pDatabase, event.size());
  if (offset > event.size() || event.size() - offset < sizeof(ObjectId))
    Now.Fail(errPARAMETER_INVALID, "the object's id does not fit into the event there");
  const auto Hold = m_pDatabase->HoldLife();  // the numbers of segments stay theirs
  const auto Find = [&] {
    const ObjectId Found = *detail::FindObject(Now, m_pDatabase->nId, type, name, {}, true);
    std::memcpy(event.data() + offset, &Found, sizeof(Found));
    return SegmentOfId(static_cast<std::uint64_t>(Found));
  };
  const std::uint32_t nSegment = Find();
  const EventId nId = Add(Now, *m_pDatabase, event);
  const auto nNumber = static_cast<std::uint64_t>(nId);
  if (nSegment >= SegmentOfId(nNumber)) return nId;
  (void)Find();
  (void)Update(Now, *m_pDatabase, nNumber, event);  // false: limits have dropped it meanwhile
  return nId;
}

bool AnyDatabase::get_bytes(EventId id, std::span<std::byte> event) const {
  const Use Now(*m_pState, "get", m_pDatabase);
  CheckSize(Now, *m_pDatabase, event.size());
  const std::uint64_t nId = CheckId(Now, *m_pDatabase, id);
  const auto Hold = m_pDatabase->HoldLife();
  return detail::ReadEvents(Now, *m_pDatabase, nId, event) == 1;
}

bool AnyDatabase::update_bytes(EventId id, std::span<const std::byte> event) const {
  const Use Now(*m_pState, "update", m_pDatabase);
  CheckSize(Now, *m_pDatabase, event.size());
  return Update(Now, *m_pDatabase, CheckId(Now, *m_pDatabase, id), event);
}

detail::Reading AnyDatabase::read(detail::Start::Of what, std::uint64_t value) const {
  const Use Now(*m_pState, "read", m_pDatabase);
  if (what == detail::Start::Of::From && value != 0) (void)CheckId(Now, *m_pDatabase, EventId{value});
  return detail::Reading(m_pState, m_pDatabase, {what, value});
}

}  // namespace v1
}  // namespace lumbra
