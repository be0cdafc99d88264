#include "host/host_services.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "host/host_objects.h"
#include "host/standalone_host.h"
#include "host/string_object.h"
#include "host/text.h"

namespace lumbra::host {
namespace {

std::atomic<StandaloneHost*> g_pHost{nullptr};

constinit thread_local FailureWatch* t_pWatch = nullptr;

LumbraInstance* InstanceOf(HostObject* pHandle) {
  return reinterpret_cast<LumbraInstance*>(reinterpret_cast<std::byte*>(pHandle) - offsetof(LumbraInstance, Handle));
}

ResultCode NotSupported(HostObject*) {
  return errNOT_SUPPORTED;
}

// What the host exports, by number.
struct Export {
  std::uint32_t nExporter;
  std::uint32_t nFunctionId;
  void* pFunction;
};

void* FindExport(std::uint32_t nExporter, std::uint32_t nFunctionId) {
  static const Export kExports[] = {
      {kExporterAtomic, kFunctionAtomicIncrement, reinterpret_cast<void*>(&HostServices::AtomicIncrement)},
      {kExporterAtomic, kFunctionAtomicDecrement, reinterpret_cast<void*>(&HostServices::AtomicDecrement)},
      {kExporterTrace, kFunctionTrace, reinterpret_cast<void*>(&HostServices::Trace)},
      {kExporterString, kFunctionStringAppend, reinterpret_cast<void*>(&HostServices::StringAppend)},
      {kExporterString, kFunctionStringFindLastOf, reinterpret_cast<void*>(&HostServices::StringFindLastOf)},
      {kExporterString, kFunctionStringCompare, reinterpret_cast<void*>(&HostServices::StringCompare)},
  };
  for (const Export& Known : kExports) {
    if (Known.nExporter == nExporter && Known.nFunctionId == nFunctionId) return Known.pFunction;
  }
  return nullptr;
}

// Null for an object that cannot be saved and loaded.
const SavableOperations* SavableOperationsOf(HostObject* pObject) {
  const auto* const pBase = static_cast<const HostObjectOperations*>(pObject->pOperations);
  if (pBase->IsOfType(pObject, kSavableType) == 0) return nullptr;
  return static_cast<const SavableOperations*>(pObject->pOperations);
}

// Replaces every occurrence; true when there was one.
bool ReplaceAll(std::u16string* pText, std::u16string_view What, std::u16string_view By) {
  bool bReplaced = false;
  for (std::size_t nAt = 0; (nAt = pText->find(What, nAt)) != std::u16string::npos; nAt += By.size()) {
    pText->replace(nAt, What.size(), By);
    bReplaced = true;
  }
  return bReplaced;
}

}  // namespace

FailureWatch::FailureWatch(std::atomic<bool>* pbFailed)
    : m_pbFailed(pbFailed), m_pOuter(std::exchange(t_pWatch, this)) {}

FailureWatch::~FailureWatch() {
  t_pWatch = m_pOuter;
}

void FailureWatch::Note(std::uint32_t nLevel) {
  constexpr std::uint32_t kFailureLevel = 300;
  if (nLevel > kFailureLevel) return;
  for (FailureWatch* pWatch = t_pWatch; pWatch != nullptr; pWatch = pWatch->m_pOuter) *pWatch->m_pbFailed = true;
}

bool HostServices::Enter(StandaloneHost* pHost) {
  StandaloneHost* pNone = nullptr;
  return g_pHost.compare_exchange_strong(pNone, pHost);
}

void HostServices::Leave(StandaloneHost* pHost) {
  g_pHost.compare_exchange_strong(pHost, nullptr);
}

const HostRootOperations* HostServices::RootOperations() {
  static constexpr HostRootOperations kOperations = {ResolveImports, RegisterInterface, BindFunction, SaveToBytes,
                                                     LoadFromBytes};
  return &kOperations;
}

const HostSystemOperations* HostServices::SystemOperations() {
  static constexpr HostSystemOperations kOperations = {
      .Reserved0 = NotSupported,
      .ReadProperty = ReadProperty,
      .Allocate = Allocate,
      .Free = Free,
      .CreateObject = CreateObject,
      .CloseObject = CloseObject,
      .Send = Send,
      .RegisterMessageHandler = RegisterMessageHandler,
      .UnregisterMessageHandler = UnregisterMessageHandler,
      .Reserved9To15 = {NotSupported, NotSupported, NotSupported, NotSupported, NotSupported, NotSupported,
                        NotSupported},
      .ReferenceShared = ReferenceShared,
  };
  return &kOperations;
}

// ---- Root operations --------------------------------------------------------------------------------------

ResultCode HostServices::ResolveImports(HostObject* pRoot, std::uint32_t /*nReserved*/, HostImport* pTable,
                                        std::uint32_t /*nPluginId*/) {
  for (; pTable->ppSlot != nullptr; ++pTable) {
    const ResultCode nCode = BindFunction(pRoot, pTable->ppSlot, pTable->nExporter, pTable->nFunctionId, 0);
    if (Failed(nCode)) return nCode;
  }
  return errOK;
}

ResultCode HostServices::RegisterInterface(HostObject* /*pRoot*/, std::uint32_t nInterfaceId,
                                           std::uint32_t /*nPluginId*/, std::uint32_t /*nReserved1*/,
                                           std::uint32_t /*nReserved2*/, HostFactory pFactory) {
  StandaloneHost& Host = *g_pHost;
  try {
    const std::lock_guard Hold(Host.m_Lock);
    Host.m_Factories[nInterfaceId] = pFactory;
    return errOK;
  } catch (const std::bad_alloc&) {
    return errOUT_OF_MEMORY;
  }
}

ResultCode HostServices::BindFunction(HostObject* /*pRoot*/, void** ppSlot, std::uint32_t nExporter,
                                      std::uint32_t nFunctionId, std::uint32_t /*nOption*/) {
  void* const pFunction = FindExport(nExporter, nFunctionId);
  if (pFunction == nullptr) return errNOT_FOUND;
  std::atomic_ref(*ppSlot).store(pFunction);  // another thread may bind the same function, or look at it
  return errOK;
}

ResultCode HostServices::SaveToBytes(HostObject* /*pRoot*/, HostObject* pSource, std::int32_t /*nReserved*/,
                                     void* pBuffer, std::uint32_t nBufferSize, std::uint32_t* pnNeeded,
                                     std::uint32_t /*nOptions*/) {
  const SavableOperations* const pOperations = SavableOperationsOf(pSource);
  return pOperations == nullptr ? errINTERFACE_NOT_SUPPORTED
                                : pOperations->Save(pSource, pBuffer, nBufferSize, pnNeeded);
}

ResultCode HostServices::LoadFromBytes(HostObject* /*pRoot*/, HostObject* pTarget, const void* pData,
                                       std::uint32_t nSize, std::uint32_t /*nReserved*/) {
  const SavableOperations* const pOperations = SavableOperationsOf(pTarget);
  return pOperations == nullptr ? errINTERFACE_NOT_SUPPORTED : pOperations->Load(pTarget, pData, nSize);
}

// ---- System operations ------------------------------------------------------------------------------------

std::uint32_t HostServices::ReadProperty(HostObject* pObject, std::uint32_t nPropertyId) {
  StandaloneHost& Host = *g_pHost;
  LumbraInstance* const pInstance = InstanceOf(pObject);
  {
    const std::lock_guard Hold(Host.m_Lock);
    if (!Host.m_Instances.contains(pInstance)) return 0;
  }
  std::uint32_t nValue = 0;
  PropertyAccessRecord Record{&nValue, sizeof(nValue), 0, 0, propertyGet};
  return Succeeded(pInstance->pLifecycle->PropertyAccess(pInstance, nPropertyId, &Record)) ? nValue : 0;
}

void* HostServices::Allocate(HostObject* /*pObject*/, std::uint32_t nSize) {
  return std::malloc(nSize);
}

void HostServices::Free(HostObject* /*pObject*/, void* pBlock) {
  std::free(pBlock);
}

ResultCode HostServices::CreateObject(HostObject* /*pParent*/, std::uint32_t nInterfaceId, std::uint32_t /*nReserved1*/,
                                      std::uint32_t /*nReserved2*/, HostObject** ppObject) {
  if (nInterfaceId != kHostStringInterface) return errINTERFACE_NOT_SUPPORTED;
  auto* const pString = new (std::nothrow) StringObject(SystemOperations());
  if (pString == nullptr) return errOUT_OF_MEMORY;
  *ppObject = &pString->Handle;
  return errOK;
}

ResultCode HostServices::CloseObject(HostObject* pObject) {
  delete StringObject::Of(pObject);
  return errOK;
}

// A text that cannot be expanded for want of memory is left empty: half of one would name a wrong folder.
bool HostServices::ExpandPlaceholders(StandaloneHost& Host, std::u16string* pText) {
  const std::lock_guard Hold(Host.m_Lock);
  bool bExpanded = false;
  try {
    for (const auto& [Placeholder, Value] : Host.m_Placeholders) bExpanded |= ReplaceAll(pText, Placeholder, Value);
  } catch (const std::bad_alloc&) {
    pText->clear();
    throw;
  }
  return bExpanded;
}

ResultCode HostServices::Send(HostObject* pSender, std::uint32_t nClass, std::uint32_t nMessageId,
                              HostObject* pArgument, std::uint32_t /*nReserved1*/, std::uint32_t /*nReserved2*/) {
  StandaloneHost& Host = *g_pHost;
  try {
    if (nClass == kExpandMessageClass && nMessageId == kExpandMessageId) {
      StringObject* const pString = StringObject::Of(pArgument != nullptr ? pArgument : pSender);
      if (pString == nullptr) return errPARAMETER_INVALID;
      return ExpandPlaceholders(Host, &pString->Text) ? kMessageExpanded : errOK;
    }
    ResultCode nAnswer = errOK;
    for (const Store& Receiver : Host.HandlersOf(nClass)) {  // all of them, also when one fails
      LumbraInstance* const pInstance = Receiver.Instance();
      const ResultCode nCode = pInstance->pLifecycle->MessageReceive(pInstance, nClass, nMessageId);
      if (Failed(nCode)) nAnswer = nCode;
    }
    return nAnswer;
  } catch (const std::bad_alloc&) {
    return errOUT_OF_MEMORY;
  }
}

ResultCode HostServices::RegisterMessageHandler(HostObject* pObject, std::uint32_t nClass, std::uint32_t /*nReserved1*/,
                                                HostObject* /*pSender*/, std::uint32_t /*nReserved2*/,
                                                std::uint32_t /*nReserved3*/, std::uint32_t /*nReserved4*/,
                                                std::uint32_t /*nReserved5*/) {
  StandaloneHost& Host = *g_pHost;
  try {
    const std::lock_guard Hold(Host.m_Lock);
    Host.m_Handlers.push_back({nClass, InstanceOf(pObject)});
    return errOK;
  } catch (const std::bad_alloc&) {
    return errOUT_OF_MEMORY;
  }
}

ResultCode HostServices::UnregisterMessageHandler(HostObject* pObject, std::uint32_t nClass, HostObject* /*pSender*/) {
  StandaloneHost& Host = *g_pHost;
  const std::lock_guard Hold(Host.m_Lock);
  std::erase_if(Host.m_Handlers, [&](const StandaloneHost::Handler& Known) {
    return Known.nClass == nClass && Known.pInstance == InstanceOf(pObject);
  });
  return errOK;
}

std::uint32_t HostServices::ReferenceShared(HostObject* pObject, std::uint32_t /*nReserved1*/,
                                            std::uint32_t /*nReserved2*/) {
  StandaloneHost& Host = *g_pHost;
  const std::lock_guard Hold(Host.m_Lock);
  const auto Found = Host.m_Instances.find(InstanceOf(pObject));
  return Found == Host.m_Instances.end() ? 0 : ++Found->second;
}

// ---- Functions bound by number ----------------------------------------------------------------------------

std::uint32_t HostServices::AtomicIncrement(std::uint32_t* pnValue) {
  return std::atomic_ref(*pnValue).fetch_add(1) + 1;
}

std::uint32_t HostServices::AtomicDecrement(std::uint32_t* pnValue) {
  return std::atomic_ref(*pnValue).fetch_sub(1) - 1;
}

ResultCode HostServices::Trace(HostObject* /*pObject*/, std::uint32_t nLevel, const char* pFormat,
                               std::va_list Arguments) {
  FailureWatch::Note(nLevel);
  StandaloneHost* const pHost = g_pHost;
  if (pHost == nullptr || nLevel > pHost->m_nTraceLevel.load(std::memory_order_relaxed)) return errOK;
  try {
    pHost->WriteLine(nLevel, pFormat, Arguments);
    return errOK;
  } catch (...) {
    return errUNEXPECTED;  // a line is lost, and nothing else
  }
}

ResultCode HostServices::StringAppend(HostString* pTarget, const void* pText, std::uint32_t nSize,
                                      std::uint32_t nCodePage) {
  try {
    std::u16string Text;
    if (!DecodeText(pText, nSize, nCodePage, &Text)) return errNOT_SUPPORTED;
    constexpr std::uint32_t kMaxLength = UINT32_MAX / 4;  // units, so that neither bytes nor twice as many overflow
    if (Text.size() > kMaxLength - pTarget->nLength) return errSIZE_INVALID;
    const auto nLength = static_cast<std::uint32_t>(pTarget->nLength + Text.size());
    if (nLength + 1 > pTarget->nCapacity) {
      const std::uint32_t nCapacity = std::max(nLength + 1, pTarget->nCapacity * 2);
      void* const pGrown = std::realloc(pTarget->pText, nCapacity * sizeof(char16_t));
      if (pGrown == nullptr) return errOUT_OF_MEMORY;
      pTarget->pText = static_cast<char16_t*>(pGrown);
      pTarget->nCapacity = nCapacity;
    }
    std::memcpy(pTarget->pText + pTarget->nLength, Text.data(), Text.size() * sizeof(char16_t));
    pTarget->nLength = nLength;
    pTarget->pText[nLength] = 0;
    return errOK;
  } catch (const std::bad_alloc&) {
    return errOUT_OF_MEMORY;
  }
}

std::uint32_t HostServices::StringFindLastOf(const HostString* pString, const char16_t* pSet) {
  if (pString->pText == nullptr) return kHostStringNoPosition;
  const std::size_t nFound = std::u16string_view(pString->pText, pString->nLength).find_last_of(pSet);
  return nFound == std::u16string_view::npos ? kHostStringNoPosition : static_cast<std::uint32_t>(nFound);
}

ResultCode HostServices::StringCompare(const HostString* pString, const void* pText, std::uint32_t nCodePage,
                                       std::uint32_t /*nFlags*/) {
  if (nCodePage != kCodePageUtf16) return errNOT_SUPPORTED;
  const std::u16string_view Own =
      pString->pText == nullptr ? std::u16string_view() : std::u16string_view(pString->pText, pString->nLength);
  return Own == static_cast<const char16_t*>(pText) ? errOK : errNOT_MATCHED;
}

}  // namespace lumbra::host
