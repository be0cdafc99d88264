// Small files that are written as a whole.
#pragma once

#include <filesystem>
#include <string>

#include "platform/os.h"

namespace lumbra::tool {

// Writes a file beside the one of that name, brings it to the disk, and lets it take its place: whoever looks finds the
// old one or the new one, also after a power cut. Throws a Failure.
void ReplaceFile(const std::filesystem::path& Path, const std::string& Bytes, const os::FolderRules& Rules);

}  // namespace lumbra::tool
