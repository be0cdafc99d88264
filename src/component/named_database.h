// A database that was opened by name. It is always used through a counted reference, so that the instance can
// let go of it while an operation on another thread still works with it; whoever drops the last reference
// closes it.
#pragma once

#include <cstdint>
#include <utility>

#include "component/host_binding.h"
#include "component/host_text.h"
#include "events/lmb_smgr.h"
#include "platform/storage_environment.h"

namespace lumbra {

struct NamedDatabase {
  NamedDatabase(HostText DatabaseName, std::uint32_t nDatabaseId) : Name(std::move(DatabaseName)), nId(nDatabaseId) {}

  HostText Name;  // at most 63 characters
  std::uint32_t nId;
  StorageEnvironment Environment;
  SegmentManager Manager;
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

}  // namespace lumbra
