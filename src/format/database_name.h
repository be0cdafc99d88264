// Which names a database can have: its name is that of its folder, in the store's folder.
#pragma once

#include <string_view>

namespace lumbra {

// Whether a name is one folder's, and leads to no other place: not empty, without a separator or a zero, neither "."
// nor "..", and not the folder of a numbered database. On Windows also without ':', and not of points and blanks alone.
bool IsPlainFolderName(std::u16string_view Name);

// Whether a new database may have the name. It is a plain one without control characters and unpaired surrogates; it is
// none of the store's own files, nor "set-aside", and does not end in ".schema" or ".healing", which the store keeps
// for itself: all this in any case of letters. On Windows it is also none of the system's devices, and ends in no point
// or blank.
bool IsDatabaseName(std::u16string_view Name);

}  // namespace lumbra
