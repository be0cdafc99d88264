// A segment with one event, of value 100.
#pragma once

#include "events/lmb_seg.h"
#include "support/steps.h"

namespace lumbra::test {

class SegmentWorld : public World {
 protected:
  static constexpr std::uint32_t kNumber = 3;
  static constexpr std::uint8_t kPlainType = 77;  // of which nothing is known: its names are taken as they are

  void SetUp() override {
    Start(Segment::Files::New);
    Must(Add(100));
  }

  // Takes up the segment, or makes it anew.
  void Start(Segment::Files Which) {
    m_pSegment = std::make_unique<Segment>(false, m_Lock, nullptr);
    Must(m_pSegment->Init(&m_Environment, 4, Which, kNumber, m_pGlobal.get()));
  }

  ResultCode Add(std::uint32_t nValue) { return m_pSegment->AddEvent(&nValue, 4, nullptr); }

  // Looks for an object, or creates it.
  ResultCode Ask(const ObjectQuery& Query, StoreChoice Choice = StoreChoice::Own) {
    return m_pSegment->FindObject(Choice, Query, &m_nFound);
  }
  // The same where it must not fail.
  std::uint64_t Given(const ObjectQuery& Query, StoreChoice Choice = StoreChoice::Own) {
    Must(Ask(Query, Choice));
    return m_nFound;
  }
  std::uint64_t Find(std::uint8_t nType, std::u16string_view Name, std::uint32_t nMode = findOrCreate,
                     std::uint32_t nFlags = 0) {
    return Given({nType, nFlags, Name.data(), static_cast<std::uint32_t>(Name.size() * 2), nMode, 0});
  }

  std::u16string NameOf(std::uint64_t nId) {
    std::u16string Full(50000, u'?');
    std::uint32_t nSize = 0;
    Must(m_pSegment->GetObjectName(nId, Full.data(), 100000, &nSize, 0, nullptr));
    return Full.substr(0, nSize / 2);
  }

  std::unique_ptr<ObjectDB> m_pGlobal;  // none, unless a test opens it
  os::CriticalSection m_Lock;
  std::unique_ptr<Segment> m_pSegment;
  std::uint64_t m_nFound = 0;
};

}  // namespace lumbra::test
