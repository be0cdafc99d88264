// A store's folder, as somebody sees it who only reads. Nothing of this library writes, makes or locks anything, asks
// for a lock, or follows a link; it works beside a process that writes, on a medium that cannot be written to, and for
// a user who may only read. It believes nothing that it reads, and so does not mind whose the files are.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/os.h"

namespace lumbra::inspect {

struct Database {
  std::u16string Folder;            // its name in the store's folder
  std::optional<std::uint32_t> Id;  // none for a named one that the index does not hold
};

// A process that holds a store.
struct Holder {
  std::uint32_t nProcess;
  std::string Program;  // its name, as it calls itself; may be empty
  std::string User;     // a name, or a number
};

class Store {
 public:
  // Opens the folder. kPathNotFound, kFileNotFound or another number when that cannot be done.
  static os::SystemError Open(std::u16string_view Path, std::unique_ptr<Store>* ppStore);

  const os::FolderHandle& Folder() const { return m_pFolder; }

  // Whether any file of a store is there.
  bool IsStore() const;

  // Every folder that is a database: the numbered ones first, each in the order of their names.
  std::vector<Database> Databases() const;

  // A database by its folder or by its id; nothing when there is none.
  std::optional<Database> Find(std::u16string_view Folder) const;
  std::optional<Database> Find(std::uint32_t nId) const;

  // Opens a database's folder.
  os::SystemError OpenFolder(const Database& Of, os::FolderHandle* ppFolder) const;

  // The names that the index gives to ids, by id from 48 on: the low 7 bits of each character. Whether it says that
  // damaged data was met at some time.
  std::vector<std::string> IndexedKeys() const;
  bool IsMarkedCorrupted() const;

  // Whether a contradiction may still be waited for. Where that was in vain often enough, in whatever files, the next
  // ones are told at once.
  bool MayWait() const { return m_nWaitsLeft != 0; }
  void NoteWait() const { --m_nWaitsLeft; }

  // Who holds the store, by what the system tells of locks, which are not asked for. None means that it is not known:
  // nobody does, or a system, another machine or another user's process does not tell.
  std::vector<Holder> Holders() const;

 private:
  explicit Store(os::FolderHandle pFolder) : m_pFolder(std::move(pFolder)) {}

  os::FolderHandle m_pFolder;
  mutable std::atomic<std::uint32_t> m_nWaitsLeft{25};
};

}  // namespace lumbra::inspect
