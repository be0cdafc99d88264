// The host's string objects, and the texts in the code pages that they take.
#pragma once

#include <cstdint>
#include <string>

#include "lumbra/host.h"

namespace lumbra::host {

struct StringObject {
  HostObject Handle;  // first, so that the handle leads to its object
  std::u16string Text;

  explicit StringObject(const HostSystemOperations* pSystem);

  // Null when the object is no string object.
  static StringObject* Of(HostObject* pObject);
};

// Text of nSize bytes in a code page, as UTF-16, up to the first zero character. False for an unknown code
// page.
bool DecodeText(const void* pText, std::uint32_t nSize, std::uint32_t nCodePage, std::u16string* pDecoded);

}  // namespace lumbra::host
