// The files and folders of a store by name, and where each is described.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace lumbra {

// In the store's folder: the named databases, the shared object store, and what compaction wrote of it.
inline constexpr char16_t kIndexFile[] = u"g_db_id.dat";                   // named_index_file.h
inline constexpr char16_t kSharedTreeFile[] = u"g_objbt.dat";              // tree_file.h
inline constexpr char16_t kSharedIdsFile[] = u"g_objid.dat";               // object_files.h
inline constexpr char16_t kSharedDataFile[] = u"g_objdt.dat";              // object_files.h
inline constexpr char16_t kCompactedIdsFile[] = u"g_objidcompacted.dat";   // the same
inline constexpr char16_t kCompactedDataFile[] = u"g_objdtcompacted.dat";  // the same

// Says that the pair is taking the place of the live one; what is left of that is finished before the store is opened.
inline constexpr char16_t kReplacingFile[] = u"g_objreplacing.dat";

// The folder of a numbered database, "00" to "2F". A named database has its name for a folder.
std::u16string NumberedFolder(std::uint32_t nDatabase);

// In a database's folder: where its chain of segments starts; and, in that of a named one, the id it was made for.
inline constexpr char16_t kSegmentsFile[] = u"segments.dat";     // segments_file.h
inline constexpr char16_t kIdentityFile[] = u"g_db_id_val.log";  // named_index_file.h

// The four files of a segment. Each stands there with the segment's number in front: "0000002A_events.dat".
inline constexpr char16_t kEventsFile[] = u"events.dat";  // event_file.h
inline constexpr char16_t kTreeFile[] = u"objbt.dat";     // tree_file.h
inline constexpr char16_t kIdsFile[] = u"objid.dat";      // object_files.h
inline constexpr char16_t kDataFile[] = u"objdt.dat";     // object_files.h

// What stands in front, "%08X_", and its length.
inline constexpr std::size_t kSegmentPrefixLength = 9;
std::u16string SegmentPrefix(std::uint32_t nSegment);
std::u16string SegmentFileName(std::uint32_t nSegment, std::u16string_view Name);

// The number of the segment that a file belongs to; 0 for a name without one.
std::uint32_t NumberOfSegmentFile(std::u16string_view Name);

// Whether a file of this name holds the events of a segment.
bool IsEventsFileName(std::u16string_view Name);

// In the folder of a backup, beside what is copied: its sums, and what it was copied from.
inline constexpr char16_t kManifestFile[] = u"backup-manifest";
inline constexpr char16_t kSourceFile[] = u"backup-source";

// In both: where healing puts what it takes out of the way (salvage/apply.h).
inline constexpr char16_t kSetAsideFolder[] = u"set-aside";

// Behind a file's name: what is to take its place, while the store is healed (salvage/apply.h).
inline constexpr std::u16string_view kHealingEnding = u".healing";

// Whether a database's folder has a file of this name from the store.
bool IsFileOfDatabase(std::u16string_view Name);

// All of those with events, as a pattern.
inline constexpr char16_t kAnyEventsFile[] = u"????????_events.dat";

}  // namespace lumbra
