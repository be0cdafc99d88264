// lumbra compact, lumbra clear: giving space back.
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <thread>

#include "commands.h"
#include "failure.h"
#include "format/file_names.h"
#include "holder.h"
#include "host/text.h"
#include "machine.h"
#include "progress.h"
#include "salvage/apply.h"

namespace lumbra::tool {
namespace {

void PrintSizes(const char* pWhen, const StoreFiles& Files, const char16_t* pIds, const char16_t* pData) {
  std::printf("%-7s %-22s %14llu bytes   %-22s %14llu bytes\n", pWhen, host::ToUtf8(pIds).c_str(),
              static_cast<unsigned long long>(Files.SizeOf(pIds)), host::ToUtf8(pData).c_str(),
              static_cast<unsigned long long>(Files.SizeOf(pData)));
}

// Shows how far the new id file has come, while a large store is compacted.
class WatchPair {
 public:
  explicit WatchPair(const StoreFiles& Files) {
    constexpr std::uint64_t kLarge = 10000;  // objects: what takes long enough to be looked at
    if (ErrorsGoToTerminal() && Files.SharedObjectCount() >= kLarge) m_Thread = std::jthread(Show, std::cref(Files));
  }

 private:
  static void Show(std::stop_token Stop, const StoreFiles& Files) {
    constexpr auto kInterval = std::chrono::milliseconds(200);
    std::mutex Lock;
    std::condition_variable_any Stopped;
    std::unique_lock Hold(Lock);
    Progress Shown("bytes of id records");
    while (!Stopped.wait_for(Hold, Stop, kInterval, [&Stop] { return Stop.stop_requested(); })) {
      try {
        const std::uint64_t nDone = Files.SizeOf(kCompactedIdsFile);
        Shown.Tell(nDone, nDone, Files.SizeOf(kSharedIdsFile));
      } catch (const Failure&) {  // what cannot be looked at now is left as it is shown
      }
    }
  }

  std::jthread m_Thread;
};

// The new pair; unless it is kept it goes again, since half a pair must not be put in place.
class NewPair {
 public:
  explicit NewPair(const StoreFiles& Files) : m_Folder(Files.Folder()) {}
  ~NewPair() {
    if (m_bKept) return;
    for (const char16_t* const pName : {kCompactedIdsFile, kCompactedDataFile}) {
      std::error_code Ignored;
      std::filesystem::remove(m_Folder / pName, Ignored);
    }
  }
  NewPair(const NewPair&) = delete;
  NewPair& operator=(const NewPair&) = delete;

  void Keep() { m_bKept = true; }

 private:
  const std::filesystem::path m_Folder;
  bool m_bKept = false;
};

// Writes the new pair; false, with nothing left behind, when it was interrupted, which takes effect when it is done.
bool WritePair(const Session& Store) {
  NewPair Made(Store.Files());
  const WatchPair Shown(Store.Files());
  Check(Store.Call(&LumbraOperations::Compact, kSystemDatabase), "compact the shared objects");
  if (Interrupted()) return false;
  Made.Keep();
  return true;
}

// The store deletes every file of the folder, whoever has put it there.
void RefuseWhereOtherFilesAre(const StoreFiles& Files, const DatabaseName& Database) {
  const std::vector<std::string> Foreign = Files.ForeignFiles(Database);
  if (Foreign.empty()) return;
  for (const std::string& Name : Foreign)
    std::fprintf(stderr, "lumbra: %s is not the store's, and would be deleted\n", Printable(Name).c_str());
  throw Failure("clear " + Database.Describe(), errACCESS_DENIED,
                "its folder has files that are not the store's; --force deletes them, too");
}

}  // namespace

namespace {

// Live: what the live pair held when the new one was made of it.
void Replace(const CommonOptions& Common, const StoreFiles& Files, const std::string& Live) {
  salvage::Plan Done;
  const std::string What = "put the compacted pair in its place";
  WaitForOther Wait(Common.nWait);
  ResultCode nCode = errOK;
  do {
    Done = {};
    nCode = salvage::ReplaceByCompacted(Files.Folder().u16string(), RulesOf(Common), Live, &Done);
  } while (nCode == errSHARING_VIOLATION && Wait.Again());
  if (nCode == errSHARING_VIOLATION) throw HeldByAnother(What, Files.Folder());
  if (Failed(nCode) && !Done.Refusal.empty()) throw Failure(What, nCode, Done.Refusal);
  Check(nCode, What);
  std::puts(
      "The compacted pair is in its place; the old one is set aside. Until something is written,\nlumbra repair --undo takes it back.");
}

}  // namespace

int Compact(const CommonOptions& Common, const CompactOptions& Options) {
  std::uint64_t nLosses = 0;
  const auto Note = [&nLosses](std::string_view Line) {
    if (!Line.starts_with("Compact: ")) return;
    if (nLosses++ == 0) std::puts("left out (the id of an object is its entry id and 1 more):");
    std::printf("  %.*s\n", static_cast<int>(Line.size()), Line.data());
  };
  const StoreFiles Files = FilesOf(Common);
  std::string Live;
  {
    Session Store(InModeOfStore(Common), Missing::Refuse, Note);
    PrintSizes("before", Files, kSharedIdsFile, kSharedDataFile);
    WatchForInterrupt();
    if (!WritePair(Store)) {
      std::puts("interrupted; the new pair is gone again");
      return kExitInterrupted;
    }
    if (Options.bReplace)
      Check(salvage::DigestOfLivePair(Files.Folder().u16string(), RulesOf(Common), &Live), "read the live pair");
  }
  PrintSizes("after", Files, kCompactedIdsFile, kCompactedDataFile);
  if (nLosses != 0) std::puts("What was left out is still in the live files, as far as it can be read there.");
  if (Options.bReplace && (nLosses == 0 || Options.bLossy)) {
    Replace(Common, Files, Live);
    return nLosses == 0 ? kExitOk : kExitFailed;
  }
  std::printf("The compacted pair lies beside the live one, which stays in use; %s.\n",
              Options.bReplace ? "--lossy puts it in its place all the same"
                               : "lumbra compact --replace makes one that takes its place");
  return nLosses == 0 ? kExitOk : kExitFailed;
}

int Clear(const CommonOptions& Common, const ClearOptions& Options) {
  Session Store(Common, Missing::Refuse);
  if (!Options.bForce) RefuseWhereOtherFilesAre(Store.Files(), Options.Database);
  const std::uint32_t nDatabase = Store.OpenDatabaseToClear(Options.Database);
  Check(Store.Call(&LumbraOperations::ClearDB, nDatabase), "clear " + Options.Database.Describe());
  Store.Flush();
  std::printf("cleared %s\n", Options.Database.Describe().c_str());
  if (Store.Files().SetAsideSize() != 0)
    std::puts("What healing has set aside stays; lumbra repair --discard-set-aside deletes it.");
  return kExitOk;
}

}  // namespace lumbra::tool
