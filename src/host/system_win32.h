// What the host and its clients ask of Windows in ways that the C++ library does not offer.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

namespace lumbra::host {

// The path made absolute by the system, whose roots of shares and long forms the library does not know. Empty when the
// system refuses it.
std::wstring FullPath(const std::filesystem::path& Path);

// What an error number of the system means, in UTF-8: the library gives it in the system's code page.
std::string SystemMessage(std::uint32_t nError);

}  // namespace lumbra::host
