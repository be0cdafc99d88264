// What the tool asks of the machine it runs on. One source per platform.
#pragma once

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

namespace lumbra::tool {

// What the program was called with, its own name first, in UTF-8.
std::vector<std::string> ProgramArguments(int nCount, char** ppArguments);

// To be called first. From then on the standard streams take and give bytes as they are, a terminal shows them as
// UTF-8 until the program ends, the environment is in UTF-8, and no failure opens a window.
void PrepareProcess();

// A path from its text in UTF-8 (on posix, its bytes); the library takes the text of a path as such on posix alone.
inline std::filesystem::path PathOf(const std::string& Text) {
  return std::u8string(Text.begin(), Text.end());
}

// The other way round; what cannot be said in UTF-8 becomes U+FFFD.
std::string TextOf(const std::filesystem::path& Path);

// Whether a path's text says all of it.
bool IsExactText(const std::string& Text, const std::filesystem::path& Path);

// Whether root works in a folder that belongs to another user.
bool IsRootInFolderOfOthers();

// Why a folder, by its absolute path, cannot be that of a store; empty when it can.
std::string WhyNoStorePath(const std::filesystem::path& Folder);

// Adds the paths of a folder's entries, in no order. False, with the reason, when it cannot be listed to its end.
bool ListFolder(const std::filesystem::path& Folder, std::vector<std::filesystem::path>* pEntries,
                std::string* pReason);

// The path made absolute, without "." and without a separator at its end.
std::filesystem::path AbsolutePath(const std::string& Text);

// Whether one folder has both names.
bool IsSameFolderName(const std::string& Name, const std::string& Other);

// What an error of the system means, in UTF-8.
std::string MessageOf(const std::error_code& Error);

// fopen() for a path in UTF-8.
std::FILE* OpenStream(const std::string& Path, const char* pMode);

std::string MachineName();

std::uint32_t OwnProcess();

// Whether somebody looks at what is written to stderr.
bool ErrorsGoToTerminal();

// Whether standard output is a plain file; and what was written to it, brought to the disk as far as that can be done.
bool OutputIsFile();
void SyncOutput();

// From the call on, a write that meets a limit on file sizes fails like one to a full disk.
void LetLimitsFailWrites();

// From the call on, Ctrl-C only sets a mark, and ends waiting for input, which is said to be read meanwhile.
void WatchForInterrupt();
void SayInputIsRead(bool bRead);
bool Interrupted();

// Why a store's folder or its files cannot be used for reading and writing; empty when they can, as far as can be seen.
std::string WhyNotUsable(const std::filesystem::path& Folder);

// A file of a store that is not opened because it has a second name; empty when there is none, and where such files are
// opened.
std::filesystem::path FileWithSecondName(const std::filesystem::path& Store);

// Bytes of a plain file from an offset on, as many as it has of those. An error for what is a link, or no plain file,
// and for one that is missing; nobody at the other end of a pipe is waited for.
std::error_code ReadPlainFile(const std::filesystem::path& Path, std::uint64_t nOffset, std::size_t nSize,
                              std::string* pContent);

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
