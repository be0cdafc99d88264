// The tool's command line.
#pragma once

#include <functional>

namespace lumbra::tool {

// The command that the arguments ask for, ready to run; on wrong usage, and for --help, one that has nothing left to do
// and answers the exit status.
std::function<int()> ParseCommandLine(int nCount, char** ppArguments);

}  // namespace lumbra::tool
