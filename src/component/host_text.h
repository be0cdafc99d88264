// A text whose memory is the host's, and the folder operations on it.
#pragma once

#include <cstdint>
#include <string_view>
#include <utility>

#include "component/host_binding.h"
#include "lumbra/host.h"

namespace lumbra {

// An operation that the host refuses raises ulo::CheckResultFailedException with the host's code.
class HostText {
 public:
  HostText() = default;
  explicit HostText(std::u16string_view Text) { Append(Text); }
  HostText(HostText&& Other) noexcept : m_String(std::exchange(Other.m_String, HostString{})) {}
  HostText& operator=(HostText&& Other) noexcept {
    std::swap(m_String, Other.m_String);
    return *this;
  }
  ~HostText() { Clear(); }

  HostText Copy() const { return HostText(View()); }
  void Clear() noexcept;
  void Append(std::u16string_view Text);
  void Append(const binding::StringObject& Text);

  // Appends text that is in another code page.
  void AppendConverted(const void* pText, std::uint32_t nSize, std::uint32_t nCodePage);

  bool Empty() const { return m_String.nLength == 0; }
  std::uint32_t Length() const { return m_String.nLength; }  // characters
  const char16_t* Text() const { return m_String.pText == nullptr ? u"" : m_String.pText; }
  std::u16string_view View() const { return {Text(), Length()}; }

  // Whether the host finds the texts equal.
  bool Equals(const char16_t* pOther) const { return binding::EqualText(m_String, pOther); }

  // Ends a folder with a separator, of the kind that it already has.
  void EnsureTrailingSeparator();

  // Appends the name of something in this folder.
  void Join(std::u16string_view FileName);

 private:
  HostString m_String{};
};

}  // namespace lumbra
