// Other programs, run from the test program as from a shell.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace lumbra::test {

using Arguments = std::vector<std::string>;  // UTF-8; the first is the program's file

// Runs a program in a folder and waits for its end. Its input is the file "in" there, and what it writes goes to "out"
// and "err". The status that it ended with; -1 where it could not be started or was ended by a signal.
int RunIn(const std::filesystem::path& Folder, const Arguments& What);

}  // namespace lumbra::test
