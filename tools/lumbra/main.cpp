// lumbra: the command-line tool.
#include <cstdio>
#include <exception>
#include <filesystem>
#include <new>

#include "command_line.h"
#include "commands.h"
#include "failure.h"
#include "machine.h"

using lumbra::tool::Failure;

namespace {

int Report(const std::exception& Problem) {
  lumbra::tool::ReportFailure(Problem);
  return lumbra::tool::kExitFailed;
}

}  // namespace

int main(int nCount, char** ppArguments) {
  lumbra::tool::LetLimitsFailWrites();
  lumbra::tool::PrepareProcess();
  try {
    const int nStatus = lumbra::tool::ParseCommandLine(lumbra::tool::ProgramArguments(nCount, ppArguments))();
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return nStatus;
    return Report(Failure("write standard output", lumbra::errWRITE_FAILED, "what it said is incomplete"));
  } catch (const std::filesystem::filesystem_error& Error) {
    return Report(lumbra::tool::FailureAt(Error.path1(), Error.code()));
  } catch (const std::bad_alloc&) {
    return Report(Failure("go on", lumbra::errOUT_OF_MEMORY));
  } catch (const std::exception& Error) {
    return Report(Error);
  }
}
