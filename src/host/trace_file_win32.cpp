#include <windows.h>

#include "host/trace_file.h"

namespace lumbra::host {

std::FILE* OpenTraceFile(const std::filesystem::path& Path, bool bReplace) {
  const DWORD nAttributes = GetFileAttributesW(Path.c_str());
  const bool bThere = nAttributes != INVALID_FILE_ATTRIBUTES;
  if (bThere && (nAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT)) != 0) return nullptr;
  return _wfopen(Path.c_str(), bReplace ? L"wbN" : L"abN");  // N: programs that are started do not get it
}

}  // namespace lumbra::host
