// One database folder: builds file names, opens, deletes, measures and dates the folder's files, and offers
// the small services that storage classes use without caring where they come from.
//
// A file that belongs to the folder as a whole has the plain base name ("segments.dat", id 0); a segment's
// file carries the segment's number in front ("0000002A_events.dat", id 0x2A).
//
// The folder is opened once, and its files are reached through it: what its path leads to later, or a link in the place
// of a file, leads nowhere else (platform/os.h).
//
// It takes no locks: its owner serialises the use. The static services keep no state and may be called from
// any thread. No operation but OpenFile throws.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "lumbra/result_code.h"
#include "platform/file.h"
#include "platform/storage_file.h"

namespace lumbra {

// On whose behalf an environment handles files.
class StorageOwner {
 public:
  // Whether file sizes are measured one by one instead of being taken from the folder's entries.
  virtual bool ExactFileSizes() = 0;

  // What holds for the folders.
  virtual os::FolderRules RulesOfFolders() { return {}; }

 protected:
  ~StorageOwner() = default;
};

enum class FolderContent { Keep, Wipe };

class StorageEnvironment {
 public:
  StorageEnvironment() = default;
  StorageEnvironment(const StorageEnvironment&) = delete;
  StorageEnvironment& operator=(const StorageEnvironment&) = delete;

  // Points the environment at a folder, which is created with its missing parents, and is no link. True when it is open
  // afterwards. The owner must outlive the environment's use. May be called again, for another folder.
  bool Init(StorageOwner* pOwner, const char16_t* pFolder, FolderContent Content, bool bEnvironmentFlag) noexcept;

  // The same for the folder of a database in that of a store, which an environment has open, or which is opened by its
  // path where that one is on another; neither is a link.
  bool InitBelow(StorageOwner* pOwner, const StorageEnvironment& Store, const char16_t* pStore, const char16_t* pName,
                 bool bEnvironmentFlag) noexcept;

  // The same for the folder that another one has open.
  bool InitAt(StorageOwner* pOwner, const StorageEnvironment& Other, bool bEnvironmentFlag) noexcept;

  // Whether the folder has one of that name in it, which is no link.
  bool HasFolder(std::u16string_view Name) const noexcept;

  // Now, as a FILETIME (100 ns units since 1601-01-01 UTC).
  static std::uint64_t GetCurrentTime();

  // Where a file that belongs to the folder as a whole is. Without a folder before Init.
  FilePlace PlaceOf(std::u16string_view FileName) const;

  // Opens a file that others may read but not write; with bCreate it is created where it is missing. Answers
  // in the host's form: errOBJECT_NOT_FOUND for a missing file, errSHARING_VIOLATION for one that is held,
  // errSTORE_NOT_INITIALIZED before Init. *ppFile is stored on success only. The file is opened under the
  // process's own identity; ulo::CheckResultFailedException when the thread's borrowed one cannot be read.
  ResultCode OpenFile(const char16_t* pName, std::uint32_t nId, bool bCreate, bool bWritable,
                      std::unique_ptr<StorageFile>* ppFile);

  // Id 0: deletes the folder's plain files, the segments first, from the newest on, and "segments.dat" last, so that an
  // interruption leaves a chain without its end. At a segment whose events cannot be deleted it ends, and all else
  // stays. Folders and links stay. Otherwise deletes the id's four segment files. What cannot be deleted stays. Always
  // errOK; the pattern has no influence.
  ResultCode DeleteFiles(const char16_t* pPattern, std::uint32_t nId) noexcept;

  // Zero-filled memory, or null; given back with Free.
  static void* Alloc(std::uint32_t nSize) noexcept;
  static bool Free(void* pBlock) noexcept;

  // Conversions between UTF-16 and UTF-8. A null buffer of size 0 measures; the out length may be null. False
  // when nothing came out: no input, or a buffer that is too small. Lengths are in bytes, except that the
  // capacity of Utf8ToWide counts UTF-16 units.
  static bool WideToUtf8(const char16_t* pText, std::uint32_t nTextBytes, char* pBuffer, std::uint32_t nBufferBytes,
                         std::uint32_t* pnLengthBytes) noexcept;
  static bool Utf8ToWide(const char* pText, std::uint32_t nTextBytes, char16_t* pBuffer, std::uint32_t nBufferUnits,
                         std::uint32_t* pnLengthBytes) noexcept;

  // Upper-cases in place, each unit for itself; answers nUnits.
  static std::uint32_t UpperCase(char16_t* pText, std::uint32_t nUnits) noexcept;

  // The creation time of the first file that matches, as a FILETIME of whole seconds. errNOT_FOUND for none.
  ResultCode GetFileCreationTime(const char16_t* pName, std::uint32_t nId, std::uint64_t* pnTime) noexcept;

  // The summed sizes of the files that match a name or pattern ("*.dat"). errNOT_FOUND, and 0, for none.
  ResultCode GetFileSize(const char16_t* pName, std::uint32_t nId, std::uint64_t* pnSize) noexcept;

 private:
  bool Open(StorageOwner* pOwner, const os::FolderHandle& pStore, std::u16string_view Store, std::u16string_view Name,
            bool bEnvironmentFlag) noexcept;
  std::u16string PathOf(std::u16string_view FileName) const;
  bool DeleteSegments();
  void Delete(std::u16string_view FileName) const;

  StorageOwner* m_pOwner = nullptr;
  std::u16string m_Folder;          // as passed to Init, for traces
  os::FolderHandle m_pFolder;       // null until Init
  bool m_bEnvironmentFlag = false;  // recorded; nothing depends on it
};

}  // namespace lumbra
