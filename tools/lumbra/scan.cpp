// lumbra scan: one event for each entry of real folders.
#include <algorithm>
#include <cstdio>
#include <filesystem>

#include "commands.h"
#include "failure.h"
#include "machine.h"
#include "progress.h"
#include "recorder.h"

namespace lumbra::tool {
namespace {

namespace fs = std::filesystem;

class Scanner {
 public:
  explicit Scanner(Recorder* pRecorder) : m_pRecorder(pRecorder) {}

  // Walks an entry and what is below it, in the order of names. Links are not followed.
  void Walk(const fs::path& Top) {
    std::vector<fs::path> Pending{Top};
    while (!Pending.empty() && !Interrupted()) {
      const fs::path Path = std::move(Pending.back());
      Pending.pop_back();
      Entry Found{};
      std::string Reason;
      if (!Look(Path, &Found, &Reason)) {
        Report(Path, Reason);
        continue;
      }
      RecordEntry(Path, Found);
      if (Found.Kind == EntryKind::Folder) ListInOrder(&Pending, Path);
    }
  }

  std::uint64_t Unreadable() const { return m_nUnreadable; }

  void EndProgress() { m_Progress.End(); }

 private:
  void ListInOrder(std::vector<fs::path>* pPending, const fs::path& Folder) {
    const std::size_t nBefore = pPending->size();
    std::string Reason;
    if (!ListFolder(Folder, pPending, &Reason)) Report(Folder, Reason);
    std::sort(pPending->begin() + static_cast<std::ptrdiff_t>(nBefore), pPending->end(), std::greater<>());
  }

  void RecordEntry(const fs::path& Path, const Entry& Found) {
    const std::string Name = TextOf(Path);
    if (!IsExactText(Name, Path)) Warn(Path, "its name is no UTF-16 and is recorded with U+FFFD");
    const std::uint32_t nType = Found.Kind == EntryKind::Folder ? typeFolder : typeFile;
    const Event Recorded{Found.nModified, 0, Found.nSize, static_cast<std::uint32_t>(Found.Kind), 0};
    std::string Reason;
    if (!m_pRecorder->Record(Recorded, nType, Name, &Reason)) Report(Path, Reason);
    m_Progress.Tell(m_pRecorder->Count());
  }

  void Report(const fs::path& Path, const std::string& Reason) {
    ++m_nUnreadable;
    Warn(Path, Reason);
  }

  void Warn(const fs::path& Path, const std::string& Reason) {
    EndProgress();
    std::fprintf(stderr, "lumbra: %s: %s\n", Printable(TextOf(Path)).c_str(), host::PrintableSentence(Reason).c_str());
  }

  Recorder* m_pRecorder;
  Progress m_Progress{"events"};
  std::uint64_t m_nUnreadable = 0;
};

}  // namespace

int Scan(const CommonOptions& Common, const ScanOptions& Options) {
  Session Store(Common, Missing::Create);
  const std::uint32_t nDatabase = Store.OpenEventDatabase(Options.Database, Missing::Create);
  Store.SetLimits(nDatabase, WithSegmentLimits(Options.Limits));
  WatchForInterrupt();
  Recorder Records(&Store, nDatabase);
  Scanner Walker(&Records);
  try {
    for (const std::string& Path : Options.Paths) Walker.Walk(AbsolutePath(Path));
  } catch (...) {
    Walker.EndProgress();
    Records.PrintSummary();
    Store.TryToFlush();
    throw;
  }
  Walker.EndProgress();
  if (Walker.Unreadable() != 0) {
    std::fprintf(stderr, "lumbra: %llu entries could not be read\n",
                 static_cast<unsigned long long>(Walker.Unreadable()));
  }
  Records.PrintSummary();
  Store.Flush();
  if (Interrupted()) return kExitInterrupted;
  return Walker.Unreadable() == 0 ? kExitOk : kExitFailed;
}

}  // namespace lumbra::tool
