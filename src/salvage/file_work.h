// What healing and taking back do with the files of a store, and how they hold it meanwhile.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/os.h"
#include "salvage/plan.h"

namespace lumbra::salvage {

// In "set-aside/<time>": what was done, and that it was taken back.
inline constexpr char16_t kRecord[] = u"healing.json";
inline constexpr char16_t kUndone[] = u"undone.json";

// The whole record of what was done at a time; empty where there is none, or a torn one, or somebody else's.
os::SystemError ReadRecord(const os::FolderHandle& pAside, std::vector<Step>* pSteps);

bool IsMissing(os::SystemError nError);
std::u16string WideName(const std::string& Ascii);

class OpenFile {
 public:
  OpenFile() = default;
  ~OpenFile() { Close(); }
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;

  os::SystemError Open(const os::FolderHandle& pFolder, std::u16string_view Name, std::uint32_t nShare,
                       os::Disposition What) {
    return os::Open(pFolder, Name, os::kGenericRead | os::kGenericWrite, nShare, What, 0, &m_Handle);
  }
  void Close() {
    if (m_Handle != nullptr) (void)os::Close(std::exchange(m_Handle, nullptr));  // who has written has flushed
  }
  os::FileHandle Handle() const { return m_Handle; }

 private:
  os::FileHandle m_Handle = nullptr;
};

inline constexpr std::uint32_t kHoldNothing = os::kShareRead | os::kShareWrite | os::kShareDelete;
inline constexpr std::uint32_t kHold = os::kShareRead;

// Each of these is on the disk when it ends.
os::SystemError WriteAndSync(os::FileHandle Handle, std::uint64_t nOffset, const std::string& Bytes);
os::SystemError WriteFile(const os::FolderHandle& pFolder, std::u16string_view Name, const std::string& Content,
                          os::Disposition What);
// Gives a file that is not held another content at once, and leaves it its rights.
os::SystemError ReplaceFile(const os::FolderHandle& pFolder, const std::u16string& Name, const std::string& Content);
// Moves a file to a name that is free, or that an empty file has: who looked at the store meanwhile has made that.
os::SystemError MoveOverEmpty(const os::FolderHandle& pFrom, std::u16string_view Name, const os::FolderHandle& pTo,
                              std::u16string_view NewName);

// Bytes of a file from an offset on, fewer at its end.
os::SystemError ReadFile(const os::FolderHandle& pFolder, std::u16string_view Name, std::uint64_t nOffset,
                         std::size_t nMost, std::string* pContent);

bool HasFile(const os::FolderHandle& pFolder, std::u16string_view Name);

os::SystemError OpenOrMakeFolder(const os::FolderHandle& pParent, std::u16string_view Name, os::FolderHandle* ppFolder);

// The files by which a process holds a store as long as it has it open: those of the shared objects, and the header of
// the system's database.
class StoreHold {
 public:
  // kSharingViolation where another process holds one. What is missing is not held: the component makes it.
  os::SystemError Take(const os::FolderHandle& pStore);

  // One of its files.
  os::SystemError TakeFile(const std::u16string& Folder, const os::FolderHandle& pFolder, const std::u16string& Name);

  // Lets go of a file that is to be moved: on Windows what is held stays where it is.
  void Release(const std::u16string& Folder, const std::u16string& File) { m_Files.erase({Folder, File}); }

  // What Take could not open.
  const Step& Refused() const { return m_Refused; }

  // The file, if it is held: on Windows nobody else can write to it meanwhile, not even we.
  os::FileHandle Find(const std::u16string& Folder, const std::u16string& File) const;

 private:
  std::map<std::pair<std::u16string, std::u16string>, std::unique_ptr<OpenFile>> m_Files;
  Step m_Refused;
};

}  // namespace lumbra::salvage
