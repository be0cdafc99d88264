#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/run_program.h"

namespace lumbra::test {

int RunIn(const std::filesystem::path& Folder, const Arguments& What) {
  std::vector<char*> Texts;
  for (const std::string& One : What) Texts.push_back(const_cast<char*>(One.c_str()));
  Texts.push_back(nullptr);
  const pid_t nProcess = fork();
  if (nProcess == 0) {
    const bool bThere = chdir(Folder.c_str()) == 0;
    dup2(open("in", O_RDONLY | O_CREAT, 0666), STDIN_FILENO);
    dup2(open("out", O_RDWR | O_CREAT | O_TRUNC, 0666), STDOUT_FILENO);
    dup2(open("err", O_RDWR | O_CREAT | O_TRUNC, 0666), STDERR_FILENO);
    if (bThere) execv(Texts[0], Texts.data());
    _exit(127);
  }
  int nStatus = 0;
  waitpid(nProcess, &nStatus, 0);
  return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1;
}

}  // namespace lumbra::test
