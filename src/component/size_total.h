// The sum of the sizes of all databases that count, which the limit on all of them together is held against.
#pragma once

#include <cstdint>

#include "component/database.h"

namespace lumbra {

// Written by its scope object alone, under the lock of whoever owns it.
class SizeTotal {
 public:
  std::uint64_t Bytes() const { return m_nBytes; }

  enum class Afterwards { Counted, Gone };

  // Takes a database's size out while the database changes, and puts in what it has become, on every way out. What is
  // taken out is what was put in, also where a read has found since that a segment holds less.
  class Change {
   public:
    Change(SizeTotal* pTotal, DatabaseSlot* pDatabase, Afterwards Then = Afterwards::Counted)
        : m_pTotal(pTotal), m_pDatabase(pDatabase), m_Then(Then) {
      m_pTotal->m_nBytes -= m_pDatabase->nCounted;
      m_pDatabase->nCounted = 0;
    }
    ~Change() {
      m_pTotal->m_nBytes -= m_pDatabase->nCounted;  // of a change of the same database that a host made in between
      m_pDatabase->nCounted = 0;
      if (m_Then == Afterwards::Gone) m_pDatabase->bGone = true;
      if (!m_pDatabase->Counts()) return;
      m_pDatabase->nCounted = m_pDatabase->Manager.GetTotalSize();
      m_pTotal->m_nBytes += m_pDatabase->nCounted;
    }
    Change(const Change&) = delete;
    Change& operator=(const Change&) = delete;

   private:
    SizeTotal* const m_pTotal;
    DatabaseSlot* const m_pDatabase;
    const Afterwards m_Then;
  };

 private:
  std::uint64_t m_nBytes = 0;
};

}  // namespace lumbra
