#include <windows.h>
// Behind it, what builds on it.
#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>

#include "support/run_program.h"

namespace lumbra::test {
namespace {

std::wstring Wide(const std::string& Text) {
  return std::filesystem::path(std::u8string(Text.begin(), Text.end())).wstring();
}

// In the quotes that CommandLineToArgvW takes off again: backslashes count only in front of a quote.
std::wstring Quoted(const std::wstring& Argument) {
  std::wstring Result = L"\"";
  std::size_t nBackslashes = 0;
  for (const wchar_t c : Argument + L'"') {
    if (c == L'"') Result.append(nBackslashes, L'\\');
    nBackslashes = c == L'\\' ? nBackslashes + 1 : 0;
    if (c == L'"') Result += L'\\';
    Result += c;
  }
  Result.erase(Result.size() - 2, 1);  // the closing quote is none of the argument's
  return Result;
}

HANDLE OpenStream(const std::filesystem::path& File, DWORD nDisposition) {
  SECURITY_ATTRIBUTES Inherited{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
  constexpr DWORD kAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
  return CreateFileW(File.c_str(), GENERIC_READ | GENERIC_WRITE, kAll, &Inherited, nDisposition, 0, nullptr);
}

// The new process; 0 when it could not be started. Wine fails one start in about a thousand with ERROR_INTERNAL_ERROR
// (1359): the process ended before it came up. A start that failed has run nothing of the program, and is tried again;
// how a program that was started ends is for the test to judge.
std::intptr_t StartProcess(const std::wstring& Line, const std::filesystem::path& Folder, STARTUPINFOW* pStart) {
  constexpr int kAttempts = 3;
  for (int i = 0; i < kAttempts; ++i) {
    std::wstring Scratch = Line;  // the system may write into it
    PROCESS_INFORMATION Started{};
    if (CreateProcessW(nullptr, Scratch.data(), nullptr, nullptr, TRUE, 0, nullptr, Folder.c_str(), pStart, &Started)) {
      CloseHandle(Started.hThread);
      return reinterpret_cast<std::intptr_t>(Started.hProcess);
    }
  }
  ADD_FAILURE() << "CreateProcessW failed with the error " << GetLastError();
  return 0;
}

}  // namespace

Program::Program(const std::filesystem::path& Folder, const Arguments& What, const Environment& Beside)
    : m_nProcess(0) {
  std::wstring Line;
  for (const std::string& One : What) Line += Quoted(Wide(One)) + L' ';
  std::vector<std::optional<std::wstring>> Before;
  for (const auto& [Name, Value] : Beside) {
    const wchar_t* const pBefore = _wgetenv(Wide(Name).c_str());
    Before.push_back(pBefore == nullptr ? std::nullopt : std::optional<std::wstring>(pBefore));
    SetEnvironmentVariableW(Wide(Name).c_str(), Wide(Value).c_str());
  }
  STARTUPINFOW Start{};
  Start.cb = sizeof(Start);
  Start.dwFlags = STARTF_USESTDHANDLES;
  Start.hStdInput = OpenStream(Folder / "in", OPEN_ALWAYS);
  Start.hStdOutput = OpenStream(Folder / "out", CREATE_ALWAYS);
  Start.hStdError = OpenStream(Folder / "err", CREATE_ALWAYS);
  m_nProcess = StartProcess(Line, Folder, &Start);
  for (const HANDLE Stream : {Start.hStdInput, Start.hStdOutput, Start.hStdError}) CloseHandle(Stream);
  for (std::size_t i = 0; i < Beside.size(); ++i) {
    SetEnvironmentVariableW(Wide(Beside[i].first).c_str(), Before[i] ? Before[i]->c_str() : nullptr);
  }
}

int Program::Wait() {
  if (m_nProcess == 0) return m_nStatus;
  const auto Process = reinterpret_cast<HANDLE>(m_nProcess);
  WaitForSingleObject(Process, INFINITE);
  DWORD nStatus = 0;
  GetExitCodeProcess(Process, &nStatus);
  CloseHandle(Process);
  m_nProcess = 0;
  return m_nStatus = static_cast<int>(nStatus);
}

void Program::Kill() {
  if (m_nProcess == 0) return;
  TerminateProcess(reinterpret_cast<HANDLE>(m_nProcess), kKilled);
  Wait();
}

}  // namespace lumbra::test
