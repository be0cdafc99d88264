#include "component/host_binding.h"

#include <atomic>
#include <string>

#include "lumbra/lumbra.h"
#include "platform/trace.h"

namespace lumbra::binding {
namespace {

std::atomic<HostObject*> g_pRoot{nullptr};

const HostRootOperations& RootOperationsOf(HostObject* pRoot) {
  return *static_cast<const HostRootOperations*>(pRoot->pOperations);
}

const HostSystemOperations& SystemOf(HostObject* pObject) {
  return *pObject->pSystem;
}

// A host function that is bound on first use and then kept for the life of the process, in a variable that hosts may
// remember as they do those of the import table. A binding that fails is tried again at the next call.
template <class Function>
class LateFunction {
 public:
  constexpr LateFunction(std::uint32_t nExporter, std::uint32_t nFunctionId, std::uint32_t nOption = 0)
      : m_nExporter(nExporter), m_nFunctionId(nFunctionId), m_nOption(nOption) {}

  // Null when the host is not known or does not offer it.
  Function Get(HostObject* pRoot = Root()) {
    if (pRoot == nullptr) return nullptr;
    void* pFunction = m_pFunction.load(std::memory_order_acquire);
    if (pFunction == nullptr) pFunction = Bind(pRoot);
    return reinterpret_cast<Function>(pFunction);
  }

 private:
  void* Bind(HostObject* pRoot) {
    // Without a lock: the host may hold one of its own, for which a thread waits that would hold ours. Threads that
    // come here at once are all given the same function.
    const ResultCode nCode =
        RootOperationsOf(pRoot).BindFunction(pRoot, &m_pSlot, m_nExporter, m_nFunctionId, m_nOption);
    if (Failed(nCode)) return nullptr;
    void* const pBound = std::atomic_ref(m_pSlot).load(std::memory_order_acquire);
    m_pFunction.store(pBound, std::memory_order_release);
    return pBound;
  }

  const std::uint32_t m_nExporter;
  const std::uint32_t m_nFunctionId;
  const std::uint32_t m_nOption;
  alignas(std::atomic_ref<void*>::required_alignment) void* m_pSlot = nullptr;
  std::atomic<void*> m_pFunction{nullptr};  // what was bound: a binding that fails may leave anything in the slot
};

LateFunction<HostTraceFunction> g_Trace(kExporterTrace, kFunctionTrace, kTraceBindOption);
LateFunction<HostStringAppend> g_StringAppend(kExporterString, kFunctionStringAppend);
LateFunction<HostStringFindLastOf> g_StringFindLastOf(kExporterString, kFunctionStringFindLastOf);
LateFunction<HostStringCompare> g_StringCompare(kExporterString, kFunctionStringCompare);

// Filled by the host when the module is loaded.
void* g_pAtomicIncrement = nullptr;
void* g_pAtomicDecrement = nullptr;
HostImport g_Imports[] = {
    {&g_pAtomicIncrement, kExporterAtomic, kFunctionAtomicIncrement},
    {&g_pAtomicDecrement, kExporterAtomic, kFunctionAtomicDecrement},
    {nullptr, 0, 0},
};

// Where the trace lines of all rooms go: to the host's trace function, on behalf of the root unless a line
// has an object of its own.
void TraceToHost(HostObject* pObject, std::uint32_t nLevel, const char* pFormat, std::va_list Arguments) {
  HostObject* const pRoot = Root();
  const HostTraceFunction pTrace = g_Trace.Get(pRoot);
  if (pTrace == nullptr) return;
  // Nobody could be told that a line was lost.
  (void)pTrace(pObject == kHostRoot ? pRoot : pObject, nLevel, pFormat, Arguments);
}

}  // namespace

// ---- Loading ----------------------------------------------------------------------------------------------

void SetRoot(HostObject* pRoot) {
  g_pRoot.store(pRoot, std::memory_order_release);
  SetTraceSink(pRoot != nullptr ? &TraceToHost : nullptr);
}

HostObject* Root() {
  return g_pRoot.load(std::memory_order_acquire);
}

ResultCode ResolveImports(HostObject* pRoot) {
  return RootOperationsOf(pRoot).ResolveImports(pRoot, 0, g_Imports, kLumbraPluginId);
}

ResultCode RegisterInterface(HostObject* pRoot, std::uint32_t nInterfaceId, HostFactory pFactory) {
  return RootOperationsOf(pRoot).RegisterInterface(pRoot, nInterfaceId, kLumbraPluginId, 0, 0, pFactory);
}

// ---- Counters ---------------------------------------------------------------------------------------------

std::uint32_t AtomicIncrement(std::uint32_t* pnValue) {
  return reinterpret_cast<HostAtomicFunction>(g_pAtomicIncrement)(pnValue);
}

std::uint32_t AtomicDecrement(std::uint32_t* pnValue) {
  return reinterpret_cast<HostAtomicFunction>(g_pAtomicDecrement)(pnValue);
}

// ---- System operations of an object -----------------------------------------------------------------------

const HostSystemOperations* DefaultSystemOperations() {
  static constexpr auto kReserved = [](HostObject*) -> ResultCode {
    return errSTORE_NOT_INITIALIZED;
  };
  static constexpr HostSystemOperations kDefault = {
      .Reserved0 = kReserved,
      .ReadProperty = [](HostObject*, std::uint32_t) -> std::uint32_t { return 0; },
      .Allocate = [](HostObject*, std::uint32_t) -> void* { return nullptr; },
      .Free = [](HostObject*, void*) {},
      .CreateObject = [](HostObject*, std::uint32_t, std::uint32_t, std::uint32_t, HostObject**) -> ResultCode {
        return errSTORE_NOT_INITIALIZED;
      },
      .CloseObject = kReserved,
      .Send = [](HostObject*, std::uint32_t, std::uint32_t, HostObject*, std::uint32_t, std::uint32_t) -> ResultCode {
        return errSTORE_NOT_INITIALIZED;
      },
      .RegisterMessageHandler = [](HostObject*, std::uint32_t, std::uint32_t, HostObject*, std::uint32_t, std::uint32_t,
                                   std::uint32_t, std::uint32_t) -> ResultCode { return errSTORE_NOT_INITIALIZED; },
      .UnregisterMessageHandler = [](HostObject*, std::uint32_t, HostObject*) -> ResultCode {
        return errSTORE_NOT_INITIALIZED;
      },
      .Reserved9To15 = {kReserved, kReserved, kReserved, kReserved, kReserved, kReserved, kReserved},
      .ReferenceShared = [](HostObject*, std::uint32_t, std::uint32_t) -> std::uint32_t { return 0; },
  };
  return &kDefault;
}

std::uint32_t ReadProperty(HostObject* pObject, std::uint32_t nPropertyId) {
  return SystemOf(pObject).ReadProperty(pObject, nPropertyId);
}

void* Allocate(HostObject* pObject, std::uint32_t nSize) {
  return SystemOf(pObject).Allocate(pObject, nSize);
}

void Free(HostObject* pObject, void* pBlock) {
  SystemOf(pObject).Free(pObject, pBlock);
}

ResultCode Send(HostObject* pSender, std::uint32_t nClass, std::uint32_t nMessageId, HostObject* pArgument) {
  if (pSender == nullptr) return errNO_HOST_OBJECT;
  return SystemOf(pSender).Send(pSender, nClass, nMessageId, pArgument, 0, 0);
}

ResultCode RegisterFlushHandler(HostObject* pInstance) {
  return SystemOf(pInstance).RegisterMessageHandler(pInstance, kFlushMessageClass, 0, Root(), 0, 0, 0, 0);
}

ResultCode UnregisterFlushHandler(HostObject* pInstance) {
  return SystemOf(pInstance).UnregisterMessageHandler(pInstance, kFlushMessageClass, Root());
}

void ReferenceShared(HostObject* pInstance) {
  SystemOf(pInstance).ReferenceShared(pInstance, 0, 0);
}

// ---- Containers, and objects that are saved and loaded ----------------------------------------------------

namespace {

const HostContainerOperations& ContainerOperationsOf(HostObject* pContainer) {
  return *static_cast<const HostContainerOperations*>(pContainer->pOperations);
}

}  // namespace

bool IsContainer(HostObject* pObject) {
  if (pObject == nullptr) return false;
  return static_cast<const HostObjectOperations*>(pObject->pOperations)->IsOfType(pObject, kHostContainerType) != 0;
}

ResultCode AppendToContainer(HostObject* pContainer, std::uint32_t nList, std::uint64_t nValue) {
  return ContainerOperationsOf(pContainer).Append(pContainer, nList, nValue);
}

ResultCode ClearContainer(HostObject* pContainer) {
  const ResultCode nCode = ContainerOperationsOf(pContainer).Clear(pContainer, kParentList);
  return Failed(nCode) ? nCode : ContainerOperationsOf(pContainer).Clear(pContainer, kHashList);
}

ResultCode SaveToBytes(HostObject* pSource, void* pBuffer, std::uint32_t nBufferSize, std::uint32_t* pnNeeded) {
  constexpr std::int32_t kReserved = -1;
  constexpr std::uint32_t kOptions = 3;
  HostObject* const pRoot = Root();
  if (pRoot == nullptr) return errNO_HOST_OBJECT;
  return RootOperationsOf(pRoot).SaveToBytes(pRoot, pSource, kReserved, pBuffer, nBufferSize, pnNeeded, kOptions);
}

ResultCode LoadFromBytes(HostObject* pTarget, const void* pData, std::uint32_t nSize) {
  HostObject* const pRoot = Root();
  if (pRoot == nullptr) return errNO_HOST_OBJECT;
  return RootOperationsOf(pRoot).LoadFromBytes(pRoot, pTarget, pData, nSize, 0);
}

// ---- Text -------------------------------------------------------------------------------------------------

ResultCode AppendText(HostString* pTarget, const void* pText, std::uint32_t nSize, std::uint32_t nCodePage) {
  const HostStringAppend pAppend = g_StringAppend.Get();
  return pAppend == nullptr ? errUNEXPECTED : pAppend(pTarget, pText, nSize, nCodePage);
}

void FreeText(HostString* pString) {
  // Without the root there is nobody to give the memory back to.
  if (HostObject* const pRoot = Root(); pRoot != nullptr) Free(pRoot, pString->pText);
  *pString = {};
}

std::uint32_t FindLastSeparator(const HostString& Text) {
  const HostStringFindLastOf pFind = g_StringFindLastOf.Get();
  return pFind == nullptr ? kHostStringNoPosition : pFind(&Text, u"\\/");
}

bool EqualText(const HostString& Text, const char16_t* pOther) {
  const HostStringCompare pCompare = g_StringCompare.Get();
  return pCompare != nullptr && Succeeded(pCompare(&Text, pOther, kCodePageUtf16, 0));
}

namespace {

const HostStringOperations& StringOperationsOf(HostObject* pString) {
  return *static_cast<const HostStringOperations*>(pString->pOperations);
}

}  // namespace

StringObject::StringObject(HostObject* pParent, std::u16string_view Text) {
  constexpr std::uint32_t kCopyText = 0x10000;
  if (pParent == nullptr) return;
  HostObject* pObject = nullptr;
  if (Failed(SystemOf(pParent).CreateObject(pParent, kHostStringInterface, 0, 0, &pObject)) || pObject == nullptr)
    return;
  const auto nSize = static_cast<std::uint32_t>(Text.size() * sizeof(char16_t));
  if (Failed(StringOperationsOf(pObject).SetText(pObject, Text.data(), nSize, kCodePageUtf16, kCopyText))) {
    (void)SystemOf(pObject).CloseObject(pObject);  // the object is of no use either way
    return;
  }
  m_pObject = pObject;
}

StringObject::~StringObject() {
  if (m_pObject != nullptr) (void)SystemOf(m_pObject).CloseObject(m_pObject);  // there is nobody to tell
}

ResultCode StringObject::AppendTo(HostString* pTarget) const {
  if (m_pObject == nullptr) return errOK;
  std::uint32_t nSize = 0;
  ResultCode nCode = StringOperationsOf(m_pObject).GetTextSize(m_pObject, kCodePageUtf16, &nSize);
  if (Failed(nCode) || nSize == 0) return nCode;
  std::u16string Text(nSize / sizeof(char16_t), u'\0');
  nCode = StringOperationsOf(m_pObject).GetText(m_pObject, Text.data(), nSize, kCodePageUtf16);
  return Failed(nCode) ? nCode : AppendText(pTarget, Text.data(), nSize, kCodePageUtf16);
}

}  // namespace lumbra::binding
