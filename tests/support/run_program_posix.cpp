#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "support/run_program.h"

namespace lumbra::test {

Program::Program(const std::filesystem::path& Folder, const Arguments& What, const Environment& Beside) {
  std::vector<char*> Texts;
  for (const std::string& One : What) Texts.push_back(const_cast<char*>(One.c_str()));
  Texts.push_back(nullptr);
  m_nProcess = fork();
  if (m_nProcess != 0) return;
  for (const auto& [Name, Value] : Beside) setenv(Name.c_str(), Value.c_str(), 1);
  const bool bThere = chdir(Folder.c_str()) == 0;
  for (const auto& [nStream, pFile] : {std::pair{STDIN_FILENO, "in"}, {STDOUT_FILENO, "out"}, {STDERR_FILENO, "err"}}) {
    dup2(open(pFile, O_RDWR | O_CREAT | (nStream == STDIN_FILENO ? 0 : O_TRUNC), 0666), nStream);
  }
  if (bThere) execv(Texts[0], Texts.data());
  _exit(127);
}

int Program::Wait() {
  if (m_nProcess == 0) return m_nStatus;
  int nStatus = 0;
  waitpid(static_cast<pid_t>(m_nProcess), &nStatus, 0);
  m_nProcess = 0;
  return m_nStatus = WIFSIGNALED(nStatus) ? kKilled : WEXITSTATUS(nStatus);
}

void Program::Kill() {
  if (m_nProcess == 0) return;
  kill(static_cast<pid_t>(m_nProcess), SIGKILL);
  Wait();
}

}  // namespace lumbra::test
