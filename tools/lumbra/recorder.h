// Writes events about named objects into one database, for scan and record.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "session.h"

namespace lumbra::tool {

class Recorder {
 public:
  Recorder(Session* pSession, std::uint32_t nDatabase);

  // Records one event about the object of that name and type. False, with the reason, for a name that cannot
  // be recorded; throws a Failure when the store takes no more.
  bool Record(Event Recorded, std::uint32_t nType, const std::string& Name, std::string* pReason);

  // "recorded N events in T s (R events/s)", on standard output.
  void PrintSummary() const;

  std::uint64_t Count() const { return m_nCount; }

 private:
  Session* m_pSession;
  std::uint32_t m_nDatabase;
  std::uint64_t m_nCount = 0;
  std::chrono::steady_clock::time_point m_Start = std::chrono::steady_clock::now();
};

}  // namespace lumbra::tool
