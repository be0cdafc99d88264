// Who may change a file or folder behind our back. What writes to a store, or runs a module, would do it on his behalf.
//
// On Windows nothing is looked at, and all of this answers that nobody may: there the access that a folder inherits is
// what its owner gave.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

namespace lumbra::host {

inline constexpr std::string_view kIsALink = "is a link";
inline constexpr std::string_view kCannotBeLookedAt = "cannot be looked at: ";

enum class TrustedOwner { User, UserOrRoot };  // User: the effective user of the process

// Why a file or folder cannot be trusted, the end of a sentence: "belongs to another user", "can be written by others".
// Empty when it can, and when nothing is there. Others are all but the owner, and but a group that is the owner's own.
// A link is refused as one. What the path leads to may be another file when it is opened; who has to be sure looks at
// what is open.
std::string WhyNotTrusted(const std::filesystem::path& Path, TrustedOwner Owner);

// The same of a file that is open, by its descriptor. Posix alone.
std::string WhyNotTrusted(int nDescriptor, TrustedOwner Owner);

// The same of a store: its folder, and the folders and links directly in it. A sentence that starts with the path. It
// says the reason; that no folder of another user is used, whenever it came there, is propOWN_FOLDERS.
std::string WhyStoreNotTrusted(const std::filesystem::path& Folder);

// What of a store others than its owner may read or write to: how many files and folders, and the path of the first.
// What lies in a folder that they may not enter is not reached; the folders above the store are not looked at. Who may
// read a file may lock it.
struct Exposure {
  std::uint64_t nCount = 0;
  std::string First;
};
Exposure ExposureOf(const std::filesystem::path& Folder);

}  // namespace lumbra::host
