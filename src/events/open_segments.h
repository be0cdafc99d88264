// The segments of this process that have their files open, beside the newest of each database: at most so many, so that
// a store of thousands of segments needs few descriptors. Who opens one more has the one closed that was used least
// recently; closed it is as it was before its first use.
//
// Managers hold their own lock when they call; the lock here is below it. To close a segment of another manager takes
// that one's lock, for which nobody waits here: where it is held, the next segment is tried.
#pragma once

#include <cstdint>

namespace lumbra {

// What has segments: a segment manager.
class SegmentOwner {
 public:
  // Failed: it has writes that cannot be brought to the disk, and stays open. Busy: another thread holds the owner.
  enum class Closing { Done, Failed, Busy };

  // The thread may be within an operation of the same owner.
  virtual Closing TryCloseSegment(std::uint32_t nNumber) = 0;

 protected:
  ~SegmentOwner() = default;
};

class OpenSegments {
 public:
  static constexpr std::uint32_t kUsualLimit = 64;  // propOPEN_SEGMENTS

  static void SetLimit(std::uint32_t nLimit);  // the last one counts, for the process

  // A segment that is open, and not its owner's newest, is in use. Others are closed while there are too many.
  static void Use(SegmentOwner* pOwner, std::uint32_t nNumber);

  // The newest segment of its owner has been opened. It counts for no limit; it is closed where descriptors run out
  // alone.
  static void NoteNewest(SegmentOwner* pOwner, std::uint32_t nNumber);

  // It is closed, or is no more; all of them.
  static void Forget(const SegmentOwner* pOwner, std::uint32_t nNumber);
  static void Forget(const SegmentOwner* pOwner);

  // Closes the one that was used least recently, of those that can be closed, and of the newest the one that was opened
  // first; false when there is none. What is called when a file meets a process without descriptors.
  static bool CloseOne();
};

}  // namespace lumbra
