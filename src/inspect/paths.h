// From the ids of objects to what they are called, for many ids at once: in the order of the ids, so that each block of
// the files is read once for all of them, however large the store is.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "inspect/objects.h"
#include "inspect/store.h"

namespace lumbra::inspect {

// The longest name that is put together, in UTF-16 units: the longest path of Windows. A store can hold longer ones, of
// any number of components, which would cost whoever looks at them as much.
inline constexpr std::size_t kMaxNameUnits = 32767;

struct ObjectView {
  enum class State : std::uint8_t {
    Named,
    Gone,       // its store, or it, is not there
    TooLong,    // longer than kMaxNameUnits: the type is good
    Damaged,    // it, or one of its parents, contradicts itself
    Unsettled,  // the same, while somebody has the store
    Unreadable,
  };

  State Of = State::Gone;
  std::uint8_t nType = 0;
  std::uint64_t nParent = 0;  // with its database; 0 for none
  std::string_view Name;      // the whole path: UTF-8, or the bytes of a file's name that is none
};

// All the object stores of a store, those opened that were used lately. One thread at a time.
class Paths {
 public:
  // What is kept of blocks, and of names of parents, together: bytes.
  Paths(const Store& Of, std::uint64_t nCacheBytes);
  ~Paths();

  // The objects with these ids, which bear their database, in the same order. The views are good until the next call.
  const std::vector<ObjectView>& Resolve(std::span<const std::uint64_t> Ids);

  // The store that an id leads to; null when there is none.
  Objects* Find(std::uint64_t nId);

  // To be called when a new horizon of events was taken: ids of objects that came since are known then.
  void Refresh();

 private:
  struct Impl;

  std::unique_ptr<Impl> m_pImpl;
};

}  // namespace lumbra::inspect
