// The events of a segment: a record file (record_file.h) without CRCs, whose records have the database's event size.
// Event i of the segment is record i.
#pragma once

#include <cstdint>

namespace lumbra {

// What an event holds is its caller's own. One place in it has a meaning, where the event is large enough and somebody
// asks for the parents of the objects that events name: the id of such an object, 8 bytes, with its database.
inline constexpr std::uint32_t kObjectIdInEvent = 8;

}  // namespace lumbra
