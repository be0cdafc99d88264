// The objects that were looked at last: 256 slots, each for one value of the low byte of an object's hash.
#pragma once

#include <cstdint>

#include "objects/objdb_format.h"

namespace lumbra {

class ObjectCache {
 public:
  // The object with this hash, or null. Hash 0 is never found: many objects have it.
  const tObjectId* FindByHash(std::uint64_t nHash) const {
    const Slot& Candidate = m_Slots[nHash & 0xFFu];
    const bool bHit = nHash != 0 && Candidate.Id != 0 && Candidate.Entry.nObjectHash == nHash;
    return bHit ? &Candidate.Id : nullptr;
  }

  // The record of this object, or null.
  const tODB_ID_ENTRY* FindById(tObjectId id) const {
    const Slot& Candidate = m_Slots[m_SlotOfId[id & 0xFFu]];
    return id != 0 && Candidate.Id == id ? &Candidate.Entry : nullptr;
  }

  void Insert(tObjectId id, const tODB_ID_ENTRY& Entry) {
    const auto nSlot = static_cast<std::uint8_t>(Entry.nObjectHash);
    m_Slots[nSlot] = {id, Entry};
    m_SlotOfId[id & 0xFFu] = nSlot;
  }

  void Clear() { *this = ObjectCache(); }

 private:
  struct Slot {
    tObjectId Id;
    tODB_ID_ENTRY Entry;
  };
  Slot m_Slots[256] = {};
  std::uint8_t m_SlotOfId[256] = {};  // by the low byte of the id: the slot that last received such an object
};

}  // namespace lumbra
