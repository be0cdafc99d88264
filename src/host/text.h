// UTF-16 and UTF-8 in the stand-alone host. What cannot be converted becomes U+FFFD; nothing throws for its
// content.
#pragma once

#include <string>
#include <string_view>

namespace lumbra::host {

std::string ToUtf8(std::u16string_view Text);
std::u16string ToUtf16(std::string_view Text);

}  // namespace lumbra::host
