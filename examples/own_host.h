// A host of one's own, by the public headers lumbra.h and host.h alone: for a program that has services of its own for
// memory, texts and traces, or that does without exceptions. It does as little as a host can; what host.h says of
// threads holds for it as well. own_host.cpp is linked with the store, load_module.cpp loads it.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <string_view>

#include "lumbra/host.h"
#include "lumbra/lumbra.h"

namespace own_host {

using namespace lumbra;

inline HostFactory g_factory = nullptr;              // that the store has registered
inline LumbraInstance* g_flushed = nullptr;          // who handles the message to flush
inline constexpr char16_t kFolder[] = u"own-store";  // of the store

inline ResultCode reserved(HostObject*) {
  return errNOT_SUPPORTED;
}

// ---- Texts ------------------------------------------------------------------------------------------------

struct Text {
  HostObject handle;  // first: the handle leads to its object
  std::u16string value;
};
inline Text* text_of(HostObject* object) {
  return reinterpret_cast<Text*>(object);
}

inline ResultCode set_text(HostObject* object, const void* text, std::uint32_t size, std::uint32_t code_page,
                           std::uint32_t) {
  if (code_page != kCodePageUtf16) return errNOT_SUPPORTED;
  text_of(object)->value.assign(static_cast<const char16_t*>(text), size / sizeof(char16_t));
  return errOK;
}
inline ResultCode text_size(HostObject* object, std::uint32_t, std::uint32_t* size) {
  *size = static_cast<std::uint32_t>(text_of(object)->value.size() * sizeof(char16_t));
  return errOK;
}
inline ResultCode get_text(HostObject* object, void* buffer, std::uint32_t size, std::uint32_t) {
  const std::u16string& value = text_of(object)->value;
  if (size < value.size() * sizeof(char16_t)) return errBUFFER_TOO_SMALL;
  std::memcpy(buffer, value.data(), value.size() * sizeof(char16_t));
  return errOK;
}
inline constexpr HostStringOperations kText = {{reserved,
                                                [](HostObject*, std::uint32_t) -> std::uint32_t {
                                                  return 0;
                                                }},
                                               set_text,
                                               text_size,
                                               get_text};

// The store's own texts, whose memory is ours.
inline ResultCode append(HostString* target, const void* text, std::uint32_t size, std::uint32_t code_page) {
  if (code_page != kCodePageUtf16) return errNOT_SUPPORTED;
  const std::u16string_view added(static_cast<const char16_t*>(text), size / sizeof(char16_t));
  const auto length = static_cast<std::uint32_t>(target->nLength + added.size());
  void* const grown = std::realloc(target->pText, (length + 1) * sizeof(char16_t));
  if (grown == nullptr) return errOUT_OF_MEMORY;
  target->pText = static_cast<char16_t*>(grown);
  std::memcpy(target->pText + target->nLength, added.data(), added.size() * sizeof(char16_t));
  target->pText[length] = 0;
  target->nLength = length;
  target->nCapacity = length + 1;
  return errOK;
}
inline std::u16string_view view(const HostString* text) {
  return text->pText == nullptr ? std::u16string_view() : std::u16string_view(text->pText, text->nLength);
}
inline std::uint32_t find_last_of(const HostString* text, const char16_t* set) {
  const std::size_t found = view(text).find_last_of(set);
  return found == std::u16string_view::npos ? kHostStringNoPosition : static_cast<std::uint32_t>(found);
}
inline ResultCode compare(const HostString* text, const void* other, std::uint32_t, std::uint32_t) {
  return view(text) == static_cast<const char16_t*>(other) ? errOK : errNOT_MATCHED;
}

// ---- What every object of the host has --------------------------------------------------------------------

extern const HostSystemOperations kSystem;  // below

inline LumbraInstance* instance_of(HostObject* handle) {
  return reinterpret_cast<LumbraInstance*>(reinterpret_cast<std::byte*>(handle) - offsetof(LumbraInstance, Handle));
}
inline std::uint32_t read_property(HostObject* object, std::uint32_t id) {
  std::uint32_t value = 0;
  PropertyAccessRecord record{&value, sizeof(value), 0, 0, propertyGet};
  LumbraInstance* const instance = instance_of(object);
  return Succeeded(instance->pLifecycle->PropertyAccess(instance, id, &record)) ? value : 0;
}
inline ResultCode create(HostObject*, std::uint32_t interface_id, std::uint32_t, std::uint32_t, HostObject** object) {
  if (interface_id != kHostStringInterface) return errINTERFACE_NOT_SUPPORTED;
  Text* const text = new (std::nothrow) Text{{&kText, &kSystem}, {}};
  if (text == nullptr) return errOUT_OF_MEMORY;
  *object = &text->handle;
  return errOK;
}
inline ResultCode close(HostObject* object) {
  delete text_of(object);
  return errOK;
}
// The store asks for its folder by this message; all else that it asks for needs no answer.
inline ResultCode send(HostObject* sender, std::uint32_t message_class, std::uint32_t id, HostObject* argument,
                       std::uint32_t, std::uint32_t) {
  if (message_class != kExpandMessageClass || id != kExpandMessageId) return errOK;
  Text* const text = text_of(argument != nullptr ? argument : sender);
  const std::size_t at = text->value.find(u"%Report%");
  if (at == std::u16string::npos) return errOK;
  text->value.replace(at, 8, kFolder);
  return kMessageExpanded;
}
inline const HostSystemOperations kSystem = {
    .Reserved0 = reserved,
    .ReadProperty = read_property,
    .Allocate = [](HostObject*, std::uint32_t size) { return std::malloc(size); },
    .Free = [](HostObject*, void* block) { std::free(block); },
    .CreateObject = create,
    .CloseObject = close,
    .Send = send,
    .RegisterMessageHandler = [](HostObject* object, std::uint32_t, std::uint32_t, HostObject*, std::uint32_t,
                                 std::uint32_t, std::uint32_t, std::uint32_t) -> ResultCode {
      g_flushed = instance_of(object);
      return errOK;
    },
    .UnregisterMessageHandler = [](HostObject*, std::uint32_t, HostObject*) -> ResultCode {
      g_flushed = nullptr;
      return errOK;
    },
    .Reserved9To15 = {reserved, reserved, reserved, reserved, reserved, reserved, reserved},
    .ReferenceShared = [](HostObject*, std::uint32_t, std::uint32_t) -> std::uint32_t { return 0; },
};

// ---- The root, through which the store finds us -----------------------------------------------------------

inline std::uint32_t add_one(std::uint32_t* value) {
  return std::atomic_ref(*value).fetch_add(1) + 1;
}
inline std::uint32_t take_one(std::uint32_t* value) {
  return std::atomic_ref(*value).fetch_sub(1) - 1;
}
inline ResultCode trace(HostObject*, std::uint32_t level, const char* format, std::va_list) {
  if (level <= 300) std::fprintf(stderr, "failed: %s\n", format);  // a real one formats the arguments
  return errOK;
}
inline ResultCode bind(HostObject*, void** slot, std::uint32_t, std::uint32_t function, std::uint32_t) {
  void* const found = function == kFunctionAtomicIncrement    ? reinterpret_cast<void*>(&add_one)
                      : function == kFunctionAtomicDecrement  ? reinterpret_cast<void*>(&take_one)
                      : function == kFunctionTrace            ? reinterpret_cast<void*>(&trace)
                      : function == kFunctionStringAppend     ? reinterpret_cast<void*>(&append)
                      : function == kFunctionStringFindLastOf ? reinterpret_cast<void*>(&find_last_of)
                      : function == kFunctionStringCompare    ? reinterpret_cast<void*>(&compare)
                                                              : nullptr;
  if (found == nullptr) return errNOT_FOUND;
  std::atomic_ref(*slot).store(found);
  return errOK;
}
inline constexpr HostRootOperations kRoot = {
    .ResolveImports = [](HostObject* root, std::uint32_t, HostImport* table, std::uint32_t) -> ResultCode {
      for (; table->ppSlot != nullptr; ++table) {
        const ResultCode code = bind(root, table->ppSlot, table->nExporter, table->nFunctionId, 0);
        if (Failed(code)) return code;
      }
      return errOK;
    },
    .RegisterInterface = [](HostObject*, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t,
                            HostFactory factory) -> ResultCode {
      g_factory = factory;
      return errOK;
    },
    .BindFunction = bind,
    .SaveToBytes = [](HostObject*, HostObject*, std::int32_t, void*, std::uint32_t, std::uint32_t*,
                      std::uint32_t) -> ResultCode { return errINTERFACE_NOT_SUPPORTED; },
    .LoadFromBytes = [](HostObject*, HostObject*, const void*, std::uint32_t, std::uint32_t) -> ResultCode {
      return errINTERFACE_NOT_SUPPORTED;
    },
};

// ---- The store, through its table -------------------------------------------------------------------------

inline ResultCode use(LumbraInstance* instance) {
  HostObject* const self = &instance->Handle;
  const LumbraOperations& store = OperationsOf(*self);
  std::uint64_t event[2] = {42, 0};  // 16 bytes of your own; bytes 8 to 15 refer to an object
  char16_t name[260] = {};
  ResultCode code = store.InitDB(self, 1, sizeof(event));
  if (Succeeded(code))
    code = store.FindObjectSimple(self, 1, typeFile, u"C:\\Reports\\today.txt", kZeroTerminated, 1, 0, &event[1]);
  if (Succeeded(code)) code = store.AddEvent(self, 1, event, sizeof(event), nullptr);
  if (Succeeded(code)) code = instance->pLifecycle->MessageReceive(g_flushed, kFlushMessageClass, kFlushMessageId);
  if (Succeeded(code)) code = store.GetEvents(self, 1, 0, event, sizeof(event), 1, nullptr, nullptr);
  if (Succeeded(code)) code = store.GetObjectName(self, event[1], name, sizeof(name), nullptr, 0, nullptr);
  if (Failed(code)) return code;
  std::printf("event %u is about ", static_cast<unsigned>(event[0]));
  for (const char16_t* c = name; *c != 0; ++c) std::putchar(static_cast<char>(*c));
  std::puts("");
  return errOK;
}

// Loads the store by its entry, uses it, and gives all back. 0 for success, as main answers it.
inline int run(ModuleEntry entry) {
  HostObject root{&kRoot, &kSystem};
  ResultCode code = errOK;
  if (entry(&root, kModuleLoad, &code) == 0) return 1;
  auto* const instance = static_cast<LumbraInstance*>(g_factory(0, &root, kSeparateInstance));
  if (instance == nullptr) return 1;
  instance->Handle.pSystem = &kSystem;
  code = instance->pLifecycle->ObjectInitDone(instance);
  if (Succeeded(code)) code = use(instance);
  (void)instance->pLifecycle->ObjectShutdown(instance);  // both answer errOK
  (void)instance->pLifecycle->ObjectFree(instance);
  (void)entry(&root, kModuleUnload, nullptr);
  if (Failed(code)) std::fprintf(stderr, "%s\n", ResultCodeName(code) != nullptr ? ResultCodeName(code) : "failed");
  return Failed(code) ? 1 : 0;
}

}  // namespace own_host
