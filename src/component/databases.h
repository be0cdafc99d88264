// All databases of one instance: 48 numbered ones in their slots and any number of named ones, the index that ties
// names to ids, and the limit on the size of all of them together.
//
// Any thread may call any operation. One lock, the main lock of the instance, is held while a database is opened,
// limited, added to or cleared: so adds come one after the other, and the size total never sees a half-done one. What
// only reads or names objects goes to a database that was found once, whose segment manager has a lock of its own.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "component/database.h"
#include "component/host_text.h"
#include "component/size_total.h"
#include "events/named_index.h"
#include "lumbra/lumbra.h"
#include "platform/os.h"
#include "platform/storage_environment.h"

namespace lumbra {

// What databases ask of the instance that they belong to.
class DatabasesOwner : public StorageOwner {
 public:
  virtual HostObject* Handle() = 0;  // on whose behalf lines are traced

  // The folder of the store, which ends with a separator; empty when the host names none.
  virtual HostText StoreFolder() = 0;

  // How databases are opened from now on.
  struct OpenSettings {
    bool bCheckMode;
    bool bEnvironmentFlag;
    ObjectDB* pSharedObjects;  // may be null
  };
  virtual OpenSettings Settings() = 0;

 protected:
  ~DatabasesOwner() = default;
};

class Databases {
 public:
  explicit Databases(DatabasesOwner& Owner);
  Databases(const Databases&) = delete;
  Databases& operator=(const Databases&) = delete;

  // ---- Opening and closing ----

  // Opens the system database below the store's folder, which ends with a separator. *pOpened is the database, whatever
  // the code, unless its folder cannot be used (errOPEN_FAILED).
  ResultCode OpenSystem(HostText Folder, Database* pOpened) EXCLUDES(m_Lock);

  // The operations below that have a Tell call it with their answer while they hold the lock, and answer what it
  // returns: so the lines that it traces stand in the order of what happened.

  // The same for a numbered one; errALREADY_DONE when it is open. Tell(code, database).
  template <class Telling>
  ResultCode Open(std::uint32_t nDatabase, std::uint32_t nEventSize, Telling Tell) EXCLUDES(m_Lock);

  // The same for a named one, which has its id for ever. One that cannot be opened is known to Tell alone.
  // errPARAMETER_INVALID for a name that no database can have (format/database_name.h), errINDEX_INVALID when there is
  // no id left, errOBJECT_ALREADY_EXISTS when the index cannot tell the name from that of another one in the list:
  // these, and a failure to save the index, are answered without Tell. Tell(code, database, whether it was open).
  template <class Telling>
  ResultCode Open(const char16_t* pName, std::uint32_t nEventSize, Telling Tell) EXCLUDES(m_Lock);

  // Closes the system database, and all of them; files stay. Named ones close when the last operation is done with
  // them.
  void CloseSystem();
  void CloseAll() EXCLUDES(m_Lock);

  // ---- The index of names ("g_db_id.dat") ----

  // Opens the folder of the store for it, making it where it is missing. False when that fails.
  bool OpenStoreFolder(const HostText& Folder) EXCLUDES(m_Lock);

  // Does something with that folder.
  template <class Operation>
  ResultCode InStoreFolder(Operation Do) EXCLUDES(m_Lock) {
    const os::Hold Hold(m_Lock);
    return Do(std::as_const(m_Store));
  }

  ResultCode LoadIndex(bool* pbCorrupted) EXCLUDES(m_Lock);

  // The mark in it that damage was met. Where it is needed and could not be saved, the next SaveMark tries again.
  void NeedMark(bool bNeeded) { m_bMarkUnsaved = bNeeded; }
  bool IsMarkUnsaved() const { return m_bMarkUnsaved; }
  void SaveMark() EXCLUDES(m_Lock);

  // ---- Each database ----

  // The database of an id below 255. Not open for the id of a named one that nobody opened.
  // Waits for nobody who works with another one.
  Database Find(std::uint32_t nDatabase) EXCLUDES(m_NamedLock);

  // Shows the segment manager of each slot and of each named database, without the lock.
  template <class Visitor>
  void ForEach(Visitor Visit) EXCLUDES(m_NamedLock);

  // Appends an event, and has the limit on all databases drop a segment where that is due. errPARAMETER_INVALID,
  // without Tell, for the id of a named database that nobody opened. Tell(code, id of the event without the database).
  template <class Telling>
  ResultCode Add(std::uint32_t nDatabase, const void* pData, std::uint32_t nSize, Telling Tell) EXCLUDES(m_Lock);

  template <class Telling>
  ResultCode Clear(const Database& Which, Telling Tell) EXCLUDES(m_Lock);

  // Sets a limit of one database (SegmentManager::SetLimit).
  ResultCode SetLimit(const Database& Of, LumbraLimit nKind, std::uint64_t nValue) EXCLUDES(m_Lock);

  // ---- All databases together ----

  // Sets the limit on the sum of all databases that have no size limit of their own; 0 is none. It is looked at by each
  // add to one of these, which drops one segment at most where the sum has reached it.
  void SetGlobalLimit(std::uint64_t nBytes) EXCLUDES(m_Lock);

  // Sums over the databases 1 to 254.
  struct Totals {
    std::uint32_t nRecords = 0;
    std::uint64_t nDataSize = 0;
    std::uint64_t nGreatestAge = 0;  // seconds, of the oldest segment
  };
  Totals Sum() EXCLUDES(m_Lock);

  // Does something while no database is opened, cleared, limited or added to.
  template <class Operation>
  ResultCode Alone(Operation Do) EXCLUDES(m_Lock) {
    const os::Hold Hold(m_Lock);
    return Do();
  }

 private:
  static constexpr std::uint32_t kSlots = kFirstNamedDatabase;

  // The list to those who hold the main lock: it changes under both.
  const std::vector<NamedDatabaseRef>& AllNamed() const REQUIRES(m_Lock) NO_THREAD_SAFETY_ANALYSIS { return m_Named; }
  DatabaseSlot* SlotOf(std::uint32_t nDatabase) REQUIRES(m_Lock);
  NamedDatabaseRef FindNamed(const char16_t* pName) REQUIRES(m_Lock);
  bool InitEnvironment(DatabaseSlot* pSlot, const HostText& Store, const char16_t* pName) REQUIRES(m_Lock);
  ResultCode InitManager(DatabaseSlot* pSlot, std::uint32_t nEventSize) REQUIRES(m_Lock);
  ResultCode OpenSlot(std::uint32_t nDatabase, std::uint32_t nEventSize, Database* pOpened) REQUIRES(m_Lock);
  ResultCode OpenNamed(const char16_t* pName, std::uint32_t nEventSize, Database* pOpened) REQUIRES(m_Lock);
  ResultCode KeepNamed(const NamedDatabaseRef& Named, const std::string* pNewKey) REQUIRES(m_Lock);

  ResultCode AddTo(DatabaseSlot* pTo, const void* pData, std::uint32_t nSize, std::uint64_t* pnEventId)
      REQUIRES(m_Lock);
  ResultCode ClearOne(const Database& Which) REQUIRES(m_Lock);
  void EnforceGlobalLimit() REQUIRES(m_Lock);
  void CheckLimits() REQUIRES(m_Lock);
  void CheckLimitsNamed() REQUIRES(m_Lock);
  bool IsOverGlobalLimit() REQUIRES(m_Lock);
  void Recount() REQUIRES(m_Lock);
  void Count(DatabaseSlot* pSlot) REQUIRES(m_Lock);
  void DropOldestSegment(DatabaseSlot* pSlot) REQUIRES(m_Lock);
  bool IsTotalTheSum() const REQUIRES(m_Lock);

  // In the order in which they are destroyed, last to first.
  DatabasesOwner& m_Owner;
  DatabaseSlot m_Slots[kSlots];             // slot 0 is the system database
  std::atomic<bool> m_bMarkUnsaved{false};  // damage was met, and the index file does not say so yet

  os::CriticalSection m_Lock;  // guards everything below, and the opening, limiting and clearing of databases, and adds
  SizeTotal m_Total GUARDED_BY(m_Lock);
  std::uint64_t m_nGlobalSizeLimit GUARDED_BY(m_Lock) = 0;  // of the total; 0: none
  StorageEnvironment m_Store GUARDED_BY(m_Lock);            // the store's folder
  PersistentIndex m_Index GUARDED_BY(m_Lock);               // what that file holds

  os::CriticalSection m_NamedLock;                                // below the main lock, for a few instructions
  std::vector<NamedDatabaseRef> m_Named GUARDED_BY(m_NamedLock);  // in order of opening; changed under both locks
};

template <class Telling>
ResultCode Databases::Open(std::uint32_t nDatabase, std::uint32_t nEventSize, Telling Tell) {
  const os::Hold Hold(m_Lock);
  Database Opened;
  const ResultCode nCode = OpenSlot(nDatabase, nEventSize, &Opened);
  return Opened.IsOpen() ? Tell(nCode, Opened) : nCode;
}

template <class Telling>
ResultCode Databases::Open(const char16_t* pName, std::uint32_t nEventSize, Telling Tell) {
  const os::Hold Hold(m_Lock);
  const NamedDatabaseRef Named = FindNamed(pName);
  if (Named.Get() != nullptr && Named->Manager.IsInitialized()) return Tell(errALREADY_DONE, Database(Named), true);
  Database Opened;
  const ResultCode nCode = OpenNamed(pName, nEventSize, &Opened);
  return Opened.IsOpen() ? Tell(nCode, Opened, false) : nCode;
}

template <class Telling>
ResultCode Databases::Add(std::uint32_t nDatabase, const void* pData, std::uint32_t nSize, Telling Tell) {
  const os::Hold Hold(m_Lock);
  DatabaseSlot* const pTo = SlotOf(nDatabase);
  if (pTo == nullptr) return errPARAMETER_INVALID;
  std::uint64_t nEventId = 0;
  const ResultCode nCode = AddTo(pTo, pData, nSize, &nEventId);
  return Tell(nCode, nEventId);
}

template <class Telling>
ResultCode Databases::Clear(const Database& Which, Telling Tell) {
  const os::Hold Hold(m_Lock);
  return Tell(ClearOne(Which));
}

// One named database at a time, held by a reference.
template <class Visitor>
void Databases::ForEach(Visitor Visit) {
  for (DatabaseSlot& Slot : m_Slots) Visit(Slot.Manager);
  for (std::size_t i = 0;; ++i) {
    NamedDatabaseRef Named;
    {
      const os::Hold Hold(m_NamedLock);
      if (i < m_Named.size()) Named = m_Named[i];
    }
    if (Named.Get() == nullptr) return;
    Visit(Named->Manager);
  }
}

}  // namespace lumbra
