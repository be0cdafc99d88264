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
};

Known& All() {
  static Known Instance;
  return Instance;
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
    if (Own || Oldest.pOwner->TryCloseSegment(Oldest.nNumber)) {
      Now.Segments.erase(Now.Segments.begin() + static_cast<std::ptrdiff_t>(i));
    } else {
      ++i;
    }
  }
  try {
    Now.Segments.push_back({pOwner, nNumber});
  } catch (const std::bad_alloc&) {
    // It stays open until its owner closes.
  }
  return Own;
}

void OpenSegments::Forget(const SegmentOwner* pOwner, std::uint32_t nNumber) {
  Known& Now = All();
  const os::Hold Hold(Now.Lock);
  std::erase_if(Now.Segments, [&](const OpenSegment& One) { return One.pOwner == pOwner && One.nNumber == nNumber; });
}

void OpenSegments::Forget(const SegmentOwner* pOwner) {
  Known& Now = All();
  const os::Hold Hold(Now.Lock);
  std::erase_if(Now.Segments, [&](const OpenSegment& One) { return One.pOwner == pOwner; });
}

bool OpenSegments::CloseOne() {
  Known& Now = All();
  const os::Hold Hold(Now.Lock);
  const auto Closed = std::find_if(Now.Segments.begin(), Now.Segments.end(),
                                   [](const OpenSegment& One) { return One.pOwner->TryCloseSegment(One.nNumber); });
  if (Closed == Now.Segments.end()) return false;
  Now.Segments.erase(Closed);
  return true;
}

}  // namespace lumbra
