// UTF-16 and UTF-8 in the stand-alone host. What cannot be converted becomes U+FFFD; nothing throws for its
// content.
#pragma once

#include <string>
#include <string_view>

namespace lumbra::host {

std::string ToUtf8(std::u16string_view Text);
std::u16string ToUtf16(std::string_view Text);

// Names of files, whose bytes need be no UTF-8: each byte that is none stands as one of U+DC80 to U+DCFF, which no
// UTF-8 becomes, and comes back as that byte. Another lone surrogate becomes U+FFFD.
std::u16string NameToUtf16(std::string_view Bytes);
std::string NameToBytes(std::u16string_view Name);
bool IsUtf8(std::string_view Bytes);

}  // namespace lumbra::host
