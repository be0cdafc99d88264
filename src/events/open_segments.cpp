#include "events/open_segments.h"

#include <algorithm>
#include <cstddef>
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

// Never destroyed: stores may be among the last to go.
Known& All() {
  alignas(Known) static std::byte s_Storage[sizeof(Known)];
  static Known* const s_pInstance = new (s_Storage) Known;
  return *s_pInstance;
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

// Closes the first that can be closed. One that cannot be brought to the disk goes to the end: the others come first.
bool CloseFirst(std::vector<OpenSegment>& Of) {
  std::size_t nAt = 0;
  for (std::size_t nTried = Of.size(); nTried != 0; --nTried) {
    const OpenSegment One = Of[nAt];
    const SegmentOwner::Closing How = One.pOwner->TryCloseSegment(One.nNumber);
    const auto Place = Of.begin() + static_cast<std::ptrdiff_t>(nAt);
    if (How == SegmentOwner::Closing::Done) {
      Of.erase(Place);
      return true;
    }
    if (How == SegmentOwner::Closing::Failed) {
      std::rotate(Place, Place + 1, Of.end());
    } else {
      ++nAt;
    }
  }
  return false;
}

}  // namespace

void OpenSegments::SetLimit(std::uint32_t nLimit) {
  Known& Now = All();
  const os::Hold Hold(Now.Lock);
  Now.nLimit = nLimit;
}

void OpenSegments::Use(SegmentOwner* pOwner, std::uint32_t nNumber) {
  Forget(pOwner, nNumber);
  Known& Now = All();
  const os::Hold Hold(Now.Lock);
  // What is in use stays, also under a limit of 0.
  const std::size_t nOthers = Now.nLimit > 0 ? Now.nLimit - 1 : 0;
  while (Now.Segments.size() > nOthers && CloseFirst(Now.Segments)) {
  }
  Append(Now.Segments, {pOwner, nNumber});
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
  Known& Now = All();
  const os::Hold Hold(Now.Lock);
  // A module that is unloaded leaves no memory behind.
  for (std::vector<OpenSegment>* const pList : {&Now.Segments, &Now.Newest}) {
    if (pList->empty()) std::vector<OpenSegment>().swap(*pList);
  }
}

bool OpenSegments::CloseOne() {
  Known& Now = All();
  const os::Hold Hold(Now.Lock);
  return CloseFirst(Now.Segments) || CloseFirst(Now.Newest);
}

}  // namespace lumbra
