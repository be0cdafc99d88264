#include <windows.h>
// Behind it, what builds on it.
#include <gtest/gtest.h>

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

// The new process; null when it could not be started. Wine fails one start in about a thousand with
// ERROR_INTERNAL_ERROR (1359): the process ended before it came up. A start that failed has run nothing of the program,
// and is tried again; how a program that was started ends is for the test to judge.
HANDLE Start(const std::wstring& Line, const std::filesystem::path& Folder, STARTUPINFOW* pStart) {
  constexpr int kAttempts = 3;
  for (int i = 0; i < kAttempts; ++i) {
    std::wstring Scratch = Line;  // the system may write into it
    PROCESS_INFORMATION Started{};
    if (CreateProcessW(nullptr, Scratch.data(), nullptr, nullptr, TRUE, 0, nullptr, Folder.c_str(), pStart, &Started)) {
      CloseHandle(Started.hThread);
      return Started.hProcess;
    }
  }
  ADD_FAILURE() << "CreateProcessW failed with the error " << GetLastError();
  return nullptr;
}

}  // namespace

int RunIn(const std::filesystem::path& Folder, const Arguments& What) {
  std::wstring Line;
  for (const std::string& One : What) Line += Quoted(Wide(One)) + L' ';
  STARTUPINFOW How{};
  How.cb = sizeof(How);
  How.dwFlags = STARTF_USESTDHANDLES;
  How.hStdInput = OpenStream(Folder / "in", OPEN_ALWAYS);
  How.hStdOutput = OpenStream(Folder / "out", CREATE_ALWAYS);
  How.hStdError = OpenStream(Folder / "err", CREATE_ALWAYS);
  const HANDLE Process = Start(Line, Folder, &How);
  for (const HANDLE Stream : {How.hStdInput, How.hStdOutput, How.hStdError}) CloseHandle(Stream);
  if (Process == nullptr) return -1;
  WaitForSingleObject(Process, INFINITE);
  DWORD nStatus = 0;
  GetExitCodeProcess(Process, &nStatus);
  CloseHandle(Process);
  return static_cast<int>(nStatus);
}

}  // namespace lumbra::test
