#include "host/string_object.h"

#include <cstring>
#include <new>

#include "host/text.h"

namespace lumbra::host {
namespace {

constexpr std::uint32_t kUnit = sizeof(char16_t);

ResultCode SetText(HostObject* pString, const void* pText, std::uint32_t nSize, std::uint32_t nCodePage,
                   std::uint32_t /*nFlags*/) {
  try {
    return DecodeText(pText, nSize, nCodePage, &StringObject::Of(pString)->Text) ? errOK : errNOT_SUPPORTED;
  } catch (const std::bad_alloc&) {
    return errOUT_OF_MEMORY;
  }
}

ResultCode GetTextSize(HostObject* pString, std::uint32_t nCodePage, std::uint32_t* pnSize) {
  if (nCodePage != kCodePageUtf16) return errNOT_SUPPORTED;
  const std::size_t nUnits = StringObject::Of(pString)->Text.size();
  if (nUnits > UINT32_MAX / kUnit) return errSIZE_INVALID;
  *pnSize = static_cast<std::uint32_t>(nUnits) * kUnit;
  return errOK;
}

ResultCode GetText(HostObject* pString, void* pBuffer, std::uint32_t nSize, std::uint32_t nCodePage) {
  if (nCodePage != kCodePageUtf16) return errNOT_SUPPORTED;
  const std::u16string& Text = StringObject::Of(pString)->Text;
  if (nSize < Text.size() * kUnit) return errBUFFER_TOO_SMALL;
  std::memcpy(pBuffer, Text.data(), Text.size() * kUnit);
  return errOK;
}

const HostStringOperations kOperations = {
    .Base = {.Reserved0 = [](HostObject*) -> ResultCode { return errNOT_SUPPORTED; },
             .IsOfType = [](HostObject*, std::uint32_t) -> std::uint32_t {
               return 0;
             }},
    .SetText = SetText,
    .GetTextSize = GetTextSize,
    .GetText = GetText,
};

}  // namespace

StringObject::StringObject(const HostSystemOperations* pSystem) : Handle{&kOperations, pSystem} {}

StringObject* StringObject::Of(HostObject* pObject) {
  const bool bString = pObject != nullptr && pObject->pOperations == &kOperations;
  return bString ? reinterpret_cast<StringObject*>(pObject) : nullptr;
}

bool DecodeText(const void* pText, std::uint32_t nSize, std::uint32_t nCodePage, std::u16string* pDecoded) {
  switch (nCodePage) {
    case kCodePageUtf16:
      pDecoded->resize(nSize / kUnit);
      if (nSize != 0) std::memcpy(pDecoded->data(), pText, pDecoded->size() * kUnit);
      break;
    case kCodePageUtf8:
    case kCodePage8Bit:  // this host's 8-bit text is UTF-8
      *pDecoded = ToUtf16({static_cast<const char*>(pText), nSize});
      break;
    default:
      return false;
  }
  if (const std::size_t nZero = pDecoded->find(u'\0'); nZero != std::u16string::npos) pDecoded->resize(nZero);
  return true;
}

}  // namespace lumbra::host
