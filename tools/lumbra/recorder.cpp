#include "recorder.h"

#include <algorithm>
#include <cstdio>

#include "failure.h"
#include "host/text.h"

namespace lumbra::tool {
namespace {

// Finds or creates, and clears away what stands in the way of that.
constexpr std::uint32_t kCreateRepairing = 2;

// Failures that lie in the name and not in the store.
bool IsFaultOfName(ResultCode nCode) {
  return nCode == errSIZE_INVALID || nCode == errUNSPECIFIED || nCode == errHASH_ZERO || nCode == errPARAMETER_INVALID;
}

}  // namespace

std::uint32_t FlagsFor(std::uint32_t nType, const std::string& Name) {
  const bool bPath = nType == typeFile || nType == typeFolder;
  if (!bPath || !Name.starts_with('/')) return 0;
  const bool bSplits = Name != "/" && Name.find('\\') == std::string::npos;
  return RemoveObjectFlags(bSplits ? fObjNoCase : fObjNoCase | fObjSplitPath);
}

Recorder::Recorder(Session* pSession, std::uint32_t nDatabase) : m_pSession(pSession), m_nDatabase(nDatabase) {}

ResultCode Recorder::FindObject(std::uint32_t nType, const std::string& Name, std::uint64_t* pnObject) {
  const std::u16string Wide = host::ToUtf16(Name);
  const auto nSize = static_cast<std::int32_t>(Wide.size() * sizeof(char16_t));
  return m_pSession->Call(&LumbraOperations::FindObject, m_nDatabase, nType, Wide.c_str(), nSize, kCreateRepairing,
                          FlagsFor(nType, Name), 0, pnObject);
}

bool Recorder::Record(Event Recorded, std::uint32_t nType, const std::string& Name, std::string* pReason) {
  const ResultCode nFound = FindObject(nType, Name, &Recorded.nObject);
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
  Check(FindObject(nType, Name, &Recorded.nObject), "name an event's object");
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
