// A host of its own: everything that the store expects of the program it is loaded into, so that any program
// can embed it. The C++ face (include/lumbra/store.hpp) and the tool stand on it.
//
// One StandaloneHost lives in a process at a time; another one is refused. It must outlive the Stores it opened. Its
// functions may be called from any thread once it is set up.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "host/host_objects.h"
#include "host/trace_format.h"
#include "lumbra/lumbra.h"
#include "platform/os.h"

namespace lumbra::host {

class StandaloneHost;

// Whether a store is healed before it is opened (Store::Init). StartEmpty: also one that has lost the records of all
// its shared objects, which then begin anew; what is left of them moves to "set-aside".
enum class Heal { On, StartEmpty, Off };

// One use of a store instance; ends with ObjectShutdown and ObjectFree, for the shared instance when its last
// user ends; a SendFlush that is under way is a user, too, and the instance then ends with it. A Store that holds no
// instance converts to false.
class Store {
 public:
  Store() = default;
  Store(Store&& Other) noexcept;
  Store& operator=(Store&& Other) noexcept;
  ~Store();

  explicit operator bool() const { return m_pInstance != nullptr; }

  // Opens the store (ObjectInitDone). Properties that concern opening are set before; propOWN_FOLDERS is the host's.
  // errACCESS_DENIED, with a trace line of level 300 that says why, when others may change the store (host/trust.h),
  // unless the host trusts it.
  //
  // Before the component meets the store, what is lost or damaged in it is healed, so that it costs no more than itself
  // (salvage/look.h); a store that somebody has open is left alone. Where the look or the healing fails, its code is
  // answered, errSHARING_VIOLATION where somebody holds a file that is to be healed; where opening would lose all
  // shared objects, errDATA_CORRUPTED, unless they shall begin anew. The store is not opened then, and a trace line of
  // level 300 says why. On Windows the host looks and heals as whom the calling thread impersonates, which the
  // component lays down for its own files; so does OpenDatabase.
  ResultCode Init(Heal What = Heal::On);

  // Opens a database (InitDB, InitDBByName). Those begin one anew that has events of another size; this refuses it with
  // errSIZE_INVALID, and Refusal tells both sizes. In a store that is healed it also refuses one with events whose size
  // no file tells any more, with errDATA_CORRUPTED. StartEmpty begins either anew, and moves the old files to
  // "set-aside".
  enum class OtherSize { Refuse, StartEmpty };
  ResultCode OpenDatabase(std::uint32_t nDatabase, std::uint32_t nEventSize, OtherSize What = OtherSize::Refuse);
  ResultCode OpenDatabase(const std::u16string& Name, std::uint32_t nEventSize, std::uint32_t* pnDatabase,
                          OtherSize What = OtherSize::Refuse);

  // What the last Init has healed, and what it has found and left as it is: a line for each file. Names in it are
  // printable.
  const std::vector<std::string>& Healed() const { return m_Healed; }
  const std::vector<std::string>& Left() const { return m_Left; }

  // Why the last Init or OpenDatabase did not let the component meet the files, in such words; empty when it did.
  const std::string& Refusal() const { return m_Refusal; }

  // Calls one of the 19 operations: Call(&LumbraOperations::InitDB, 1, 64).
  template <class... Parameters>
  ResultCode Call(ResultCode (*LumbraOperations::*pOperation)(HostObject*, Parameters...),
                  std::type_identity_t<Parameters>... Arguments) const {
    return (OperationsOf(m_pInstance->Handle).*pOperation)(&m_pInstance->Handle, Arguments...);
  }

  ResultCode SetNumber(std::uint32_t nPropertyId, std::uint32_t nValue);
  ResultCode GetNumber(std::uint32_t nPropertyId, std::uint32_t* pnValue) const;

  // propREPORT_FOLDER; without it the host's placeholder "%Report%" names the folder.
  ResultCode SetReportFolder(std::u16string_view Folder);
  std::u16string ReportFolder() const;

  LumbraInstance* Instance() const { return m_pInstance; }

 private:
  friend class StandaloneHost;
  ResultCode HealBefore(Heal What);
  ResultCode CheckEventSize(const std::u16string& Folder, std::uint32_t nEventSize, OtherSize What);
  os::FolderRules Rules() const;
  Store(StandaloneHost* pHost, LumbraInstance* pInstance) : m_pHost(pHost), m_pInstance(pInstance) {}

  StandaloneHost* m_pHost = nullptr;
  LumbraInstance* m_pInstance = nullptr;
  bool m_bHeals = false;
  std::vector<std::string> m_Healed;
  std::vector<std::string> m_Left;
  std::string m_Refusal;
};

// Writes a trace line as TraceToStream does: its level, and the line.
void WriteTraceLine(std::FILE* pStream, std::uint32_t nLevel, std::string_view Line);

class StandaloneHost {
 public:
  using TraceCallback = std::function<void(std::uint32_t nLevel, std::string_view Line)>;

  // Loads the component that is linked into the program, or the module whose entry is given (host/loaded_module.h).
  // LoadResult tells how that went; after a failure Create gives no store, whatever the module has registered. Beside
  // another host nothing is loaded, and LoadResult is errALREADY_EXISTS; that host does not notice.
  explicit StandaloneHost(ModuleEntry pEntry = &LumbraModuleEntry);
  ~StandaloneHost();
  StandaloneHost(const StandaloneHost&) = delete;
  StandaloneHost& operator=(const StandaloneHost&) = delete;

  ResultCode LoadResult() const { return m_nLoadResult; }

  // Gives a placeholder ("%Report%", "%LumbraCheckData%", "%host%") its value.
  void SetPlaceholder(std::u16string_view Placeholder, std::u16string_view Value);

  // Opens stores also where others than the effective user may change them: what he opens them for may then be done to
  // other files, or with what others have put there. It holds from the next Init on: what is open stays as it is.
  void TrustStores() { m_bTrustsStores = true; }

  // Sends the trace lines up to a level (300 failures ... 600 every detail; 0 none) to a file that stays
  // open, to a file, or to a callback, which must bear calls from any thread, one at a time.
  // A callback must not call the host or a store: a thread that traces may hold a lock that the call waits for.
  // A line that the level drops is not formatted.
  void TraceToStream(std::uint32_t nLevel, std::FILE* pStream);
  // Of a file the lines are appended to what is there, or replace it. It is a plain one, no link, made for its owner
  // alone where it is missing, and not handed on to programs that the process starts. False when it cannot be opened,
  // or is somebody else's, or others may write to it (host/trust.h).
  enum class TraceFile { Append, Replace };
  bool TraceToFile(std::uint32_t nLevel, const std::filesystem::path& Path, TraceFile What = TraceFile::Replace);
  // A callback gets the texts among the arguments of a line as they are, or as a stream and a file do: without what
  // could do harm to a terminal or forge a line (host/printed_text.h).
  void TraceToCallback(std::uint32_t nLevel, TraceCallback Callback, TraceNames Names = TraceNames::AsTheyAre);

  // An instance of one of the three interfaces; not initialised yet. None when there is no memory for it.
  Store Create(std::uint32_t nInterfaceId = kSeparateInstance);

  // Makes every initialised instance flush its databases to the disk, and waits for that. errWRITE_FAILED when one of
  // them traced a failure meanwhile (a line of level 300 or below, whatever level the user traces): something is not on
  // the disk. The system may have dropped it, and say the next time that all is well; so the answer stays until all
  // instances, since they share files, have ended and the store is opened again. Another failure when an instance could
  // not handle the message, and LoadResult when that is one; otherwise errOK.
  ResultCode SendFlush();

 private:
  friend class Store;
  friend struct HostServices;  // the functions behind the tables

  // Those that handle a class of messages, as users of the instances: none goes while it handles one.
  std::vector<Store> HandlersOf(std::uint32_t nClass);
  void Release(LumbraInstance* pInstance);
  void WriteLine(std::uint32_t nLevel, const char* pFormat, std::va_list Arguments);
  void WriteLine(std::uint32_t nLevel, std::string_view Line);

  struct Handler {
    std::uint32_t nClass;
    LumbraInstance* pInstance;
  };

  ModuleEntry m_pEntry;
  HostObject m_Root;
  bool m_bRefused = false;  // beside another host
  std::atomic<bool> m_bTrustsStores{false};
  ResultCode m_nLoadResult = errOK;

  std::recursive_mutex m_Lock;  // guards what follows, up to the trace
  std::map<std::uint32_t, HostFactory> m_Factories;
  std::map<LumbraInstance*, std::uint32_t> m_Instances;  // with their users
  std::uint32_t m_nEnding = 0;                           // instances without users whose memory is not free yet
  std::condition_variable_any m_Ended;
  std::vector<Handler> m_Handlers;
  std::map<std::u16string, std::u16string> m_Placeholders;

  // Held while a store is healed and opened: healing holds its files for a moment, which would shut out another thread.
  std::mutex m_OpeningLock;

  std::atomic<bool> m_bFlushFailed{false};  // since there were no instances
  std::atomic<std::uint32_t> m_nTraceLevel{0};
  std::mutex m_TraceLock;  // guards the sink, and keeps lines whole
  TraceCallback m_TraceCallback;
  TraceNames m_TraceNames = TraceNames::AsTheyAre;
};

}  // namespace lumbra::host
