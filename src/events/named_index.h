// The two small files that tie database names to database ids across restarts (format/named_index_file.h). Names are
// compared byte for byte.
//
// The files are opened and closed within each operation and not shared, so that a second process which holds
// one makes the operation fail. There is no lock here: the component calls these under its own. Each outcome
// is traced.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "format/named_index_file.h"
#include "lumbra/result_code.h"
#include "platform/file.h"

namespace lumbra {

// The names, in order of their ids.
using PersistentIndex = std::vector<std::string>;

// Loads the names, and whether the file is marked corrupted. A file that is missing or damaged is replaced by
// an empty one. errUNSPECIFIED when that fails, too, or when the file is there and cannot be opened or read.
ResultCode LoadPersistentIndexes(const FilePlace& Place, PersistentIndex* pNames, bool* pbCorrupted);

// Appends a name (at most 63 bytes) as item nIndex. Refused with errUNSPECIFIED unless the file ends exactly
// there.
ResultCode SavePersistentIndex(const FilePlace& Place, std::uint32_t nIndex, std::string_view Name);

// Marks the file corrupted, on the disk; the names stay. False when that failed, which is traced.
bool SaveCorruptedFlag(const FilePlace& Place);

bool FindPersistentIndex(const PersistentIndex& Names, std::string_view Name, std::uint32_t* pnPosition);
bool IsPersistentIndexFull(const PersistentIndex& Names);

// Compares the id in an identity file with the assigned one, for the trace alone; writes it where the file is missing
// or invalid.
void ValidateDatabaseId(const FilePlace& Place, std::uint32_t nAssigned);

}  // namespace lumbra
