// A segment with a shared object store beside it.
#pragma once

#include <memory>
#include <string>

#include "events/lmb_seg.h"
#include "support/world.h"

namespace lumbra::test {

class SegmentTest : public World {
 protected:
  static constexpr std::uint32_t kNumber = 3;
  static constexpr std::uint32_t kEventSize = 4;

  void OpenGlobal(bool bCheckMode) {
    m_pGlobal = std::make_unique<ObjectDB>(bCheckMode);
    ObjectFiles Files{OpenFile(u"g_bt"), OpenFile(u"g_id"), OpenFile(u"g_dt")};
    ASSERT_CODE(errOK, m_pGlobal->Open(0, Files, TreeHead::Large));
  }

  ResultCode Start(Segment::Files Which, bool bCheckMode = false, std::uint32_t nNumber = kNumber) {
    m_pSegment.reset();
    m_pSegment = std::make_unique<Segment>(bCheckMode);
    return m_pSegment->Init(&m_Environment, kEventSize, Which, nNumber, m_pGlobal.get());
  }

  ResultCode Add(std::uint32_t nValue, std::uint64_t* pnId = nullptr) { return m_pSegment->AddEvent(&nValue, 4, pnId); }

  // Finds or creates an object; 0 on failure, with the code in m_nLast.
  std::uint64_t Find(std::uint8_t nType, std::u16string_view Name, std::uint32_t nMode = findOrCreate,
                     std::uint32_t nOverride = 0, std::uint64_t nParent = 0) {
    std::uint64_t nId = 0;
    const auto nSize = static_cast<std::uint32_t>(Name.size() * 2);
    m_nLast = m_pSegment->FindObject(StoreChoice::Own, {nType, nOverride, Name.data(), nSize, nMode, nParent}, &nId);
    return Succeeded(m_nLast) ? nId : 0;
  }

  // The full name of an object; empty on failure.
  std::u16string NameOf(std::uint64_t nId, std::uint32_t nOverride = 0) {
    char16_t Buffer[600] = {};
    std::uint32_t nSize = 0;
    m_nLast = m_pSegment->GetObjectName(nId, Buffer, sizeof(Buffer), &nSize, nOverride, nullptr);
    return Succeeded(m_nLast) ? std::u16string(Buffer, nSize / 2) : u"";
  }

  std::uint64_t ParentOf(std::uint64_t nId, std::uint8_t* pnType = nullptr) {
    std::uint64_t nParent = 0;
    m_nLast = m_pSegment->GetObjectParent(nId, &nParent, nullptr, pnType);
    return nParent;
  }

  std::unique_ptr<ObjectDB> m_pGlobal;
  std::unique_ptr<Segment> m_pSegment;
  ResultCode m_nLast = errOK;
};

}  // namespace lumbra::test
