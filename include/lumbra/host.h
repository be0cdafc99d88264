// What a host provides to the store: plain C tables of function pointers.
//
// Every object that host and store hand to each other is a handle of two tables: first the operations that are
// particular to the object, then the system operations that every object of the host has. All of this may be called
// from any thread of the host unless a line says otherwise. No exception may leave a host function, and none may call
// an operation of the store, set its properties or ask for propWRITES_SUSPENDED, or send it its own messages: the store
// holds locks while it calls the host.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>

#include "lumbra/result_code.h"

namespace lumbra {

struct HostSystemOperations;

// A handle. pOperations points to the table of the object's own kind: HostRootOperations for the root object,
// HostStringOperations for a string object, HostContainerOperations for a container, LumbraOperations for a
// store instance.
struct HostObject {
  const void* pOperations;
  const HostSystemOperations* pSystem;
};

// The system operations of a host object. Their positions are part of the contract; the positions without a
// meaning to the store are reserved.
struct HostSystemOperations {
  using Reserved = ResultCode (*)(HostObject* pObject);

  Reserved Reserved0;

  // Position 1. The u32 value of one of the object's properties, 0 when it has no such property.
  std::uint32_t (*ReadProperty)(HostObject* pObject, std::uint32_t nPropertyId);

  // Memory of nSize bytes (contents undefined) at a multiple of 8, or null.
  void* (*Allocate)(HostObject* pObject, std::uint32_t nSize);

  // Gives back what Allocate or a host string function allocated. Null is allowed.
  void (*Free)(HostObject* pObject, void* pBlock);

  // Makes an object of an interface (100: a string object) as a child of pParent; the two u32 are 0. The
  // store gives it back with CloseObject.
  ResultCode (*CreateObject)(HostObject* pParent, std::uint32_t nInterfaceId, std::uint32_t nReserved1,
                             std::uint32_t nReserved2, HostObject** ppObject);
  ResultCode (*CloseObject)(HostObject* pObject);

  // Sends a message to the handlers that are registered for its class, on the caller's thread. pArgument may
  // be null: then the sender itself is what the message is about. Answers 1 when a handler dealt with it.
  ResultCode (*Send)(HostObject* pSender, std::uint32_t nClass, std::uint32_t nMessageId, HostObject* pArgument,
                     std::uint32_t nReserved1, std::uint32_t nReserved2);

  // From here on (until unregistered) messages of the class that come from pSender reach pObject's
  // MessageReceive.
  ResultCode (*RegisterMessageHandler)(HostObject* pObject, std::uint32_t nClass, std::uint32_t nReserved1,
                                       HostObject* pSender, std::uint32_t nReserved2, std::uint32_t nReserved3,
                                       std::uint32_t nReserved4, std::uint32_t nReserved5);
  ResultCode (*UnregisterMessageHandler)(HostObject* pObject, std::uint32_t nClass, HostObject* pSender);

  Reserved Reserved9To15[7];

  // Position 16. Called on the shared instance for each request of it: the host counts the requesters here.
  std::uint32_t (*ReferenceShared)(HostObject* pObject, std::uint32_t nReserved1, std::uint32_t nReserved2);
};
static_assert(offsetof(HostSystemOperations, ReadProperty) == 1 * sizeof(void*));
static_assert(offsetof(HostSystemOperations, ReferenceShared) == 16 * sizeof(void*));

// The head of the table of every object that the host hands to an operation (containers, targets and sources of data):
// they can be asked for their kind.
struct HostObjectOperations {
  HostSystemOperations::Reserved Reserved0;

  // Position 1. 1 when the object is of the type, otherwise 0.
  std::uint32_t (*IsOfType)(HostObject* pObject, std::uint32_t nTypeId);
};

// The interface id of string objects.
inline constexpr std::uint32_t kHostStringInterface = 100;

// Code pages of texts: UTF-16, UTF-8, and the host's own value for 8-bit text.
inline constexpr std::uint32_t kCodePageUtf16 = 1200;
inline constexpr std::uint32_t kCodePageUtf8 = 65001;
inline constexpr std::uint32_t kCodePage8Bit = 0xFFFFFFF4;  // -12

// A string object.
struct HostStringOperations {
  HostObjectOperations Base;

  // Replaces the content by nSize bytes of text; nFlags is 0x10000 (the text is copied).
  ResultCode (*SetText)(HostObject* pString, const void* pText, std::uint32_t nSize, std::uint32_t nCodePage,
                        std::uint32_t nFlags);

  // The content's size in bytes in the code page, without a terminating zero.
  ResultCode (*GetTextSize)(HostObject* pString, std::uint32_t nCodePage, std::uint32_t* pnSize);

  // Writes at most nSize bytes of the content, without a terminating zero; errBUFFER_TOO_SMALL when it is
  // longer.
  ResultCode (*GetText)(HostObject* pString, void* pBuffer, std::uint32_t nSize, std::uint32_t nCodePage);
};

// The type of the containers that GetEvents and GetObjectDataInto fill (HostObjectOperations::IsOfType).
inline constexpr std::uint32_t kHostContainerType = 0xBF8E0400;

// A container of two lists of u64 values: ids of parents, and hashes. GetEvents appends to the first alone.
inline constexpr std::uint32_t kParentList = 0;
inline constexpr std::uint32_t kHashList = 1;

struct HostContainerOperations {
  HostObjectOperations Base;
  ResultCode (*Append)(HostObject* pContainer, std::uint32_t nList, std::uint64_t nValue);
  ResultCode (*Clear)(HostObject* pContainer, std::uint32_t nList);
};

// A string that lives inside the store while its text belongs to the host: only the host's string functions
// allocate it, and it goes back through the root's Free. All zero is the empty string.
struct HostString {
  char16_t* pText;          // zero-terminated when not null
  std::uint32_t nLength;    // characters before the terminating zero
  std::uint32_t nCapacity;  // characters that fit, the terminating zero included
};

// An entry of the table through which a module asks for host functions: the host stores the function's
// address in *ppSlot. A table ends with an entry of zeros.
struct HostImport {
  void** ppSlot;
  std::uint32_t nExporter;
  std::uint32_t nFunctionId;
};

// Makes an object of an interface for pRequester, or answers null. The first argument is ignored.
using HostFactory = void* (*)(std::uint32_t nIgnored, HostObject* pRequester, std::uint32_t nInterfaceId);

// The operations of the host's root object, which a module receives when it is loaded.
struct HostRootOperations {
  // Fills every slot of the table. The second argument is 0.
  ResultCode (*ResolveImports)(HostObject* pRoot, std::uint32_t nReserved, HostImport* pTable, std::uint32_t nPluginId);

  // From here on requests for the interface id reach the factory. The two u32 before it are 0.
  ResultCode (*RegisterInterface)(HostObject* pRoot, std::uint32_t nInterfaceId, std::uint32_t nPluginId,
                                  std::uint32_t nReserved1, std::uint32_t nReserved2, HostFactory pFactory);

  // Stores the address of one host function in *ppSlot, a variable of the module. nOption is 0, or 2 for the trace
  // function.
  ResultCode (*BindFunction)(HostObject* pRoot, void** ppSlot, std::uint32_t nExporter, std::uint32_t nFunctionId,
                             std::uint32_t nOption);

  // Saves an object's state as bytes, from which LoadFromBytes makes it again. *pnNeeded receives their number; a
  // buffer of fewer than that many answers errBUFFER_TOO_SMALL. The third argument is -1, the last one 3.
  ResultCode (*SaveToBytes)(HostObject* pRoot, HostObject* pSource, std::int32_t nReserved, void* pBuffer,
                            std::uint32_t nBufferSize, std::uint32_t* pnNeeded, std::uint32_t nOptions);

  // Gives an object the state that the bytes hold. The last argument is 0.
  ResultCode (*LoadFromBytes)(HostObject* pRoot, HostObject* pTarget, const void* pData, std::uint32_t nSize,
                              std::uint32_t nReserved);
};

// The host functions that the store binds, by exporter and id.

// Atomically adds 1 to or takes 1 from a u32; answers the new value.
inline constexpr std::uint32_t kExporterAtomic = 5;
inline constexpr std::uint32_t kFunctionAtomicIncrement = 0xD7E5EB5D;
inline constexpr std::uint32_t kFunctionAtomicDecrement = 0x7BC0105C;
using HostAtomicFunction = std::uint32_t (*)(std::uint32_t* pnValue);

inline constexpr std::uint32_t kExporterString = 38;

// Appends nSize bytes of text (UTF-16: up to the first zero character), converted from the code page.
inline constexpr std::uint32_t kFunctionStringAppend = 0x0A02700B;
using HostStringAppend = ResultCode (*)(HostString* pTarget, const void* pText, std::uint32_t nSize,
                                        std::uint32_t nCodePage);

// The position of the last character that is one of the zero-terminated set, 0xFFFE when there is none.
inline constexpr std::uint32_t kFunctionStringFindLastOf = 0x7CA05251;
inline constexpr std::uint32_t kHostStringNoPosition = 0xFFFE;
using HostStringFindLastOf = std::uint32_t (*)(const HostString* pString, const char16_t* pSet);

// Compares with a zero-terminated text; nFlags is 0. A success code when they are equal.
inline constexpr std::uint32_t kFunctionStringCompare = 0xCB15477B;
using HostStringCompare = ResultCode (*)(const HostString* pString, const void* pText, std::uint32_t nCodePage,
                                         std::uint32_t nFlags);

// Writes one trace line on behalf of an object. nLevel: 300 failure, 350 damage found and handled, 400
// notable condition, 500 routine outcome, 600 per-call detail. The format is printf's with these conversions,
// each taking width, precision and flags as usual:
//   %d %u %X %lu     a 32-bit number          %I64d %I64u %I64X   a 64-bit number
//   %s               8-bit text               %S %ws              UTF-16 text; a negative precision means none
//   %p               a pointer                %terr               a ResultCode
inline constexpr std::uint32_t kExporterTrace = 1;
inline constexpr std::uint32_t kFunctionTrace = 0x5EC5256C;
inline constexpr std::uint32_t kTraceBindOption = 2;
using HostTraceFunction = ResultCode (*)(HostObject* pObject, std::uint32_t nLevel, const char* pFormat,
                                         std::va_list Arguments);

}  // namespace lumbra
