#include "component/host_text.h"

#include "platform/exception.h"

namespace lumbra {

void HostText::Clear() noexcept {
  if (m_String.pText != nullptr) binding::FreeText(&m_String);
}

void HostText::Append(std::u16string_view Text) {
  AppendConverted(Text.data(), static_cast<std::uint32_t>(Text.size() * sizeof(char16_t)), kCodePageUtf16);
}

void HostText::Append(const binding::StringObject& Text) {
  ULO_CHECK_RESULT(Text.AppendTo(&m_String));
}

void HostText::AppendConverted(const void* pText, std::uint32_t nSize, std::uint32_t nCodePage) {
  if (nSize != 0) ULO_CHECK_RESULT(binding::AppendText(&m_String, pText, nSize, nCodePage));
}

void HostText::EnsureTrailingSeparator() {
  if (Empty()) return;
  const std::uint32_t nLast = binding::FindLastSeparator(m_String);
  if (nLast == kHostStringNoPosition) {
    Append(u"\\");
  } else if (nLast + 1 != Length()) {
    const char16_t cSeparator = Text()[nLast];
    Append({&cSeparator, 1});
  }
}

void HostText::Join(std::u16string_view FileName) {
  if (!Empty() && !View().ends_with(u'\\') && !View().ends_with(u'/')) Append(u"\\");
  Append(FileName);
}

}  // namespace lumbra
