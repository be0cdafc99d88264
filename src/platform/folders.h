// Creation of a folder with all its missing parents.
#pragma once

#include <string_view>

#include "lumbra/result_code.h"
#include "platform/os.h"

namespace lumbra {

// errOK when the folder existed or was created; errFALSE when another thread created it meanwhile;
// errPATH_NAME_INVALID when the path is a file. A relative path starts at the current directory. Throws
// nothing.
ResultCode CreateDirectories(std::u16string_view Folder, const os::FolderRules& Rules = {}) noexcept;

}  // namespace lumbra
