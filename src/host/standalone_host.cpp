#include "host/standalone_host.h"

#include <algorithm>
#include <cassert>
#include <new>
#include <utility>

#include "format/database_name.h"
#include "format/file_names.h"
#include "host/host_services.h"
#include "host/printed_text.h"
#include "host/text.h"
#include "host/trace_file.h"
#include "host/trace_format.h"
#include "host/trust.h"
#include "platform/file.h"
#include "platform/result.h"
#include "salvage/apply.h"
#include "salvage/look.h"

namespace lumbra::host {
namespace {

constexpr std::uint32_t kFailureLevel = 300;
constexpr std::uint32_t kDamageLevel = 350;

// A store's folder as the system knows it: on posix the store takes '\\' for a separator, too.
std::filesystem::path PathOfStore(std::u16string Folder) {
#ifdef _WIN32
  return Folder;
#else
  std::replace(Folder.begin(), Folder.end(), u'\\', u'/');
  return ToUtf8(Folder);
#endif
}

}  // namespace

// ---- Store ------------------------------------------------------------------------------------------------

Store::Store(Store&& Other) noexcept
    : m_pHost(Other.m_pHost),
      m_pInstance(std::exchange(Other.m_pInstance, nullptr)),
      m_bHeals(Other.m_bHeals),
      m_Healed(std::move(Other.m_Healed)),
      m_Left(std::move(Other.m_Left)),
      m_Refusal(std::move(Other.m_Refusal)) {}

Store& Store::operator=(Store&& Other) noexcept {
  std::swap(m_pHost, Other.m_pHost);
  std::swap(m_pInstance, Other.m_pInstance);
  std::swap(m_bHeals, Other.m_bHeals);
  std::swap(m_Healed, Other.m_Healed);
  std::swap(m_Left, Other.m_Left);
  std::swap(m_Refusal, Other.m_Refusal);
  return *this;
}

Store::~Store() {
  if (m_pInstance != nullptr) m_pHost->Release(m_pInstance);
}

ResultCode Store::Init(Heal What) try {
  m_Refusal.clear();
  m_Healed.clear();
  m_Left.clear();
  const bool bTrusts = m_pHost->m_bTrustsStores;
  // For a folder that somebody puts there now.
  const ResultCode nCode = SetNumber(propOWN_FOLDERS, bTrusts ? 0 : 1);
  if (!bTrusts) {
    m_Refusal = PrintableSentence(WhyStoreNotTrusted(PathOfStore(ReportFolder())));
    if (!m_Refusal.empty()) {
      m_pHost->WriteLine(kFailureLevel, "the store is not trusted: " + m_Refusal);
      return errACCESS_DENIED;
    }
    if (Failed(nCode) && nCode != errPROPERTY_READ_ONLY) {  // read-only: it is open
      m_Refusal =
          "the module cannot make sure that its folders belong to nobody else; a store that is trusted needs not";
      m_pHost->WriteLine(kFailureLevel, "the store is not opened: " + m_Refusal);
      return nCode;
    }
  }
  const std::lock_guard Hold(m_pHost->m_OpeningLock);
  m_bHeals = What != Heal::Off;
  const ResultCode nHealed = What == Heal::Off ? errOK : HealBefore(What);
  return Failed(nHealed) ? nHealed : m_pInstance->pLifecycle->ObjectInitDone(m_pInstance);
} catch (const std::bad_alloc&) {
  return errOUT_OF_MEMORY;
}

ResultCode Store::OpenDatabase(std::uint32_t nDatabase, std::uint32_t nEventSize, OtherSize What) try {
  const ResultCode nCode = CheckEventSize(NumberedFolder(nDatabase), nEventSize, What);
  return Failed(nCode) ? nCode : Call(&LumbraOperations::InitDB, nDatabase, nEventSize);
} catch (const std::bad_alloc&) {
  return errOUT_OF_MEMORY;
}

ResultCode Store::OpenDatabase(const std::u16string& Name, std::uint32_t nEventSize, std::uint32_t* pnDatabase,
                               OtherSize What) try {
  // Other names are refused by the component.
  const ResultCode nCode = IsPlainFolderName(Name) ? CheckEventSize(Name, nEventSize, What) : errOK;
  return Failed(nCode) ? nCode : Call(&LumbraOperations::InitDBByName, Name.c_str(), nEventSize, pnDatabase);
} catch (const std::bad_alloc&) {
  return errOUT_OF_MEMORY;
}

ResultCode Store::CheckEventSize(const std::u16string& Folder, std::uint32_t nEventSize, OtherSize What) {
  m_Refusal.clear();
  salvage::EventSize There;
  const ResultCode nCode = Relieved([&] { return salvage::LookAtEventSize(ReportFolder(), Folder, &There); });
  if (Failed(nCode)) m_Refusal = "the size of its events cannot be read";
  const bool bKeepsLost = There.bLost && m_bHeals;
  const bool bOther = There.nBytes != 0 && There.nBytes != nEventSize;
  if (Failed(nCode) || (!bKeepsLost && !bOther)) return nCode;
  if (What == OtherSize::StartEmpty) {
    const ResultCode nAside = Relieved([&] { return salvage::SetDatabaseAside(ReportFolder(), Rules(), Folder); });
    if (Failed(nAside)) m_Refusal = "its files cannot be set aside now";
    return nAside;
  }
  m_Refusal = bOther ? "its events have " + std::to_string(There.nBytes) + " bytes, not " + std::to_string(nEventSize)
                     : "no file tells the size of its events, which would be removed";
  return bOther ? errSIZE_INVALID : errDATA_CORRUPTED;
}

os::FolderRules Store::Rules() const {
  std::uint32_t nGroupReadable = 0;
  (void)GetNumber(propGROUP_READABLE, &nGroupReadable);  // a module that does not know it makes files for their owner
  return {.ForWhom = nGroupReadable != 0 ? os::Readers::OwnerAndGroup : os::Readers::OwnerAlone,
          .bOwnFolders = !m_pHost->m_bTrustsStores};
}

ResultCode Store::HealBefore(Heal What) {
  salvage::Plan Done;
  const ResultCode nCode = Relieved(
      [&] { return salvage::Heal(ReportFolder(), Rules(), {.bStartEmpty = What == Heal::StartEmpty}, &Done); });
  for (const salvage::Step& One : Done.Steps) {
    if (One.Acts() && !One.bDone) continue;
    std::vector<std::string>& Lines = One.bDone ? m_Healed : m_Left;
    Lines.push_back(PrintableSentence(salvage::Describe(One)));
    m_pHost->WriteLine(kDamageLevel, (One.bDone ? "healed: " : "left as it is: ") + Lines.back());
  }
  if (Succeeded(nCode) && Done.Refusal.empty()) return errOK;
  m_Refusal = Done.Refusal.empty() ? "its damage cannot be healed now" : PrintableSentence(Done.Refusal);
  m_pHost->WriteLine(kFailureLevel, "the store is not opened: " + m_Refusal);
  return Failed(nCode) ? nCode : errDATA_CORRUPTED;
}

ResultCode Store::SetNumber(std::uint32_t nPropertyId, std::uint32_t nValue) {
  PropertyAccessRecord Record{&nValue, sizeof(nValue), 0, 0, propertySet};
  return m_pInstance->pLifecycle->PropertyAccess(m_pInstance, nPropertyId, &Record);
}

ResultCode Store::GetNumber(std::uint32_t nPropertyId, std::uint32_t* pnValue) const {
  PropertyAccessRecord Record{pnValue, sizeof(*pnValue), 0, 0, propertyGet};
  return m_pInstance->pLifecycle->PropertyAccess(m_pInstance, nPropertyId, &Record);
}

ResultCode Store::SetReportFolder(std::u16string_view Folder) {
  constexpr std::size_t kLongestPath = 32767;  // units
  if (Folder.size() > kLongestPath) return errSIZE_INVALID;
  std::u16string Text(Folder);
  const auto nSize = static_cast<std::uint32_t>(Text.size() * sizeof(char16_t));
  PropertyAccessRecord Record{Text.data(), nSize, 0, kCodePageUtf16, propertySet};
  return m_pInstance->pLifecycle->PropertyAccess(m_pInstance, propREPORT_FOLDER, &Record);
}

std::u16string Store::ReportFolder() const {
  std::u16string Folder;
  PropertyAccessRecord Record{nullptr, 0, 0, 0, propertyGet};
  const auto Get = [&] {
    return m_pInstance->pLifecycle->PropertyAccess(m_pInstance, propREPORT_FOLDER, &Record);
  };
  if (Failed(Get())) return Folder;
  Folder.resize(Record.nCount / sizeof(char16_t));
  Record = {Folder.data(), Record.nCount, 0, 0, propertyGet};
  if (Failed(Get())) return {};
  if (Folder.ends_with(u'\0')) Folder.pop_back();
  if (Folder.empty()) HostServices::ExpandPlaceholders(*m_pHost, &(Folder = u"%Report%"));
  return Folder;
}

// ---- StandaloneHost ---------------------------------------------------------------------------------------

StandaloneHost::StandaloneHost(ModuleEntry pEntry)
    : m_pEntry(pEntry), m_Root{HostServices::RootOperations(), HostServices::SystemOperations()} {
  if (!HostServices::Enter(this)) {
    m_bRefused = true;
    m_nLoadResult = errALREADY_EXISTS;
    return;
  }
  const bool bLoaded = m_pEntry(&m_Root, kModuleLoad, &m_nLoadResult) != 0;
  if (!bLoaded && Succeeded(m_nLoadResult)) m_nLoadResult = errUNSPECIFIED;
}

StandaloneHost::~StandaloneHost() {
  if (m_bRefused) return;
  assert(m_Instances.empty() && "stores end before their host");
  m_pEntry(&m_Root, kModuleUnload, nullptr);
  HostServices::Leave(this);
}

void StandaloneHost::SetPlaceholder(std::u16string_view Placeholder, std::u16string_view Value) {
  const std::lock_guard Hold(m_Lock);
  m_Placeholders.insert_or_assign(std::u16string(Placeholder), std::u16string(Value));
}

// ---- Trace ---

void StandaloneHost::TraceToStream(std::uint32_t nLevel, std::FILE* pStream) {
  const auto Write = [pStream](std::uint32_t nLineLevel, std::string_view Line) {
    WriteTraceLine(pStream, nLineLevel, Line);
  };
  TraceToCallback(nLevel, Write, TraceNames::Printable);
}

void WriteTraceLine(std::FILE* pStream, std::uint32_t nLevel, std::string_view Line) {
  std::fprintf(pStream, "%u %.*s\n", nLevel, static_cast<int>(Line.size()), Line.data());
  std::fflush(pStream);
}

bool StandaloneHost::TraceToFile(std::uint32_t nLevel, const std::filesystem::path& Path, TraceFile What) {
  std::FILE* const pOpened = OpenTraceFile(Path, What == TraceFile::Replace);
  if (pOpened == nullptr) return false;
  const std::shared_ptr<std::FILE> pFile(pOpened, &std::fclose);
  const auto Write = [pFile](std::uint32_t nLineLevel, std::string_view Line) {
    WriteTraceLine(pFile.get(), nLineLevel, Line);
  };
  TraceToCallback(nLevel, Write, TraceNames::Printable);
  return true;
}

void StandaloneHost::TraceToCallback(std::uint32_t nLevel, TraceCallback Callback, TraceNames Names) {
  const std::lock_guard Hold(m_TraceLock);
  m_TraceCallback = std::move(Callback);
  m_TraceNames = Names;
  m_nTraceLevel = nLevel;
}

void StandaloneHost::WriteLine(std::uint32_t nLevel, const char* pFormat, std::va_list Arguments) {
  if (nLevel > m_nTraceLevel) return;
  const std::lock_guard Hold(m_TraceLock);
  if (m_TraceCallback && nLevel <= m_nTraceLevel)
    m_TraceCallback(nLevel, FormatTraceLine(pFormat, Arguments, m_TraceNames));
}

void StandaloneHost::WriteLine(std::uint32_t nLevel, std::string_view Line) {
  if (nLevel > m_nTraceLevel) return;
  const std::lock_guard Hold(m_TraceLock);
  if (m_TraceCallback && nLevel <= m_nTraceLevel) m_TraceCallback(nLevel, Line);
}

// ---- Instances ---

Store StandaloneHost::Create(std::uint32_t nInterfaceId) try {
  if (Failed(m_nLoadResult)) return {};
  std::unique_lock Hold(m_Lock);
  m_Ended.wait(Hold, [this] { return m_nEnding == 0; });
  const auto Factory = m_Factories.find(nInterfaceId);
  if (Factory == m_Factories.end()) return {};
  // Its place in the list comes first: nobody could end an instance that the list has no memory for.
  std::map<LumbraInstance*, std::uint32_t> Prepared{{nullptr, 1}};
  auto* const pInstance = static_cast<LumbraInstance*>(Factory->second(0, &m_Root, nInterfaceId));
  if (pInstance == nullptr) return {};
  if (m_Instances.empty()) m_bFlushFailed = false;
  auto Place = Prepared.extract(Prepared.begin());
  Place.key() = pInstance;
  // A shared instance that is known already has counted this request itself.
  const bool bNew = m_Instances.insert(std::move(Place)).inserted;
  if (bNew) pInstance->Handle.pSystem = HostServices::SystemOperations();
  return Store(this, pInstance);
} catch (const std::bad_alloc&) {
  return {};
}

std::vector<Store> StandaloneHost::HandlersOf(std::uint32_t nClass) {
  const std::lock_guard Hold(m_Lock);
  std::vector<Store> Users;
  Users.reserve(m_Handlers.size());
  for (const Handler& Known : m_Handlers) {
    const auto Instance = m_Instances.find(Known.pInstance);
    if (Known.nClass != nClass || Instance == m_Instances.end() || Instance->second == 0) continue;  // about to go
    ++Instance->second;
    Users.push_back(Store(this, Known.pInstance));
  }
  return Users;
}

// The lock is not held while an instance ends, which takes locks of its own; instead nobody is given an instance from
// its last user's end until its memory is free: not this one again, nor another one at its address.
void StandaloneHost::Release(LumbraInstance* pInstance) {
  {
    const std::lock_guard Hold(m_Lock);
    if (--m_Instances.at(pInstance) != 0) return;
    ++m_nEnding;
  }
  (void)pInstance->pLifecycle->ObjectShutdown(pInstance);  // both answer errOK always
  (void)pInstance->pLifecycle->ObjectFree(pInstance);
  {
    const std::lock_guard Hold(m_Lock);
    m_Instances.erase(pInstance);
    --m_nEnding;
  }
  m_Ended.notify_all();
}

// The store has no answer for the message but its trace, and that is what a module has, too. What is traced counts from
// that moment on: a flush on another thread may be answered before this one ends, and must not call it a success.
ResultCode StandaloneHost::SendFlush() {
  if (Failed(m_nLoadResult)) return m_nLoadResult;
  const FailureWatch Watch(&m_bFlushFailed);
  const ResultCode nCode = HostServices::Send(&m_Root, kFlushMessageClass, kFlushMessageId, nullptr, 0, 0);
  return m_bFlushFailed ? errWRITE_FAILED : nCode;
}

}  // namespace lumbra::host
