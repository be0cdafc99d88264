// lumbra: the command-line tool.
#include <cstdio>
#include <exception>

#include "command_line.h"
#include "commands.h"

int main(int nCount, char** ppArguments) {
  try {
    const int nStatus = lumbra::tool::ParseCommandLine(nCount, ppArguments)();
    if (std::fflush(stdout) == 0) return nStatus;
    std::fputs("lumbra: standard output cannot be written\n", stderr);
  } catch (const std::exception& Error) {
    std::fflush(stdout);
    std::fprintf(stderr, "lumbra: %s\n", Error.what());
  }
  return lumbra::tool::kExitFailed;
}
