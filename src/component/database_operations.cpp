// The component: opening, limiting, describing and clearing databases.
#include <string>

#include "component/lumbra.h"
#include "platform/trace.h"

namespace lumbra {
namespace {

constexpr std::size_t kMaxNameLength = 63;

// What the trace says of a database that is opened.
struct Figures {
  explicit Figures(SegmentManager& Manager)
      : nEvents(static_cast<std::uint32_t>(Manager.GetTotalEvents())),
        nSize(Manager.GetTotalSize()),
        nTime(Manager.GetOldestCreationTime()) {}

  std::uint32_t nEvents;
  std::uint64_t nSize;
  std::uint64_t nTime;
};

// Runs an operation on the databases 1 to 47, and then on the named ones from 48 on up to the first that is
// not open. Answers the failure of the last database that failed.
template <class Operation>
ResultCode OnEveryDatabase(Operation Do) {
  ResultCode nAnswer = errOK;
  for (std::uint32_t nDatabase = 1; nDatabase <= kLastNamedDatabase; ++nDatabase) {
    const ResultCode nCode = Do(nDatabase);
    const bool bMissing = nDatabase >= kFirstNamedDatabase && nCode == errPARAMETER_INVALID;
    if (bMissing) break;
    if (Failed(nCode)) nAnswer = nCode;
  }
  return nAnswer;
}

}  // namespace

// ---- Opening ----------------------------------------------------------------------------------------------

ResultCode Lumbra::InitDB(std::uint32_t nDatabase, std::uint32_t nEventSize) {
  if (nDatabase >= kFirstNamedDatabase) return errPARAMETER_INVALID;
  const SharedHold Hold(m_Lock);
  if (m_nWritesSuspended != 0) return errREAD_ONLY;
  return m_Databases.Open(nDatabase, nEventSize, [&](ResultCode nCode, const Database& Opened) {
    const Figures Now(Opened.Manager());
    Trace(&Handle, traceRoutine, "lmb\tLumbra::InitDB(%X, %d) = %terr, events/size/time: %u/%I64u/%I64u", nDatabase,
          nEventSize, nCode, Now.nEvents, Now.nSize, Now.nTime);
    return nCode;
  });
}

ResultCode Lumbra::InitDBByName(const char16_t* pName, std::uint32_t nEventSize, std::uint32_t* pnDatabase) {
  Trace(&Handle, traceRoutine, "lmb\tLumbra::InitDBByName method: name = %ws", pName);
  if (pName == nullptr || pName[0] == 0 || pnDatabase == nullptr) return errPARAMETER_INVALID;
  if (std::char_traits<char16_t>::find(pName, kMaxNameLength + 1, u'\0') == nullptr) return errPARAMETER_INVALID;
  const SharedHold Hold(m_Lock);
  if (m_nWritesSuspended != 0) return errREAD_ONLY;
  return m_Databases.Open(pName, nEventSize, [&](ResultCode nCode, const Database& Opened, bool bWasOpen) {
    *pnDatabase = Opened.Id();
    if (bWasOpen) {
      Trace(&Handle, traceRoutine, "lmb\tLumbra::InitDBByName method: db already initialized, dbId = %d", Opened.Id());
      return errOK;
    }
    const Figures Now(Opened.Manager());
    Trace(&Handle, traceRoutine, "lmb\tLumbra::InitDBByName(%u, %X) = %terr, events/size/time: %u/%I64u/%I64u",
          nEventSize, Opened.Id(), nCode, Now.nEvents, Now.nSize, Now.nTime);
    return nCode;
  });
}

// ---- Limits -----------------------------------------------------------------------------------------------

ResultCode Lumbra::SetDBParams(std::uint32_t nDatabase, std::uint32_t nKind, std::uint64_t nValue) {
  const SharedHold Hold(m_Lock);
  if (m_nWritesSuspended != 0) return errREAD_ONLY;
  if (nDatabase != kAllDatabases) return SetOneDBParam(nDatabase, nKind, nValue);
  Trace(&Handle, traceRoutine, "lmb\tLumbra::SetDBParams(%X, %u, %I64u)", nDatabase, nKind, nValue);
  if (nKind == limitGlobalSize) {
    m_Databases.SetGlobalLimit(nValue);
    return errOK;
  }
  return OnEveryDatabase([&](std::uint32_t nOne) {
    m_Lock.AssertShared();
    return SetOneDBParam(nOne, nKind, nValue);
  });
}

ResultCode Lumbra::SetOneDBParam(std::uint32_t nDatabase, std::uint32_t nKind, std::uint64_t nValue) {
  Trace(&Handle, traceRoutine, "lmb\tLumbra::SetDBParams(%X, %u, %I64u)", nDatabase, nKind, nValue);
  const Database Found = m_Databases.Find(nDatabase);
  if (!Found.IsOpen()) return errPARAMETER_INVALID;
  return m_Databases.SetLimit(Found, static_cast<LumbraLimit>(nKind), nValue);
}

// ---- Information and clearing -----------------------------------------------------------------------------

ResultCode Lumbra::GetDBInfo(std::uint32_t nDatabase, std::uint32_t* pnRecords, std::uint64_t* pnDataSize,
                             std::uint64_t* pnTime) {
  Trace(&Handle, traceRoutine, "lmb\tLumbra::GetDBInfo method: db = %u", nDatabase);
  const SharedHold Hold(m_Lock);
  Databases::Totals Found;
  std::uint64_t nTime = 0;
  if (nDatabase == kAllDatabases) {
    Found = m_Databases.Sum();
    nTime = Found.nGreatestAge;
  } else {
    const Database One = m_Databases.Find(nDatabase);
    if (!One.IsOpen()) {
      Trace(&Handle, traceRoutine,
            "lmb\tLumbra::GetDBInfo method: this is invalid named db, return errPARAMETER_INVALID");
      return errPARAMETER_INVALID;
    }
    const Figures Now(One.Manager());
    Found = {Now.nEvents, Now.nSize, 0};
    nTime = Now.nTime;
    Trace(&Handle, traceRoutine, "lmb\tLumbra::GetDBInfo method: records = %u, datasize = %I64u, timestamp = %I64u",
          Now.nEvents, Now.nSize, Now.nTime);
  }
  if (pnRecords != nullptr) *pnRecords = Found.nRecords;
  if (pnDataSize != nullptr) *pnDataSize = Found.nDataSize;
  if (pnTime != nullptr) *pnTime = nTime;
  return errOK;
}

ResultCode Lumbra::ClearDB(std::uint32_t nDatabase) {
  const SharedHold Hold(m_Lock);
  if (m_nWritesSuspended != 0) return errREAD_ONLY;
  if (nDatabase == kSystemDatabase) return errPARAMETER_INVALID;
  if (nDatabase != kAllDatabases) return ClearOneDB(nDatabase);
  return OnEveryDatabase([this](std::uint32_t nOne) {
    m_Lock.AssertShared();
    return ClearOneDB(nOne);
  });
}

ResultCode Lumbra::ClearOneDB(std::uint32_t nDatabase) {
  const Database Found = m_Databases.Find(nDatabase);
  if (!Found.IsOpen()) return errPARAMETER_INVALID;
  return m_Databases.Clear(Found, [&](ResultCode nCode) {
    Trace(&Handle, traceRoutine, "lmb\tLumbra::ClearDB(%X) = %terr", nDatabase, nCode);
    return nCode;
  });
}

}  // namespace lumbra
