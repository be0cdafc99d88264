// The only code that calls the host: the root's operations, the system operations of objects, and the
// functions that are bound by number. Everything else of the component, and all of the storage code, builds
// and runs without a host.
//
// Any thread may call any of this. While no root is known (before the module is loaded and after it is
// unloaded) no host service is reached.
#pragma once

#include <cstdint>
#include <string_view>

#include "lumbra/host.h"
#include "lumbra/result_code.h"

namespace lumbra::binding {

// ---- Loading ----------------------------------------------------------------------------------------------

// Remembers the root and lets trace lines through to it; null forgets it.
void SetRoot(HostObject* pRoot);
HostObject* Root();

ResultCode ResolveImports(HostObject* pRoot);
ResultCode RegisterInterface(HostObject* pRoot, std::uint32_t nInterfaceId, HostFactory pFactory);

// ---- Counters ---------------------------------------------------------------------------------------------

// Answer the new value.
std::uint32_t AtomicIncrement(std::uint32_t* pnValue);
std::uint32_t AtomicDecrement(std::uint32_t* pnValue);

// ---- System operations of an object -----------------------------------------------------------------------

// What an instance's handle holds until the host installs its own operations: they answer
// errSTORE_NOT_INITIALIZED, 0 or nothing.
const HostSystemOperations* DefaultSystemOperations();

std::uint32_t ReadProperty(HostObject* pObject, std::uint32_t nPropertyId);
void* Allocate(HostObject* pObject, std::uint32_t nSize);
void Free(HostObject* pObject, void* pBlock);
ResultCode Send(HostObject* pSender, std::uint32_t nClass, std::uint32_t nMessageId, HostObject* pArgument);
ResultCode RegisterFlushHandler(HostObject* pInstance);
ResultCode UnregisterFlushHandler(HostObject* pInstance);
void ReferenceShared(HostObject* pInstance);

// ---- Containers, and objects that are saved and loaded ----------------------------------------------------

bool IsContainer(HostObject* pObject);  // false for null
ResultCode AppendToContainer(HostObject* pContainer, std::uint32_t nList, std::uint64_t nValue);
ResultCode ClearContainer(HostObject* pContainer);  // both lists

// As HostRootOperations has them; errNO_HOST_OBJECT without a root.
ResultCode SaveToBytes(HostObject* pSource, void* pBuffer, std::uint32_t nBufferSize, std::uint32_t* pnNeeded);
ResultCode LoadFromBytes(HostObject* pTarget, const void* pData, std::uint32_t nSize);

// ---- Text -------------------------------------------------------------------------------------------------

// Appends to a host string; errUNEXPECTED when the host offers no such function.
ResultCode AppendText(HostString* pTarget, const void* pText, std::uint32_t nSize, std::uint32_t nCodePage);
void FreeText(HostString* pString);

// The position of the last '\' or '/', kHostStringNoPosition when there is none.
std::uint32_t FindLastSeparator(const HostString& Text);

// Whether the host finds the texts equal.
bool EqualText(const HostString& Text, const char16_t* pOther);

// A string object of the host, closed at the end. Empty when the host made none.
class StringObject {
 public:
  StringObject(HostObject* pParent, std::u16string_view Text);
  ~StringObject();
  StringObject(const StringObject&) = delete;
  StringObject& operator=(const StringObject&) = delete;

  HostObject* Get() const { return m_pObject; }

  // Appends the content to a host string; a missing or empty object adds nothing.
  ResultCode AppendTo(HostString* pTarget) const;

 private:
  HostObject* m_pObject = nullptr;
};

}  // namespace lumbra::binding
