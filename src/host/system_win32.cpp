#include "host/system_win32.h"

#include <windows.h>

#include "host/text.h"

namespace lumbra::host {

std::wstring FullPath(const std::filesystem::path& Path) {
  std::wstring Full(MAX_PATH, L'\0');
  for (;;) {
    const auto nRoom = static_cast<DWORD>(Full.size());
    const DWORD nLength = GetFullPathNameW(Path.c_str(), nRoom, Full.data(), nullptr);
    Full.resize(nLength);
    if (nLength < nRoom) return Full;
  }
}

std::string SystemMessage(std::uint32_t nError) {
  wchar_t Text[512] = {};
  const DWORD nLength = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, nError, 0,
                                       Text, 512, nullptr);
  std::string Message = ToUtf8({reinterpret_cast<const char16_t*>(Text), nLength});
  while (Message.ends_with('\n') || Message.ends_with('\r') || Message.ends_with('.')) Message.pop_back();
  return Message.empty() ? "error " + std::to_string(nError) : Message;
}

}  // namespace lumbra::host
