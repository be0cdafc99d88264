#include "record_line.h"

#include <algorithm>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>

#include "event_time.h"
#include "ids.h"
#include "lumbra/lumbra.h"

namespace lumbra::tool {
namespace {

using nlohmann::json;

constexpr std::string_view kFields[] = {"name", "type", "time", "kind", "value"};

template <class Number>
Number NumberOf(const json& Object, const char* pKey, Number nDefault) {
  const auto Found = Object.find(pKey);
  if (Found == Object.end()) return nDefault;
  const bool bFits = Found->is_number_unsigned() && Found->get<std::uint64_t>() <= std::numeric_limits<Number>::max();
  if (!bFits)
    throw BadLine(std::string("\"") + pKey + "\" must be a whole number from 0 to " +
                  std::to_string(std::numeric_limits<Number>::max()));
  return Found->get<Number>();
}

std::uint32_t TypeOf(const json& Object) {
  const auto Found = Object.find("type");
  if (Found == Object.end()) return typeFile;
  if (Found->is_number()) return NumberOf<std::uint8_t>(Object, "type", 0);
  if (Found->is_string()) {
    if (const std::optional<std::uint32_t> Type = TypeOfName(Found->get<std::string>())) return *Type;
  }
  throw BadLine("\"type\" must be file, folder, key, value, volume, name or a number from 0 to 255");
}

std::uint64_t TimeOf(const json& Object) {
  const auto Found = Object.find("time");
  if (Found == Object.end()) return Now();
  const std::optional<std::uint64_t> Time = Found->is_string() ? ParseTime(Found->get<std::string>()) : std::nullopt;
  if (!Time) throw BadLine("\"time\" must be a time like 2026-11-24T13:34:00Z");
  return *Time;
}

std::vector<std::string> UnknownFieldsOf(const json& Object) {
  std::vector<std::string> Found;
  for (const auto& [Key, Value] : Object.items()) {
    if (std::ranges::find(kFields, Key) == std::end(kFields)) Found.push_back(Key);
  }
  return Found;
}

}  // namespace

RecordLine ParseRecordLine(const std::string& Text) {
  const json Object = json::parse(Text, nullptr, false);
  if (!Object.is_object()) throw BadLine("not a JSON object");
  const auto Name = Object.find("name");
  if (Name == Object.end() || !Name->is_string() || Name->get<std::string>().empty()) {
    throw BadLine("\"name\" must be there and hold a text");
  }
  const Event Recorded{TimeOf(Object), 0, NumberOf<std::uint64_t>(Object, "value", 0),
                       NumberOf<std::uint32_t>(Object, "kind", 0), 0};
  return {Recorded, TypeOf(Object), Name->get<std::string>(), UnknownFieldsOf(Object)};
}

}  // namespace lumbra::tool
