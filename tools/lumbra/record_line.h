// A line of what lumbra record reads: an event as a JSON object.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "session.h"

namespace lumbra::tool {

struct RecordLine {
  Event Recorded;  // without its object
  std::uint32_t nType;
  std::string Name;                  // UTF-8, not empty
  std::vector<std::string> Unknown;  // names of fields that mean nothing here
};

// What is wrong with a line.
class BadLine : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Throws a BadLine for any text that does not describe an event.
RecordLine ParseRecordLine(const std::string& Text);

}  // namespace lumbra::tool
