// The objects that were looked at last: 256 slots, each for one value of the low byte of an object's hash. A record
// that was read by its id may be an older one of its hash; only the tree, or the object's creation, vouches that it is
// the one which the hash leads to.
#pragma once

#include <cstdint>

#include "format/object_files.h"
#include "platform/invariant.h"

namespace lumbra {

class ObjectCache {
 public:
  // Whether an object with this hash is here, be it the one that the hash leads to or not. Hash 0 is never found: many
  // objects have it.
  bool Holds(std::uint64_t nHash) const {
    const Slot& Candidate = SlotOf(static_cast<std::uint8_t>(nHash));
    return nHash != 0 && Candidate.Id != 0 && Candidate.Entry.nObjectHash == nHash;
  }

  // The object that this hash leads to, or null where nothing vouches for one.
  const tObjectId* FindByHash(std::uint64_t nHash) const {
    const Slot& Candidate = SlotOf(static_cast<std::uint8_t>(nHash));
    return Holds(nHash) && Candidate.bVouched ? &Candidate.Id : nullptr;
  }

  // The record of this object, or null.
  const tODB_ID_ENTRY* FindById(tObjectId id) const {
    const Slot& Candidate = SlotOf(m_SlotOfId[id & 0xFFu]);
    return id != 0 && Candidate.Id == id ? &Candidate.Entry : nullptr;
  }

  void Insert(tObjectId id, const tODB_ID_ENTRY& Entry) {
    const auto nSlot = static_cast<std::uint8_t>(Entry.nObjectHash);
    const bool bVouched = m_Slots[nSlot].bVouched && m_Slots[nSlot].Id == id;  // the hash of an object never changes
    m_Slots[nSlot] = {id, Entry, bVouched};
    m_SlotOfId[id & 0xFFu] = nSlot;
  }

  // Says of an object that was just found or inserted here that its hash leads to it.
  void Vouch(tObjectId id) {
    Slot& Candidate = m_Slots[m_SlotOfId[id & 0xFFu]];
    if (Candidate.Id == id) Candidate.bVouched = true;
  }

  void Clear() { *this = ObjectCache(); }

 private:
  struct Slot {
    tObjectId Id;
    tODB_ID_ENTRY Entry;
    bool bVouched;
  };

  // A slot's object is one whose hash leads to it.
  const Slot& SlotOf(std::uint8_t nSlot) const {
    const Slot& Found = m_Slots[nSlot];
    LUMBRA_INVARIANT(Found.Id == 0 || static_cast<std::uint8_t>(Found.Entry.nObjectHash) == nSlot);
    return Found;
  }

  Slot m_Slots[256] = {};
  std::uint8_t m_SlotOfId[256] = {};  // by the low byte of the id: the slot that last received such an object
};

}  // namespace lumbra
