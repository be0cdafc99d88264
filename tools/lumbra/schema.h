// What the bytes of a database's events mean: fields by name, in the order in which they stand.
//
// "time:filetime,object:id,value:u64,kind:u32,_:u32" is the layout of the tool's own events. Fields called "_" are
// there and are not shown. Four names have a meaning to filters: "time" (of a type of times), "object" (an id), "kind"
// and "value" (whole numbers).
//
//   filetime                            8 bytes: 100 ns since 1601-01-01 UTC
//   unix-s, unix-ms, unix-us, unix-ns   8 bytes, with a sign: since 1970-01-01 UTC
//   u8 u16 u32 u64 i8 i16 i32 i64       whole numbers
//   f32 f64                             IEEE 754
//   id                                  8 bytes: an object's
//   hex:N, text:N                       N bytes; a text ends at its first zero
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "inspect/store.h"

namespace lumbra::tool {

inline constexpr char kOwnLayout[] = "time:filetime,object:id,value:u64,kind:u32,_:u32";

enum class FieldType { FileTime, UnixS, UnixMs, UnixUs, UnixNs, Unsigned, Signed, Float, Id, Hex, Text };

constexpr bool IsTime(FieldType Type) {
  return Type <= FieldType::UnixNs;
}
constexpr bool IsWhole(FieldType Type) {
  return Type == FieldType::Unsigned || Type == FieldType::Signed;
}

struct Field {
  std::string Name;
  FieldType Type;
  std::uint32_t nOffset;  // bytes from the event's start
  std::uint32_t nSize;    // bytes

  bool operator==(const Field&) const = default;
};

struct Schema {
  std::vector<Field> Fields;  // without those that are not shown
  std::uint32_t nSize = 0;    // bytes of an event

  const Field* Find(std::string_view Name) const;

  // The field with the object that an event is about; null when there is none.
  const Field* Object() const;

  bool operator==(const Schema&) const = default;
};

// Nothing, with the reason, for a text that is no schema.
std::optional<Schema> ParseSchema(std::string_view Text, std::string* pReason);
const Schema& OwnLayout();

// The text of the schema that is kept for a database; nothing when there is none. Throws a Failure when it cannot be
// read.
std::optional<std::string> KeptSchema(const inspect::Store& Store, const inspect::Database& Database);

// The schema of events of that size: the one that is given, the one that is kept, the tool's own for those of 32 bytes,
// or all bytes as one field. Throws a Failure when one does not fit.
Schema SchemaOf(const inspect::Store& Store, const inspect::Database& Database, const std::optional<Schema>& Given,
                std::uint32_t nEventSize);

}  // namespace lumbra::tool
