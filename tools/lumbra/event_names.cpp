#include "event_names.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace lumbra::tool {

EventNames::EventNames(const inspect::Store& Store, const CommonOptions& Common, Findings* pFindings)
    : m_Store(Store), m_Common(Common), m_pFindings(pFindings), m_Paths(Store, CacheBytesOf(Common)) {}

const std::vector<inspect::ObjectView>& EventNames::Resolve(const inspect::Batch& Read, std::uint32_t nEventSize,
                                                            std::uint32_t nObjectAt,
                                                            std::span<const std::uint32_t> Positions) {
  m_Ids.resize(Positions.size());
  bool bHost = false;
  for (std::size_t i = 0; i < Positions.size(); ++i) {
    const std::uint8_t* const pEvent = Read.Events.data() + std::size_t{Positions[i]} * nEventSize;
    std::memcpy(&m_Ids[i], pEvent + nObjectAt, sizeof(m_Ids[i]));
    bHost = bHost || m_Ids[i] == kHostObjectAlias;
  }
  if (bHost && !m_bHostKnown) LookForHost();
  const std::vector<inspect::ObjectView>& Objects = m_Paths.Resolve(m_Ids, Read.Objects);
  Count(Objects);
  return Objects;
}

void EventNames::LookForHost() {
  m_bHostKnown = true;
  m_Paths.SetHostObject(ObjectStores(m_Store, m_Common, m_pFindings).HostObject());
}

void EventNames::Count(const std::vector<inspect::ObjectView>& Objects) {
  using State = inspect::ObjectView::State;
  for (const inspect::ObjectView& One : Objects) {
    m_nLost += One.Of == State::Lost ? 1 : 0;
    m_nDamaged += One.Of == State::Damaged ? 1 : 0;
    m_nUnsettled += One.Of == State::Unsettled ? 1 : 0;
    m_nUnreadable += One.Of == State::Unreadable ? 1 : 0;
  }
}

void EventNames::TellOfUnreadable() const {
  const auto Tell = [this](std::uint64_t nCount, const char* pWhy) {
    if (nCount == 0) return;
    m_pFindings->NoteMissing();
    std::fprintf(stderr, "lumbra: the objects of %llu event%s cannot be read: %s\n",
                 static_cast<unsigned long long>(nCount), nCount == 1 ? "" : "s", pWhy);
  };
  Tell(m_nLost, "the files of their segment are lost, or were dropped meanwhile");
  Tell(m_nDamaged, "what is stored of them is damaged");
  Tell(m_nUnsettled, "somebody who has the store was writing to them");
  Tell(m_nUnreadable, "the system does not let us");
}

}  // namespace lumbra::tool
