#include "cursor_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "failure.h"
#include "machine.h"
#include "replace_file.h"

namespace lumbra::tool {

std::optional<std::string> CursorFile::Read() const {
  constexpr std::size_t kMost = 4096;
  if (m_Path.empty()) return {};
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> pFile(OpenStream(m_Path, "rb"), &std::fclose);
  if (pFile == nullptr && errno == ENOENT) return {};
  if (pFile == nullptr) throw Failure("read " + Printable(m_Path), errOPEN_FAILED, std::strerror(errno));
  std::string Text(kMost, '\0');
  Text.resize(std::fread(Text.data(), 1, kMost, pFile.get()));
  if (std::ferror(pFile.get()) != 0) throw Failure("read " + Printable(m_Path), errREAD_FAILED);
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
