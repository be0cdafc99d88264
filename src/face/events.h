// Reading runs of events by their ids.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "face/state.h"

namespace lumbra {
inline namespace v1 {
namespace detail {

// Reads events of one segment from an id on, as many as the buffer is for, and answers how many there are: 0 when the
// segment or that event is not there. The caller holds the database's Life, and knows that the segment has as many, or
// is the newest.
std::size_t ReadEvents(const Use& In, const OpenDatabase& Of, std::uint64_t nId, std::span<std::byte> Buffer);

}  // namespace detail
}  // namespace v1
}  // namespace lumbra
