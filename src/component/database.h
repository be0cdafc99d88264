// One database: its folder and its chain of segments. One that was opened by name is always used through a counted
// reference, so that the instance can let go of it while an operation on another thread still works with it; whoever
// drops the last reference closes it.
#pragma once

#include <cstdint>
#include <utility>

#include "component/host_binding.h"
#include "component/host_text.h"
#include "events/lmb_smgr.h"
#include "lumbra/lumbra.h"
#include "platform/storage_environment.h"

namespace lumbra {

struct DatabaseSlot {
  std::uint32_t nId = kSystemDatabase;
  StorageEnvironment Environment;
  SegmentManager Manager;
  std::uint64_t nCounted = 0;  // bytes of it in the size total, whose scope object alone changes this
  bool bGone = false;          // the instance has let go of it

  // Whether it counts in the size total: unless it is the system's, has a size limit of its own, or is gone.
  bool Counts() const { return nId != kSystemDatabase && !bGone && Manager.GetDbMaxSize() == 0; }
};

struct NamedDatabase : DatabaseSlot {
  NamedDatabase(HostText DatabaseName, std::uint32_t nDatabaseId) : Name(std::move(DatabaseName)) { nId = nDatabaseId; }

  HostText Name;                  // at most 63 characters
  std::uint32_t nReferences = 0;  // changed only through the host's atomic functions
};

class NamedDatabaseRef {
 public:
  NamedDatabaseRef() = default;
  explicit NamedDatabaseRef(NamedDatabase* pDatabase) : m_pDatabase(pDatabase) { AddReference(); }
  NamedDatabaseRef(const NamedDatabaseRef& Other) : m_pDatabase(Other.m_pDatabase) { AddReference(); }
  NamedDatabaseRef(NamedDatabaseRef&& Other) noexcept : m_pDatabase(std::exchange(Other.m_pDatabase, nullptr)) {}
  NamedDatabaseRef& operator=(NamedDatabaseRef Other) noexcept {
    std::swap(m_pDatabase, Other.m_pDatabase);
    return *this;
  }
  ~NamedDatabaseRef() {
    if (m_pDatabase != nullptr && binding::AtomicDecrement(&m_pDatabase->nReferences) == 0) delete m_pDatabase;
  }

  NamedDatabase* operator->() const { return m_pDatabase; }
  NamedDatabase* Get() const { return m_pDatabase; }

 private:
  void AddReference() {
    if (m_pDatabase != nullptr) binding::AtomicIncrement(&m_pDatabase->nReferences);
  }

  NamedDatabase* m_pDatabase = nullptr;
};

// The database that an operation works on: a slot of the instance, or a named one that is held for as long.
class Database {
 public:
  Database() = default;
  explicit Database(DatabaseSlot* pSlot) : m_pSlot(pSlot) {}
  explicit Database(NamedDatabaseRef Named) : m_Named(std::move(Named)), m_pSlot(m_Named.Get()) {}

  bool IsOpen() const { return m_pSlot != nullptr; }
  std::uint32_t Id() const { return m_pSlot->nId; }
  DatabaseSlot& Slot() const { return *m_pSlot; }
  SegmentManager& Manager() const { return m_pSlot->Manager; }

 private:
  NamedDatabaseRef m_Named;
  DatabaseSlot* m_pSlot = nullptr;
};

}  // namespace lumbra
