// The tool's command line.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace lumbra::tool {

// The command that the arguments, behind the program's name, ask for, ready to run; on wrong usage, and for --help, one
// that has nothing left to do and answers the exit status.
std::function<int()> ParseCommandLine(const std::vector<std::string>& Arguments);

}  // namespace lumbra::tool
