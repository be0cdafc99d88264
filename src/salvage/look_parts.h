// The parts of a look. Each adds its steps to the plan, in the order in which they are to be done.
#pragma once

#include <bit>
#include <cstring>
#include <map>
#include <optional>
#include <string>

#include "salvage/folder_view.h"
#include "salvage/plan.h"

namespace lumbra::salvage {

// A record as it stands on the disk.
template <class Record>
std::string BytesOf(const Record& Of) {
  std::string Bytes(sizeof(Of), '\0');
  std::memcpy(Bytes.data(), &Of, sizeof(Of));
  return Bytes;
}

inline int BitsApart(const std::string& One, const std::string& Other) {
  int nBits = 0;
  for (std::size_t i = 0; i < One.size() && i < Other.size(); ++i)
    nBits += std::popcount(static_cast<unsigned char>(One[i] ^ Other[i]));
  return nBits;
}

// The three files of an object store.
struct ObjectFileNames {
  std::u16string Ids;
  std::u16string Tree;
  std::u16string Data;
};

// The heads of files that contradict the other two, where these agree on the kind of the store.
void LookAtObjectHeads(const std::u16string& Folder, FolderView& Files, const ObjectFileNames& Names, Plan* pPlan);

// A data file that is shorter than the id records say: new names would be appended there, and read out for those. It is
// extended as far as that can be told. Otherwise it is reported, and the answer is whether nothing must be appended:
// not, where the shared store has lost the bytes of a single record, which then is damaged itself.
bool LookAtDataEnd(const std::u16string& Folder, FolderView& Files, const ObjectFileNames& Names, Plan* pPlan);

// A tree that knows no object, beside id records.
void LookAtTree(const std::u16string& Folder, FolderView& Files, const ObjectFileNames& Names, Plan* pPlan);

// Whether the header and the last id record are whole.
bool HasWholeRecords(FolderView& Files, const std::u16string& Ids);

// The shared store: what must not be opened.
void LookAtSharedObjects(FolderView& Files, const Wishes& Wanted, Plan* pPlan);

// What is left of putting a compacted pair in the place of the live one; whether it is being taken back.
void LookAtReplacing(FolderView& Files, Plan* pPlan);

// Whether a database's folder holds events.
bool HasEvents(const FolderView& Files);

// The chain of a database, and the files of its segments.
void LookAtDatabase(const std::u16string& Folder, FolderView& Files, const Wishes& Wanted, Plan* pPlan);

// The index of names, which the ids in the folders of the named databases can mend: by folder.
void LookAtIndex(FolderView& Files, const std::map<std::u16string, std::optional<std::uint32_t>>& Named, Plan* pPlan);

}  // namespace lumbra::salvage
