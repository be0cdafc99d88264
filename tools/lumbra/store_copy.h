// Copies a store that somebody else may be writing to, as it is at one moment.
//
// Of each database the events are copied up to its horizon, and with them all objects that there were then or soon
// after. Files that nobody writes to meanwhile are copied as they are. Where somebody does, the objects of that store
// are copied one by one, each as it is at a moment, and the tree that finds them is built anew: what is in the copy
// belongs together. The shared objects come last, so that none is missing that an event is about.
//
// What nobody can see who takes no locks: an event that is being updated meanwhile may be copied half old, and so may a
// block of data in a store without CRCs.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "backup_manifest.h"
#include "inspect/event_reader.h"
#include "inspect/objects.h"
#include "inspect/store.h"
#include "progress.h"
#include "reading.h"

namespace lumbra::tool {

class StoreCopy {
 public:
  // Into a folder that is there, beside which Before says what it holds. All of these outlive it.
  StoreCopy(const inspect::Store& From, const std::filesystem::path& To, const BackupFiles& Before,
            Findings* pFindings);

  // Copies all; throws a Failure when that cannot be done. What the copy holds then.
  const BackupFiles& Run();

  std::uint64_t BytesCopied() const { return m_nCopied; }

 private:
  struct Place {
    os::FolderHandle pFrom;
    os::FolderHandle pTo;
    std::string Folder;  // "01/", or nothing for the store's own
  };

  void CopyDatabase(const inspect::Database& What);
  bool TryDatabase(const inspect::Database& What, const Place& At);
  bool CopySegment(const Place& At, const inspect::SegmentExtent& Segment, std::uint32_t nEventSize);
  void RemoveOthers(const Place& At);
  void CopyObjects(const Place& At, const inspect::ObjectFileNames& Names);
  bool CopyUnchanged(const Place& At, const inspect::ObjectFileNames& Names);
  void CopyEachObject(const Place& At, const inspect::ObjectFileNames& Names);
  bool IsKept(const Place& At, const std::u16string& Name, const os::FileLook& Source);
  bool CopyFile(const Place& At, const std::u16string& Name, std::uint64_t nMost, const os::FileLook* pSource);
  bool LeaveOut(const Place& At, const std::u16string& Name);
  void WriteFile(const Place& At, const std::u16string& Name, const std::string& Bytes);
  void Note(const Place& At, const std::u16string& Name, const os::FileLook* pSource);
  Place OpenPlace(const inspect::Database& What);
  std::string What(const Place& At, const std::u16string& Name) const;

  const inspect::Store& m_From;
  const std::filesystem::path m_To;
  const BackupFiles& m_Before;
  Findings* const m_pFindings;
  os::FolderHandle m_pTo;
  BackupFiles m_Files;
  std::uint64_t m_nCopied = 0;
  Progress m_Progress{"bytes"};
};

}  // namespace lumbra::tool
