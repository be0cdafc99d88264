#include "inspect/writer.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <new>
#include <random>

#include "host/standalone_host.h"
#include "host/text.h"

namespace lumbra::test {

struct Writer::Shared {
  std::atomic<std::uint64_t> nAdded{0};
  std::atomic<std::uint64_t> nFailed{0};
  std::atomic<std::int64_t> nLastCut{-10000};  // milliseconds of the clock that all processes share
  std::atomic<bool> bClearing{false};
  std::atomic<std::uint64_t> nCutShort{0};
  std::atomic<bool> bEnd{false};
};

std::u16string NameOf(std::uint64_t nNumber) {
  return host::ToUtf16("C:\\folder " + std::to_string(nNumber / 100 % 50) + "\\file " + std::to_string(nNumber / 7));
}

namespace {

std::int64_t Milliseconds() {
  return std::chrono::steady_clock::now().time_since_epoch() / std::chrono::milliseconds(1);
}

}  // namespace

Writer::Writer(const std::u16string& Folder, Ways What) {
  void* const pMemory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  m_pShared = new (pMemory) Shared;
  m_nKeeper = fork();
  if (m_nKeeper == 0) {
    Keep(Folder, What);
    std::_Exit(0);
  }
}

Writer::~Writer() {
  End();
  munmap(m_pShared, sizeof(*m_pShared));
}

void Writer::End() {
  m_pShared->bEnd = true;
  if (m_nKeeper > 0) waitpid(m_nKeeper, nullptr, 0);
  m_nKeeper = -1;
}

std::uint64_t Writer::Added() const {
  return m_pShared->nAdded;
}

std::uint64_t Writer::Failed() const {
  return m_pShared->nFailed;
}

void Writer::Await(std::uint64_t nEvents) const {
  while (Added() < nEvents) usleep(5000);
}

std::uint64_t Writer::ClearingsCutShort() const {
  return m_pShared->nCutShort;
}

bool Writer::WasJustCutShort() const {
  return Milliseconds() - m_pShared->nLastCut < 2000;
}

// Keeps a writer going, whatever befalls it.
void Writer::Keep(const std::u16string& Folder, Ways What) {
  std::minstd_rand Random(static_cast<unsigned>(getpid()));
  const auto Below = [&Random](unsigned nEnd) {
    return static_cast<unsigned>(Random() % nEnd);
  };
  while (!m_pShared->bEnd) {
    const pid_t nWriter = fork();
    if (nWriter == 0) {
      Write(Folder, What);
      std::_Exit(0);
    }
    for (unsigned i = Below(20); What.bIsDisturbed && i != 0 && !m_pShared->bEnd; --i) {
      usleep(Below(20000));
      kill(nWriter, SIGSTOP);
      usleep(Below(20) == 0 ? 250000 : Below(3000));
      kill(nWriter, SIGCONT);
    }
    if (What.bIsDisturbed) kill(nWriter, SIGKILL);
    waitpid(nWriter, nullptr, 0);
    if (!m_pShared->bClearing.exchange(false)) continue;
    m_pShared->nLastCut = Milliseconds();
    ++m_pShared->nCutShort;
  }
  Write(Folder, What);  // once more, to be ended in peace
}

void Writer::Write(const std::u16string& Folder, Ways What) {
  host::StandaloneHost Host;
  host::Store Store = Host.Create();
  const auto Try = [this](ResultCode nCode) {
    if (lumbra::Failed(nCode)) ++m_pShared->nFailed;
    return Succeeded(nCode);
  };
  (void)Store.SetReportFolder(Folder);
  (void)Store.SetNumber(propCHECK_MODE, What.bCheckMode ? 1 : 0);
  if (!Try(Store.Init()) || !Try(Store.OpenDatabase(kDatabase, sizeof(NumberedEvent)))) return;
  (void)Try(Store.Call(&LumbraOperations::SetDBParams, kDatabase, limitSegmentEvents, What.nSegmentEvents));
  (void)Try(Store.Call(&LumbraOperations::SetDBParams, kDatabase, limitDatabaseEvents, What.nMostEvents));
  // The last event may have come in without being counted.
  NumberedEvent Event{};
  std::uint32_t nRead = 0;
  const std::uint64_t kLast = 0xFFFFFFFF'FFFFFFFF;
  (void)Try(Store.Call(&LumbraOperations::GetEvents, kDatabase, kLast, &Event, sizeof(Event), 1, &nRead, nullptr));
  if (nRead == 1) m_pShared->nAdded = std::max<std::uint64_t>(m_pShared->nAdded, Event.nNumber + 1);
  std::minstd_rand Random(static_cast<unsigned>(getpid()));
  do {
    Event = {.nTime = 130000000000000000, .nObject = 0, .nNumber = m_pShared->nAdded, .nZero = 0};
    const std::u16string Name = NameOf(Event.nNumber);
    if (!Try(Store.Call(&LumbraOperations::FindObjectSimple, kDatabase, typeFile, Name.c_str(), kZeroTerminated, 1, 0,
                        &Event.nObject)))
      return;
    if (Random() % 8 == 0)
      (void)Try(Store.Call(&LumbraOperations::SetObjectData, Event.nObject, &Event,
                           static_cast<std::uint32_t>(Random() % sizeof(Event)) + 1,
                           static_cast<std::uint32_t>(Random() % 3)));
    if (!Try(Store.Call(&LumbraOperations::AddEvent, kDatabase, &Event, sizeof(Event), nullptr))) return;
    ++m_pShared->nAdded;
    if (!What.bClears || Random() % 5000 != 0) continue;
    m_pShared->bClearing = true;
    (void)Try(Store.Call(&LumbraOperations::ClearDB, kDatabase));
    m_pShared->bClearing = false;
  } while (!m_pShared->bEnd);
}

}  // namespace lumbra::test
