// A segment with one event, of value 100.
#pragma once

#include "events/lmb_seg.h"
#include "support/world.h"

namespace lumbra::test {

class SegmentTest : public World {
 protected:
  static constexpr std::uint32_t kNumber = 3;

  using Answer = std::pair<std::uint64_t, std::string>;  // a value, and the name of the code that came with it

  void SetUp() override {
    ASSERT_CODE(errOK, Start(Segment::Files::New));
    ASSERT_CODE(errOK, Add(100));
  }

  ResultCode Start(Segment::Files Which, bool bCheckMode = false, std::uint32_t nNumber = kNumber) {
    m_pSegment = std::make_unique<Segment>(bCheckMode);
    return m_pSegment->Init(&m_Environment, 4, Which, nNumber, m_pGlobal.get());
  }

  ResultCode Add(std::uint32_t nValue) { return m_pSegment->AddEvent(&nValue, 4, nullptr); }

  Answer EventCount() {
    std::uint64_t nCount = 99;
    m_nLast = m_pSegment->GetEventCount(&nCount);
    return WithCode(nCount);
  }

  // Finds or creates an object; 0 on failure, with the code in m_nLast.
  std::uint64_t Ask(const ObjectQuery& Query, StoreChoice Choice = StoreChoice::Own) {
    std::uint64_t nId = 0;
    m_nLast = m_pSegment->FindObject(Choice, Query, &nId);
    return Succeeded(m_nLast) ? nId : 0;
  }
  std::uint64_t Find(std::uint8_t nType, std::u16string_view Name, std::uint32_t nMode = findOrCreate,
                     std::uint32_t nOverride = 0, std::uint64_t nParent = 0) {
    return Ask({nType, nOverride, Name.data(), static_cast<std::uint32_t>(Name.size() * 2), nMode, nParent});
  }

  // The full name of an object; empty on failure.
  std::u16string NameOf(std::uint64_t nId) {
    std::uint32_t nSize = 0;
    m_nLast = m_pSegment->GetObjectName(nId, nullptr, 0, &nSize, 0, nullptr);
    std::u16string Full(nSize / 2, u'?');
    if (m_nLast == errOK) m_nLast = m_pSegment->GetObjectName(nId, Full.data(), nSize, &nSize, 0, nullptr);
    return m_nLast == errOK ? Full : u"";
  }

  Answer WithCode(std::uint64_t nValue) const { return {nValue, Name(m_nLast)}; }

  std::unique_ptr<ObjectDB> m_pGlobal;  // none, unless a test opens it
  std::unique_ptr<Segment> m_pSegment;
  ResultCode m_nLast = errOK;
};

}  // namespace lumbra::test
