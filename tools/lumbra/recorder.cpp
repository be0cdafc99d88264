#include "recorder.h"

#include <algorithm>
#include <cstdio>

#include "failure.h"

namespace lumbra::tool {
namespace {

// Failures that lie in the name and not in the store.
bool IsFaultOfName(ResultCode nCode) {
  return nCode == errSIZE_INVALID || nCode == errUNSPECIFIED || nCode == errHASH_ZERO || nCode == errPARAMETER_INVALID;
}

}  // namespace

Recorder::Recorder(Session* pSession, std::uint32_t nDatabase) : m_pSession(pSession), m_nDatabase(nDatabase) {}

bool Recorder::Record(Event Recorded, std::uint32_t nType, const std::string& Name, std::string* pReason) {
  const ResultCode nFound = m_pSession->FindObject(m_nDatabase, nType, Name, true, 0, &Recorded.nObject);
  if (Failed(nFound)) {
    const Failure Reason("name it", nFound);
    if (!IsFaultOfName(nFound)) throw Reason;
    *pReason = Reason.what();
    return false;
  }
  std::uint64_t nEvent = 0;
  Check(m_pSession->Call(&LumbraOperations::AddEvent, m_nDatabase, &Recorded, sizeof(Recorded), &nEvent),
        "add an event");
  ++m_nCount;
  if (SegmentOfId(nEvent) == SegmentOfId(Recorded.nObject)) return true;
  // The event began a new segment while its name is in the one before, and would go with that: name it here,
  // too.
  Check(m_pSession->FindObject(m_nDatabase, nType, Name, true, 0, &Recorded.nObject), "name an event's object");
  Check(m_pSession->Call(&LumbraOperations::UpdateEvent, nEvent, &Recorded, sizeof(Recorded)), "update an event");
  return true;
}

void Recorder::PrintSummary() const {
  const std::chrono::duration<double> Elapsed = std::chrono::steady_clock::now() - m_Start;
  const double nSeconds = std::max(Elapsed.count(), 1e-6);
  std::printf("recorded %llu events in %.3f s (%.0f events/s)\n", static_cast<unsigned long long>(m_nCount), nSeconds,
              static_cast<double>(m_nCount) / nSeconds);
}

}  // namespace lumbra::tool
