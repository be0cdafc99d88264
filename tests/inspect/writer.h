// A process that writes to a store as fast as it can, beside a test that reads it: it rotates, drops, clears, updates
// and makes names; it is stopped in the middle, and killed and started again.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <string>

#include "lumbra/lumbra.h"

namespace lumbra::test {

// What it records: event n has the number n, and is about the object that NameOf(n) names.
struct NumberedEvent {
  std::uint64_t nTime;
  std::uint64_t nObject;
  std::uint64_t nNumber;
  std::uint64_t nZero;
};
std::u16string NameOf(std::uint64_t nNumber);

class Writer {
 public:
  struct Ways {
    std::uint32_t nSegmentEvents = 300;
    std::uint32_t nMostEvents = 2000;
    bool bClears = true;
    bool bIsDisturbed = true;  // stopped, killed and started again, at random moments
    bool bCheckMode = false;
  };
  static constexpr std::uint32_t kDatabase = 1;

  // The store's folder is there already. It goes on until End, or until this goes.
  Writer(const std::u16string& Folder, Ways What);
  ~Writer();
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;

  void End();

  void Await(std::uint64_t nEvents) const;
  std::uint64_t Added() const;   // events that the store has taken
  std::uint64_t Failed() const;  // operations that it has refused, and openings

  // Clearings that it was killed in: they take the newest segments, and nobody can miss those that he has not seen.
  std::uint64_t ClearingsCutShort() const;

  // Whether that was within the last seconds: what it leaves is damage until the next start.
  bool WasJustCutShort() const;

 private:
  struct Shared;

  void Keep(const std::u16string& Folder, Ways What);
  void Write(const std::u16string& Folder, Ways What);

  Shared* m_pShared;
  pid_t m_nKeeper = -1;
};

}  // namespace lumbra::test
