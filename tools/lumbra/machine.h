// What the tool asks of the machine it runs on. One source per platform.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

namespace lumbra::tool {

std::string MachineName();

// Whether somebody looks at what is written to stderr.
bool ErrorsGoToTerminal();

// From the call on, a write that meets a limit on file sizes fails like one to a full disk.
void LetLimitsFailWrites();

// From the call on, Ctrl-C only sets a mark, and ends waiting for input.
void WatchForInterrupt();
bool Interrupted();

// Why a store's folder or its files cannot be used for reading and writing; empty when they can, as far as can be seen.
std::string WhyNotUsable(const std::filesystem::path& Folder);

// Whether another process has the file open in a way that shuts us out.
bool IsHeld(const std::filesystem::path& File);

enum class EntryKind : std::uint32_t { File = 1, Folder = 2, Link = 3, Other = 4 };

struct Entry {
  EntryKind Kind;
  std::uint64_t nSize;      // bytes
  std::uint64_t nModified;  // FILETIME
};

// Looks at an entry of the file system; a link is not followed. False, with the reason, when it cannot be
// read.
bool Look(const std::filesystem::path& Path, Entry* pEntry, std::string* pReason);

}  // namespace lumbra::tool
