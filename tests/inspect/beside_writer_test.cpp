// Readers beside a writer: what they deliver, and what they say they did not.
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "host/text.h"
#include "inspect/event_reader.h"
#include "inspect/paths.h"
#include "inspect/verify.h"
#include "inspect/writer.h"
#include "support/world.h"

namespace lumbra::test {
namespace {

using inspect::Batch;
using inspect::EventReader;

// How long each test reads: some seconds, or as many as the environment says.
std::chrono::seconds ReadingTime() {
  const char* const pSeconds = std::getenv("LUMBRA_BESIDE_SECONDS");
  return std::chrono::seconds(pSeconds == nullptr ? 3 : std::atoi(pSeconds));
}

class BesideWriterTest : public World {
 protected:
  std::unique_ptr<inspect::Store> OpenStore() {
    std::unique_ptr<inspect::Store> pStore;
    EXPECT_EQ(os::kSuccess, inspect::Store::Open(WideFolder(), &pStore));
    return pStore;
  }
  // Nothing is damaged but what a kill has left.
  static inspect::Report NoDamage(const Writer& Of) {
    return [&Of](const inspect::Finding& What) {
      if (What.Of == inspect::Grade::Damage && !Of.WasJustKilled())
        ADD_FAILURE() << host::ToUtf8(What.File) << ": " << What.What;
    };
  }
  // Waits until the writer has begun.
  static void Await(const Writer& Of) {
    while (Of.Added() < 100) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }

  // What was delivered must have the next number, or the one that a gap leads to.
  void Take(const Batch& Read) {
    if (Read.Lost) {
      ++m_nGaps;
      const inspect::Gap& Lost = *Read.Lost;
      m_Told += std::to_string(Lost.From.nSegment) + ':' + std::to_string(Lost.From.nIndex) + " to " +
                std::to_string(Lost.To.nSegment) + ':' + std::to_string(Lost.To.nIndex) +
                (Lost.bAtLeast ? " at least " : " ") + std::to_string(Lost.nCount) + " why " +
                std::to_string(static_cast<int>(Lost.Reason)) + "\n";
      m_nLost += Read.Lost->nCount;
      m_bAtLeast = m_bAtLeast || Read.Lost->bAtLeast;
      return;
    }
    for (std::uint32_t i = 0; i < Read.nCount; ++i) {
      NumberedEvent One{};
      std::memcpy(&One, Read.Events.data() + i * sizeof(One), sizeof(One));
      if (m_bStarted && m_bAtLeast) {
        EXPECT_LE(m_nNext + m_nLost, One.nNumber) << m_Told << "segment " << Read.First.nSegment << ", event "
                                                  << Read.First.nIndex + i << " after " << m_nNext;
      } else if (m_bStarted) {
        EXPECT_EQ(m_nNext + m_nLost, One.nNumber)
            << "segment " << Read.First.nSegment << ", event " << Read.First.nIndex + i << m_Told;
      }
      m_Told.clear();
      m_nNext = One.nNumber + 1;
      m_nLost = 0;
      m_bAtLeast = false;
      m_bStarted = true;
      ++m_nDelivered;
    }
  }

  bool m_bStarted = false;
  std::uint64_t m_nNext = 0;
  std::uint64_t m_nLost = 0;
  bool m_bAtLeast = false;
  std::string m_Told;
  std::uint64_t m_nDelivered = 0;
  std::uint64_t m_nGaps = 0;
  std::uint64_t m_nNameless = 0;
};

TEST_F(BesideWriterTest, DeliversEachEventOnceOrTellsOfIt) {
  Writer Of(WideFolder(), {});
  Await(Of);
  const auto pStore = OpenStore();
  EventReader Reader(*pStore, *pStore->Find(u"01"), NoDamage(Of));
  inspect::Paths Names(*pStore, 1 << 20);
  Reader.OpenObjectsIn(&Names);
  const auto Drain = [&] {
    ASSERT_CODE(errOK, Reader.Refresh());
    Batch Read;
    while (Reader.Next(100, &Read)) {
      Take(Read);
      std::vector<std::uint64_t> Ids;
      std::vector<std::string> Expected;
      for (std::uint32_t i = 0; i < Read.nCount; ++i) {
        NumberedEvent One{};
        std::memcpy(&One, Read.Events.data() + i * sizeof(One), sizeof(One));
        Ids.push_back(One.nObject);
        Expected.push_back(host::ToUtf8(NameOf(One.nNumber)));
      }
      const auto& Views = Names.Resolve(Ids, Read.Objects);
      for (std::size_t i = 0; i < Views.size(); ++i) {
        if (Views[i].Of == inspect::ObjectView::State::Gone) {
          ++m_nNameless;
          continue;
        }
        EXPECT_EQ(inspect::ObjectView::State::Named, Views[i].Of);
        EXPECT_EQ(Expected[i], Views[i].Name);
      }
    }
  };
  const auto End = std::chrono::steady_clock::now() + ReadingTime();
  while (std::chrono::steady_clock::now() < End) {
    Drain();
    std::this_thread::sleep_for(std::chrono::milliseconds(m_nDelivered % 3 == 0 ? 20 : 1));
  }
  Of.End();
  Drain();
  EXPECT_EQ(Of.Added(), m_nNext);
  EXPECT_EQ(0u, Of.Failed());
  std::printf("added %llu, delivered %llu, gaps %llu, nameless %llu\n", (unsigned long long)Of.Added(),
              (unsigned long long)m_nDelivered, (unsigned long long)m_nGaps, (unsigned long long)m_nNameless);
}

// What the writer is about to write, when it is stopped or killed, is unsettled or left over.
TEST_F(BesideWriterTest, VerificationFindsNoDamage) {
  for (const bool bChecked : {false, true}) {
    Writer Of(WideFolder(), {.bCheckMode = bChecked});
    Await(Of);
    const auto pStore = OpenStore();
    const auto Tell = [](const inspect::Finding& What) {
      if (What.Of == inspect::Grade::Damage)
        ADD_FAILURE() << host::ToUtf8(What.File) << " at " << What.nOffset << ": " << What.What << " (" << What.Expected
                      << ", " << What.Found << ')';
    };
    const inspect::VerifyRequest Everything{{}, [](const inspect::Database&, std::uint32_t) {
                                              return std::vector<std::uint32_t>{offsetof(NumberedEvent, nObject)};
                                            }};
    std::uint64_t nTimes = 0;
    for (const auto End = std::chrono::steady_clock::now() + ReadingTime(); std::chrono::steady_clock::now() < End;) {
      inspect::Verified Totals;
      EXPECT_CODE(errOK, inspect::Verify(*pStore, Everything, Tell, nullptr, &Totals));
      ++nTimes;
    }
    Of.End();
    std::printf("added %llu, verified %llu times\n", (unsigned long long)Of.Added(), (unsigned long long)nTimes);
    fs::remove_all(Folder());
    fs::create_directory(Folder());
  }
}

}  // namespace
}  // namespace lumbra::test
