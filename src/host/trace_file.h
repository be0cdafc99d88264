// The file that a host writes its trace into. trace_file_posix.cpp and trace_file_win32.cpp.
#pragma once

#include <cstdio>
#include <filesystem>

namespace lumbra::host {

// Opens a plain file for appending, empty if it is to be replaced; makes it where it is missing, on posix for its owner
// alone, on Windows with the access that its folder hands on. Before anything in it changes, a link is refused, and so
// is a file that has a second name, and on posix one that belongs to another user or can be written by others
// (host/trust.h). Programs that the process starts do not get it. Null when it cannot be had.
std::FILE* OpenTraceFile(const std::filesystem::path& Path, bool bReplace);

}  // namespace lumbra::host
