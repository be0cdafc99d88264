// How names that somebody else has chosen are shown: on a terminal, in a trace, in JSON. What would move the cursor,
// hide or turn around what stands beside it, or begin another line, is written out.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace lumbra::host {

// A name in UTF-8, or whatever its bytes are. Without anything to write out, and with another beginning than '"', it is
// printed as it is, '\' included; otherwise it stands in double quotes, with '\' and '"' behind a '\', control
// characters and bytes that are no UTF-8 as \xNN, and other characters that nobody sees or that change the direction as
// \u{N...}.
std::string Printable(std::string_view Name);

// A sentence whose names are printable already: what is left of such characters is written out in the same way, without
// quotes.
std::string PrintableSentence(std::string_view Text);

// JSON with the same characters written out as \uNNNN, which it need not do; its text is UTF-8.
std::string PrintableJson(std::string_view Json);

// What Printable has made of a name, taken back. Nothing for a text that it makes of none.
std::optional<std::string> ReadPrinted(std::string_view Printed);

}  // namespace lumbra::host
