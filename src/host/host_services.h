// The function tables of the stand-alone host.
#pragma once

#include <atomic>
#include <string>

#include "lumbra/host.h"

namespace lumbra::host {

class StandaloneHost;

// Sets a flag at once when a failure is traced on the thread that it lives on, whatever level the user asks for. The
// flag outlives it.
class FailureWatch {
 public:
  explicit FailureWatch(std::atomic<bool>* pbFailed);
  ~FailureWatch();
  FailureWatch(const FailureWatch&) = delete;
  FailureWatch& operator=(const FailureWatch&) = delete;

  static void Note(std::uint32_t nLevel);  // of a line

 private:
  std::atomic<bool>* const m_pbFailed;
  FailureWatch* const m_pOuter;  // one that lives already, and sees all that this one sees
};

struct HostServices {
  // The host whose objects the tables serve: functions without an object argument have no other way to it.
  // False while there is another one.
  static bool Enter(StandaloneHost* pHost);
  static void Leave(StandaloneHost* pHost);

  static const HostRootOperations* RootOperations();
  static const HostSystemOperations* SystemOperations();

  // Root operations.
  static ResultCode ResolveImports(HostObject* pRoot, std::uint32_t nReserved, HostImport* pTable,
                                   std::uint32_t nPluginId);
  static ResultCode RegisterInterface(HostObject* pRoot, std::uint32_t nInterfaceId, std::uint32_t nPluginId,
                                      std::uint32_t nReserved1, std::uint32_t nReserved2, HostFactory pFactory);
  static ResultCode BindFunction(HostObject* pRoot, void** ppSlot, std::uint32_t nExporter, std::uint32_t nFunctionId,
                                 std::uint32_t nOption);
  static ResultCode SaveToBytes(HostObject* pRoot, HostObject* pSource, std::int32_t nReserved, void* pBuffer,
                                std::uint32_t nBufferSize, std::uint32_t* pnNeeded, std::uint32_t nOptions);
  static ResultCode LoadFromBytes(HostObject* pRoot, HostObject* pTarget, const void* pData, std::uint32_t nSize,
                                  std::uint32_t nReserved);

  // System operations.
  static std::uint32_t ReadProperty(HostObject* pObject, std::uint32_t nPropertyId);
  static void* Allocate(HostObject* pObject, std::uint32_t nSize);
  static void Free(HostObject* pObject, void* pBlock);
  static ResultCode CreateObject(HostObject* pParent, std::uint32_t nInterfaceId, std::uint32_t nReserved1,
                                 std::uint32_t nReserved2, HostObject** ppObject);
  static ResultCode CloseObject(HostObject* pObject);
  static ResultCode Send(HostObject* pSender, std::uint32_t nClass, std::uint32_t nMessageId, HostObject* pArgument,
                         std::uint32_t nReserved1, std::uint32_t nReserved2);
  static bool ExpandPlaceholders(StandaloneHost& Host, std::u16string* pText);
  static ResultCode RegisterMessageHandler(HostObject* pObject, std::uint32_t nClass, std::uint32_t nReserved1,
                                           HostObject* pSender, std::uint32_t nReserved2, std::uint32_t nReserved3,
                                           std::uint32_t nReserved4, std::uint32_t nReserved5);
  static ResultCode UnregisterMessageHandler(HostObject* pObject, std::uint32_t nClass, HostObject* pSender);
  static std::uint32_t ReferenceShared(HostObject* pObject, std::uint32_t nReserved1, std::uint32_t nReserved2);

  // Functions bound by number.
  static std::uint32_t AtomicIncrement(std::uint32_t* pnValue);
  static std::uint32_t AtomicDecrement(std::uint32_t* pnValue);
  static ResultCode Trace(HostObject* pObject, std::uint32_t nLevel, const char* pFormat, std::va_list Arguments);
  static ResultCode StringAppend(HostString* pTarget, const void* pText, std::uint32_t nSize, std::uint32_t nCodePage);
  static std::uint32_t StringFindLastOf(const HostString* pString, const char16_t* pSet);
  static ResultCode StringCompare(const HostString* pString, const void* pText, std::uint32_t nCodePage,
                                  std::uint32_t nFlags);
};

}  // namespace lumbra::host
