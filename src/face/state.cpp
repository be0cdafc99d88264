// Opening, sharing and closing a store.
#include "face/state.h"

#include <algorithm>
#include <condition_variable>
#include <thread>

#include "face/store_path.h"
#include "format/database_name.h"
#include "format/file_names.h"
#include "format/named_index_file.h"
#include "host/printed_text.h"
#include "host/text.h"
#include "host/trust.h"
#include "platform/folders.h"
#include "platform/os.h"
#include "platform/result.h"

namespace lumbra {
inline namespace v1 {
namespace detail {
namespace {

namespace fs = std::filesystem;

constexpr char kForked[] = "this process was forked from one that had a store open, with which it stays";

// The store that the process has. It is never destroyed: a program may keep its store until it has ended.
struct Registry {
  std::mutex Lock;
  std::condition_variable Changed;
  std::weak_ptr<State> Current;
  // The process that has it, also while it is opened and closed; 0: none. One that was forked from it finds the lock as
  // it stood at that moment, and must not wait for it.
  std::atomic<std::uint32_t> nProcess{0};
};
Registry& TheRegistry() {
  static Registry* const s_pRegistry = new Registry;
  return *s_pRegistry;
}

// Whether somebody holds one of the files that every process with the store holds.
bool IsHeld(const fs::path& Folder) {
  for (const fs::path& File : {fs::path(kSharedIdsFile), fs::path(kSharedDataFile), fs::path(kSharedTreeFile),
                               fs::path(NumberedFolder(kSystemDatabase)) / kSegmentsFile}) {
    os::FileHandle Handle = nullptr;
    const os::SystemError nError = os::Open((Folder / File).u16string(), os::kGenericRead, os::kShareRead,
                                            os::Disposition::OpenExisting, 0, &Handle);
    if (nError == os::kSuccess) (void)os::Close(Handle);  // nothing was written
    if (nError == os::kSharingViolation) return true;
  }
  return false;
}

// A file of the store's folder, as the component opens it.
ResultCode TryFile(const os::FolderHandle& pFolder, std::u16string_view Name) {
  os::FileHandle Handle = nullptr;
  const os::SystemError nError =
      os::Open(pFolder, Name, os::kGenericRead | os::kGenericWrite, 0, os::Disposition::OpenAlways, 0, &Handle);
  if (nError == os::kSuccess) (void)os::Close(Handle);  // nothing was written
  return ResultFromSystemError(nError);
}

// Why files of a store cannot be opened, as the system says to who tries it once more; errOPEN_FAILED where it lets us.
ResultCode WhyNotOpened(const os::FolderHandle& pFolder, std::string* pReason) {
  for (const std::u16string_view Name : {kSharedTreeFile, kSharedIdsFile, kSharedDataFile}) {
    const ResultCode nCode = TryFile(pFolder, Name);
    if (Succeeded(nCode)) continue;
    *pReason = host::ToUtf8(Name) + ": it cannot be opened or made: " + MeaningOf(nCode);
    return nCode;
  }
  return errOPEN_FAILED;
}

// The same of a database's folder, which is made as the component makes it. What is wrong with files in it the
// component says.
ResultCode WhyNotOpened(const os::FolderHandle& pStore, const std::u16string& Folder, std::string* pReason) {
  os::FolderHandle pFolder;
  os::SystemError nError = os::OpenFolder(pStore, Folder, &pFolder);
  if (nError == os::kPathNotFound) {
    *pReason = "it is no folder, or a link to one";
    return errACCESS_DENIED;
  }
  if (nError == os::kFileNotFound) nError = os::MakeFolder(pStore, Folder);
  if (nError == os::kSuccess) return errOPEN_FAILED;
  const ResultCode nCode = ResultFromSystemError(nError);
  *pReason = "it cannot be opened or made: " + MeaningOf(nCode);
  return nCode;
}

std::vector<Holder> HoldersOf(const fs::path& Folder) {
  std::unique_ptr<inspect::Store> pFiles;
  if (inspect::Store::Open(Folder.u16string(), &pFiles) != os::kSuccess) return {};
  std::vector<Holder> Found;
  for (inspect::Holder& One : pFiles->Holders())
    Found.push_back({One.nProcess, std::move(One.Program), std::move(One.User)});
  return Found;
}

}  // namespace

// ---- Opening ----------------------------------------------------------------------------------------------

Share State::Open(const fs::path& Folder, const Options& What) {
  const fs::path Absolute = AbsoluteStorePath(Folder);
  const fs::path Canonical = CanonicalStorePath(Absolute);
  Registry& All = TheRegistry();
  if (const std::uint32_t nOwner = All.nProcess; nOwner != 0 && nOwner != os::ProcessId())
    throw MakeError(errNOT_SUPPORTED, "open", Folder, kForked);
  Share pCurrent;  // before the lock: its last user closes it, which takes the lock
  std::unique_lock Hold(All.Lock);
  for (;;) {
    pCurrent = All.Current.lock();
    if (pCurrent != nullptr && !pCurrent->m_bClosing) {
      pCurrent->RefuseOther(Canonical, What);
      return pCurrent;
    }
    if (All.nProcess == 0) break;
    All.Changed.wait(Hold);
  }
  All.nProcess = os::ProcessId();
  try {
    Share pOpened(new State(Absolute, Canonical, What));
    All.Current = pOpened;
    pOpened->m_bShared = true;
    All.Changed.notify_all();
    return pOpened;
  } catch (...) {
    All.nProcess = 0;
    throw;
  }
}

void State::RefuseOther(const fs::path& Canonical, const Options& What) const {
  std::error_code Ignored;  // one that is not there is another one
  if (Canonical != m_Canonical && !fs::equivalent(Canonical, m_Canonical, Ignored)) {
    throw MakeError(errALREADY_EXISTS, "open", Canonical,
                    "this process has the store " + host::Printable(m_Folder.string()) +
                        " open, and can have one at a time; close() it first");
  }
  Options Alike = What;
  Alike.wait = m_Options.wait;
  if (Alike != m_Options)
    throw MakeError(errPARAMETER_INVALID, "open", m_Folder, "it is open in this process with other options");
}

State::State(fs::path Folder, fs::path Canonical, const Options& What)
    : m_Folder(std::move(Folder)),
      m_Canonical(std::move(Canonical)),
      m_Options(What),
      m_nProcess(os::ProcessId()),
      m_pHost(std::make_unique<host::StandaloneHost>()) {
  const Where kAt{"open"};
  if (m_pHost->LoadResult() == errALREADY_EXISTS)
    Fail(kAt, errALREADY_EXISTS, "this process has a host of its own; the store is to be opened through that");
  Check(kAt, m_pHost->LoadResult());
  if (What.trust) m_pHost->TrustStores();
  m_Store = m_pHost->Create();
  if (!m_Store) Fail(kAt, errOUT_OF_MEMORY);
  const std::uint64_t nCacheKiB = What.cache.count / 1024;
  Check(kAt, m_Store.SetReportFolder(m_Folder.u16string()));
  Check(kAt, m_Store.SetNumber(propCHECK_MODE, What.check ? 1 : 0));
  Check(kAt, m_Store.SetNumber(propGROUP_READABLE, What.group_readable ? 1 : 0));
  Check(kAt, m_Store.SetNumber(propOPEN_SEGMENTS, What.open_segments));
  Check(kAt,
        m_Store.SetNumber(propCACHE_SIZE, static_cast<std::uint32_t>(std::min<std::uint64_t>(nCacheKiB, UINT32_MAX))));
  const ResultCode nCode = InitWhenFree();
  if (Failed(nCode)) FailToOpen(nCode);
  m_IsOpen[kSystemDatabase] = true;
  if (inspect::Store::Open(m_Folder.u16string(), &m_pFiles) != os::kSuccess) Fail(kAt, errOPEN_FAILED);
}

ResultCode State::InitWhenFree() {
  constexpr std::chrono::milliseconds kLongest(200);
  const host::Heal How = !m_Options.heal         ? host::Heal::Off
                         : m_Options.start_empty ? host::Heal::StartEmpty
                                                 : host::Heal::On;
  constexpr std::chrono::hours kForEver(24 * 365 * 100);  // which the clock can add
  const auto End = std::chrono::steady_clock::now() + std::min<std::chrono::milliseconds>(m_Options.wait, kForEver);
  std::chrono::milliseconds Next(20);
  for (bool bOnceMore = true;;) {
    const ResultCode nCode = m_Store.Init(How);
    m_Healed.insert(m_Healed.end(), m_Store.Healed().begin(), m_Store.Healed().end());
    m_Left = m_Store.Left();
    if (Succeeded(nCode)) return nCode;
    if (nCode != errOPEN_FAILED && nCode != errSHARING_VIOLATION) return nCode;
    if (nCode == errSHARING_VIOLATION || IsHeld(m_Folder)) {
      const auto Left = std::chrono::ceil<std::chrono::milliseconds>(End - std::chrono::steady_clock::now());
      if (Left.count() <= 0) return errSHARING_VIOLATION;
      std::this_thread::sleep_for(std::min(Left, Next));
      Next = std::min(Next * 2, kLongest);
    } else if (bOnceMore) {
      bOnceMore = false;  // the other process may have ended between the two looks
    } else {
      return nCode;
    }
  }
}

// Makes and opens the store's folder, as the component does. Throws for what can be none.
ResultCode State::TryFolder(os::FolderHandle* ppFolder) const {
  constexpr Where kAt{"open"};
  const std::u16string Path = m_Folder.u16string();
  const os::FolderRules Rules{m_Options.group_readable ? os::Readers::OwnerAndGroup : os::Readers::OwnerAlone, false};
  ResultCode nCode = CreateDirectories(Path, Rules);
  if (nCode == errPATH_NAME_INVALID) Fail(kAt, nCode, "it is a file, or below one");
  if (nCode == ResultFromSystemError(os::kNameTooLong)) Fail(kAt, errPATH_NAME_INVALID, "the path is too long");
  if (Succeeded(nCode)) nCode = ResultFromSystemError(os::OpenFolder(Path, Rules, ppFolder));
  std::error_code Ignored;
  if (Failed(nCode) && fs::is_symlink(m_Folder, Ignored))
    Fail(kAt, errACCESS_DENIED, "it is a link; name the folder that it leads to");
  return nCode;
}

// The component says no more than that it could not, so it is tried once more what the system says.
void State::FailToOpen(ResultCode nCode) const {
  constexpr Where kAt{"open"};
  if (nCode == errSHARING_VIOLATION) throw MakeError(nCode, kAt.pOperation, m_Folder, {}, HoldersOf(m_Folder));
  os::FolderHandle pFolder;
  const ResultCode nFolder = TryFolder(&pFolder);
  std::string Reason = m_Store.Refusal();
  const std::string Distrust = m_Options.trust ? std::string() : host::WhyStoreNotTrusted(m_Folder);
  if (!Distrust.empty()) {
    if (Succeeded(nFolder) && Distrust.find(host::kCannotBeLookedAt) == std::string::npos &&
        !Distrust.ends_with(host::kIsALink))
      Reason += "; Options::trust lets that pass";
    Fail(kAt, nCode, Reason);
  }
  if (nCode == errOPEN_FAILED && Failed(nFolder)) {
    nCode = nFolder;
    Reason = "it cannot be opened or made: " + MeaningOf(nCode);
  } else if (nCode == errOPEN_FAILED) {
    nCode = WhyNotOpened(pFolder, &Reason);
    if (nCode == errOPEN_FAILED) {
      const std::u16string System = NumberedFolder(kSystemDatabase);
      nCode = WhyNotOpened(pFolder, System, &Reason);
      Reason = nCode == errOPEN_FAILED ? "" : host::ToUtf8(System) + ": " + Reason;  // else the code says what it can
    }
  } else if (!Reason.empty() && nCode != errDATA_CORRUPTED) {
    Reason += ": " + MeaningOf(nCode);
  }
  Fail(kAt, nCode, Reason);
}

void State::Close() {
  if (m_nProcess != os::ProcessId()) return Abandon();
  m_bClosing = true;
  {
    const std::unique_lock Hold(m_Life);
    if (m_pHost == nullptr) return;
    m_pFiles.reset();
    m_Store = {};
    m_pHost.reset();
  }
  if (!m_bShared) return;  // who opens it has the lock
  Registry& All = TheRegistry();
  const std::lock_guard Hold(All.Lock);
  All.nProcess = 0;
  All.Changed.notify_all();
}

// Of a forked process, where locks stand as they stood when it was made, for ever. Nothing is closed, as the system
// does not when a process is killed.
void State::Abandon() {
  new host::Store(std::move(m_Store));
  (void)m_pHost.release();
  (void)m_pFiles.release();
}

void State::Fail(const Where& At, ResultCode nCode, std::string Reason) const {
  const fs::path& Place = At.pDatabase != nullptr ? At.pDatabase->Folder : m_Folder;
  throw MakeError(nCode, At.pOperation, Place, std::move(Reason));
}

Use::Use(State& Of, const char* pOperation, const OpenDatabase* pDatabase)
    : m_State(Of), m_Where{pOperation, pDatabase} {
  if (m_State.m_nProcess != os::ProcessId()) Fail(errNOT_SUPPORTED, kForked);
  if (!m_State.m_bClosing) m_Hold = std::shared_lock(m_State.m_Life);
  if (!m_Hold.owns_lock() || m_State.m_pHost == nullptr) Fail(errSTORE_NOT_INITIALIZED);
}

// ---- Databases --------------------------------------------------------------------------------------------

namespace {

// The number that a name of digits alone is; 0 for one that no database has.
std::optional<std::uint32_t> NumberOf(std::string_view Name) {
  constexpr std::string_view kDigits = "0123456789";
  if (Name.empty() || Name.find_first_not_of(kDigits) != std::string_view::npos) return {};
  std::uint32_t nNumber = 0;
  for (const char c : Name) nNumber = std::min(nNumber * 10 + static_cast<std::uint32_t>(c - '0'), kFirstNamedDatabase);
  return nNumber < kFirstNamedDatabase ? nNumber : 0;
}

// Why a new database cannot have a name; empty where it can.
std::string WhyNoName(std::string_view Name, const std::u16string& Folder) {
  if (Name.empty()) return "the name is empty";
  if (Folder.size() > kMaxIndexNameLength)
    return "a name has at most 63 UTF-16 units, and this one " + std::to_string(Folder.size());
  if (host::IsUtf8(Name) && IsDatabaseName(Folder)) return {};
  return "a database cannot have the name " + host::Printable(Name);
}

}  // namespace

OpenDatabase* State::OpenOne(std::string_view Name, std::size_t nEventSize) {
  OpenDatabase Wanted;
  Wanted.Name = Name;
  Wanted.nEventSize = static_cast<std::uint32_t>(std::min<std::size_t>(nEventSize, UINT32_MAX));
  Wanted.Folder = m_Folder;  // until the name is known to be one
  const std::optional<std::uint32_t> Number = NumberOf(Name);
  const std::u16string Folder = Number ? NumberedFolder(*Number) : host::ToUtf16(Name);
  const Use Now(*this, "database", &Wanted);
  if (Number == 0u) Now.Fail(errPARAMETER_INVALID, "numbers of databases are 1 to 47");
  std::string Why = Number ? std::string() : WhyNoName(Name, Folder);
  if (!Why.empty() && !Now.Files().Find(Folder)) Now.Fail(errPARAMETER_INVALID, std::move(Why));
  Wanted.Folder /= fs::path(Folder);
  if (nEventSize == 0) Now.Fail(errPARAMETER_INVALID, "an event has at least one byte");
  constexpr std::size_t kMostBytes = 16 << 20;
  if (nEventSize > kMostBytes) Now.Fail(errPARAMETER_INVALID, "an event has at most 16 MiB");

  const std::lock_guard Hold(m_Lock);
  std::unique_ptr<OpenDatabase>& pKnown = m_Databases[Folder];
  if (pKnown != nullptr) {
    if (pKnown->nEventSize == nEventSize) return pKnown.get();
    Now.Fail(errSIZE_INVALID,
             "its events have " + std::to_string(pKnown->nEventSize) + " bytes, not " + std::to_string(nEventSize));
  }
  std::uint32_t nId = Number.value_or(0);
  ResultCode nCode =
      Number ? m_Store.OpenDatabase(nId, Wanted.nEventSize) : m_Store.OpenDatabase(Folder, Wanted.nEventSize, &nId);
  std::string Refusal = m_Store.Refusal();
  if (nCode == errOPEN_FAILED) nCode = WhyNotOpened(Now.Files().Folder(), Folder, &Refusal);
  if (Failed(nCode)) Now.Fail(nCode, std::move(Refusal));
  pKnown = std::make_unique<OpenDatabase>();
  pKnown->Name = Number ? std::to_string(nId) : Wanted.Name;
  pKnown->Files = {Folder, nId};
  pKnown->Folder = Wanted.Folder;
  pKnown->nId = nId;
  pKnown->nEventSize = Wanted.nEventSize;
  m_IsOpen[nId] = true;
  return pKnown.get();
}

}  // namespace detail
}  // namespace v1
}  // namespace lumbra

namespace lumbra {
inline namespace v1 {

using detail::Use;

// ---- The store --------------------------------------------------------------------------------------------

Store Store::open(const std::filesystem::path& folder, const Options& options) {
  return Store(detail::State::Open(folder, options));
}

detail::OpenDatabase* Store::open_database(std::string_view name, std::size_t event_size) const {
  return m_pState->OpenOne(name, event_size);
}

void Store::set_max_size(Bytes limit) const {
  Use(*m_pState, "set_max_size").Must(&LumbraOperations::SetDBParams, kAllDatabases, limitGlobalSize, limit.count);
}

const std::vector<std::string>& Store::healed() const noexcept {
  return m_pState->Healed();
}

const std::vector<std::string>& Store::left() const noexcept {
  return m_pState->Left();
}

bool Store::damaged() const {
  const Use Now(*m_pState, "damaged");
  std::uint32_t nCorrupted = 0;
  Now.Check(Now.Instance().GetNumber(propCORRUPTED, &nCorrupted));
  return nCorrupted != 0;
}

const std::filesystem::path& Store::folder() const noexcept {
  return m_pState->Folder();
}

void Store::flush() const {
  const Use Now(*m_pState, "flush");
  const ResultCode nCode = Now.Host().SendFlush();
  if (nCode == errWRITE_FAILED) Now.Fail(nCode, "what was added may be gone when the machine starts again");
  Now.Check(nCode);
}

void Store::close() const {
  m_pState->Close();
}

}  // namespace v1
}  // namespace lumbra
