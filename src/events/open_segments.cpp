#include "events/open_segments.h"

#include <algorithm>
#include <new>
#include <vector>

#include "platform/os.h"

namespace lumbra {
namespace {

struct OpenSegment {
  SegmentOwner* pOwner;
  std::uint32_t nNumber;
};

struct Known {
  os::CriticalSection Lock;
  std::uint32_t nLimit GUARDED_BY(Lock) = OpenSegments::kUsualLimit;
  std::vector<OpenSegment> Segments GUARDED_BY(Lock);  // the one that was used last stands last
  std::vector<OpenSegment> Newest GUARDED_BY(Lock);    // the one that was opened last stands last
};

Known& All() {
  static Known Instance;
  return Instance;
}

template <class Predicate>
void EraseIf(Predicate Matches) {
  Known& Now = All();
  const os::Hold Hold(Now.Lock);
  std::erase_if(Now.Segments, Matches);
  std::erase_if(Now.Newest, Matches);
}

// One that cannot be noted stays open until its owner closes.
void Append(std::vector<OpenSegment>& To, OpenSegment One) {
  try {
    To.push_back(One);
  } catch (const std::bad_alloc&) {
  }
}

// Closes the first that can be closed. One that fails is not tried again before its next use.
bool CloseFirst(std::vector<OpenSegment>& Of) {
  for (auto One = Of.begin(); One != Of.end();) {
    const SegmentOwner::Closing How = One->pOwner->TryCloseSegment(One->nNumber);
    One = How == SegmentOwner::Closing::Busy ? One + 1 : Of.erase(One);
    if (How == SegmentOwner::Closing::Done) return true;
  }
  return false;
}

}  // namespace

void OpenSegments::SetLimit(std::uint32_t nLimit) {
  Known& Now = All();
  const os::Hold Hold(Now.Lock);
  Now.nLimit = nLimit;
}

std::optional<std::uint32_t> OpenSegments::Use(SegmentOwner* pOwner, std::uint32_t nNumber) {
  Forget(pOwner, nNumber);
  Known& Now = All();
  const os::Hold Hold(Now.Lock);
  // What is in use stays, also under a limit of 0.
  const std::size_t nOthers = Now.nLimit > 0 ? Now.nLimit - 1 : 0;
  std::optional<std::uint32_t> Own;
  for (std::size_t i = 0; i < Now.Segments.size() && Now.Segments.size() > nOthers && !Own;) {
    const OpenSegment Oldest = Now.Segments[i];
    if (Oldest.pOwner == pOwner) Own = Oldest.nNumber;
    const bool bBusy = !Own && Oldest.pOwner->TryCloseSegment(Oldest.nNumber) == SegmentOwner::Closing::Busy;
    if (bBusy) {
      ++i;
    } else {
      Now.Segments.erase(Now.Segments.begin() + static_cast<std::ptrdiff_t>(i));
    }
  }
  Append(Now.Segments, {pOwner, nNumber});
  return Own;
}

void OpenSegments::NoteNewest(SegmentOwner* pOwner, std::uint32_t nNumber) {
  Forget(pOwner, nNumber);
  Known& Now = All();
  const os::Hold Hold(Now.Lock);
  Append(Now.Newest, {pOwner, nNumber});
}

void OpenSegments::Forget(const SegmentOwner* pOwner, std::uint32_t nNumber) {
  EraseIf([&](const OpenSegment& One) { return One.pOwner == pOwner && One.nNumber == nNumber; });
}

void OpenSegments::Forget(const SegmentOwner* pOwner) {
  EraseIf([&](const OpenSegment& One) { return One.pOwner == pOwner; });
}

bool OpenSegments::CloseOne() {
  Known& Now = All();
  const os::Hold Hold(Now.Lock);
  return CloseFirst(Now.Segments) || CloseFirst(Now.Newest);
}

}  // namespace lumbra
