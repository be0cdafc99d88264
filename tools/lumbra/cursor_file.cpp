#include "cursor_file.h"

#include <filesystem>
#include <system_error>

#include "failure.h"
#include "machine.h"
#include "replace_file.h"

namespace lumbra::tool {

std::optional<std::string> CursorFile::Read() const {
  constexpr std::size_t kMost = 4096;
  if (m_Path.empty()) return {};
  std::string Text;
  const std::filesystem::path Path = AbsolutePath(m_Path);
  if (!std::filesystem::is_directory(Path.parent_path()))
    throw Failure("keep " + Printable(m_Path), errPATH_NOT_FOUND, "its folder is not there");
  const std::error_code Error = ReadPlainFile(Path, 0, kMost, &Text);
  if (Error == std::errc::no_such_file_or_directory) return {};
  if (Error) throw Failure("read " + Printable(m_Path), errREAD_FAILED, "it is no plain file, or may not be read");
  while (Text.ends_with('\n') || Text.ends_with('\r')) Text.pop_back();
  return Text;
}

void CursorFile::Write(const std::string& Cursor) {
  m_Written = Clock::now();
  if (Cursor == m_Last) return;
  SyncOutput();
  ReplaceFile(AbsolutePath(m_Path), Cursor + '\n', {});
  m_Last = Cursor;
}

}  // namespace lumbra::tool
