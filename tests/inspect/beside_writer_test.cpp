// Readers beside a writer that rotates, drops, clears, is stopped and killed: what they deliver, and what they say they
// did not.
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <thread>
#include <utility>

#include "host/text.h"
#include "inspect/event_reader.h"
#include "inspect/paths.h"
#include "inspect/verify.h"
#include "inspect/writer.h"
#include "support/run_program.h"
#include "support/world.h"

namespace lumbra::test {
namespace {

using inspect::Batch;
using inspect::EventReader;
using inspect::ObjectView;

class BesideWriterTest : public World {
 protected:
  std::unique_ptr<inspect::Store> OpenStore() {
    std::unique_ptr<inspect::Store> pStore;
    EXPECT_EQ(os::kSuccess, inspect::Store::Open(WideFolder(), &pStore));
    return pStore;
  }
  // Nothing is damaged but what a kill within a clearing has left, until the next start.
  static inspect::Report NoDamage(const Writer& Of) {
    return [&Of](const inspect::Finding& What) {
      if (What.Of == inspect::Grade::Damage && !Of.WasJustCutShort())
        ADD_FAILURE() << host::ToUtf8(What.File) << " at " << What.nOffset << ": " << What.What << " (" << What.Expected
                      << ", " << What.Found << ')';
    };
  }
  // Does something again and again, for some seconds or as many as the environment says.
  static void Repeat(const std::function<void()>& Work) {
    const char* const pSeconds = std::getenv("LUMBRA_BESIDE_SECONDS");
    const auto End = std::chrono::steady_clock::now() + std::chrono::seconds(pSeconds ? std::atoi(pSeconds) : 3);
    while (std::chrono::steady_clock::now() < End) Work();
  }
};

// What a reader delivers of the numbers that a writer counts.
class Delivery {
 public:
  explicit Delivery(const Writer& Of) : m_Writer(Of) {}

  // Each event has the number behind the last one, and behind what gaps tell.
  void Take(const Batch& Read) {
    if (Read.Lost) {
      m_nLost += Read.Lost->nCount;
      m_bAtLeast = m_bAtLeast || Read.Lost->bAtLeast;
      return;
    }
    for (const NumberedEvent& One : EventsOf(Read)) {
      // A clearing that was cut short takes events that nobody has seen, once.
      const std::uint64_t nCutShort = m_Writer.ClearingsCutShort();
      m_nUnseen += nCutShort - std::exchange(m_nCutShort, nCutShort);
      const std::uint64_t nNext = m_nNext + m_nLost;
      const bool bMayJump = m_nNext == 0 || m_bAtLeast;
      if (!bMayJump && m_nUnseen == 0) {
        EXPECT_EQ(nNext, One.nNumber) << "segment " << Read.First.nSegment;
      }
      if (m_nNext != 0) {
        EXPECT_LE(nNext, One.nNumber) << "segment " << Read.First.nSegment;
      }
      if (!bMayJump && m_nUnseen != 0 && nNext != One.nNumber) --m_nUnseen;
      m_nNext = One.nNumber + 1;
      m_nLost = 0;
      m_bAtLeast = false;
    }
  }
  std::uint64_t Next() const { return m_nNext; }

  static std::vector<NumberedEvent> EventsOf(const Batch& Read) {
    std::vector<NumberedEvent> Events(Read.nCount);
    if (!Events.empty()) std::memcpy(Events.data(), Read.Events.data(), Read.Events.size());
    return Events;
  }

 private:
  const Writer& m_Writer;
  std::uint64_t m_nNext = 0;
  std::uint64_t m_nLost = 0;
  bool m_bAtLeast = false;
  std::uint64_t m_nCutShort = 0;
  std::uint64_t m_nUnseen = 0;  // of those, which may have taken events that are still to be missed
};

TEST_F(BesideWriterTest, DeliversEachEventOnceOrTellsOfIt) {
  Writer Of(WideFolder(), {});
  Of.Await(100);
  const auto pStore = OpenStore();
  EventReader Reader(*pStore, *pStore->Find(u"01"), NoDamage(Of));
  inspect::Paths Names(*pStore, 1 << 20);
  Reader.OpenObjectsIn(&Names);
  Delivery Delivered(Of);
  std::uint64_t nNamed = 0;
  std::uint64_t nNameless = 0;  // their segment went before its objects were opened
  const auto ReadOn = [&] {
    ASSERT_CODE(errOK, Reader.Refresh());
    for (Batch Read; Reader.Next(100, &Read);) {
      Delivered.Take(Read);
      const std::vector<NumberedEvent> Events = Delivery::EventsOf(Read);
      std::vector<std::uint64_t> Ids;
      for (const NumberedEvent& One : Events) Ids.push_back(One.nObject);
      const std::vector<ObjectView>& Objects = Names.Resolve(Ids, Read.Objects);
      for (std::size_t i = 0; i < Objects.size(); ++i) {
        const bool bGone = Objects[i].Of == ObjectView::State::Gone || Objects[i].Of == ObjectView::State::Lost;
        ++(bGone ? nNameless : nNamed);
        if (!bGone) {
          EXPECT_EQ(host::ToUtf8(NameOf(Events[i].nNumber)), Objects[i].Name);
        }
      }
    }
  };
  Repeat([&] {
    ReadOn();
    std::this_thread::sleep_for(std::chrono::milliseconds(Delivered.Next() % 3 == 0 ? 20 : 1));
  });
  Of.End();
  ReadOn();
  EXPECT_EQ(Of.Added(), Delivered.Next());
  EXPECT_LT(nNameless, nNamed / 10);
  EXPECT_EQ(0u, Of.Failed());
}

// At least once over runs, and once where the cursor is good.
TEST_F(BesideWriterTest, GoesOnAtACursor) {
  Writer Of(WideFolder(), {.bClears = false});
  Of.Await(100);
  const auto pStore = OpenStore();
  Delivery Delivered(Of);
  std::string Kept;
  Repeat([&] {
    EventReader Reader(*pStore, *pStore->Find(u"01"), NoDamage(Of));
    ASSERT_CODE(errOK, Reader.Refresh());
    if (!Kept.empty()) {
      EXPECT_NE(inspect::Resumed::Repeated, Reader.Resume(*inspect::ParseCursor(Kept)));
    }
    Batch Read;
    for (int i = 0; i < 3 && Reader.Next(50, &Read); ++i) {
      Delivered.Take(Read);
      Kept = inspect::FormatCursor(Read.Lost ? Reader.CursorHere() : Reader.CursorBehind(Read, Read.nCount));
    }
    if (Delivered.Next() % 2 == 0) Kept = inspect::FormatCursor(Reader.CursorHere());
  });
}

// What the writer is about to write, when it is stopped or killed, is unsettled or left over.
TEST_F(BesideWriterTest, VerificationFindsNoDamage) {
  const inspect::VerifyRequest Everything{{}, [](const inspect::Database&, std::uint32_t) {
                                            return std::vector<std::uint32_t>{offsetof(NumberedEvent, nObject)};
                                          }};
  for (const bool bChecked : {false, true}) {
    Writer Of(WideFolder(), {.bCheckMode = bChecked});
    Of.Await(100);
    const auto pStore = OpenStore();
    Repeat([&] {
      inspect::Verified Totals;
      EXPECT_CODE(errOK, inspect::Verify(*pStore, Everything, NoDamage(Of), nullptr, &Totals));
    });
    Of.End();
    fs::remove_all(Folder());
    fs::create_directory(Folder());
  }
}

// All commands that read: the writer notices nothing, and they find nothing that is not there.
TEST_F(BesideWriterTest, CommandsLeaveTheWriterAlone) {
  const fs::path Store = Folder() / "store";
  fs::create_directory(Store);
  const auto Start = std::chrono::steady_clock::now();
  Writer Of(Store.u16string(),
            {.nSegmentEvents = 20000, .nMostEvents = 400000, .bClears = false, .bIsDisturbed = false});
  Of.Await(1000);
  const auto Run = [&](const Arguments& Words) {
    Arguments Command = {LUMBRA_TOOL, "--store", Words.front() == "in backup" ? "backup" : "store"};
    Command.insert(Command.end(), Words.begin() + (Words.front() == "in backup" ? 1 : 0), Words.end());
    WriteFile("in", {});
    const int nStatus = RunIn(Folder(), Command);
    EXPECT_TRUE(nStatus == 0 || nStatus == 3) << ::testing::PrintToString(Words) << '\n' << ReadText("err");
    EXPECT_EQ(std::string::npos, ReadText("err").find("damage")) << ReadText("err");
    return nStatus;
  };
  Repeat([&] {
    for (const Arguments& Words : std::vector<Arguments>{{"info", "--segments", "--times"},
                                                         {"info", "-o", "prometheus"},
                                                         {"events", "--db", "1", "--json"},
                                                         {"events", "--db", "1", "-r", "-n", "500"},
                                                         {"objects", "--db", "1", "--data"},
                                                         {"find", "--db", "0", "C:\\folder 1"}}) {
      if (Words.front() != "find") {
        Run(Words);
      } else {
        Arguments Command = {LUMBRA_TOOL, "--store", "store"};
        Command.insert(Command.end(), Words.begin(), Words.end());
        EXPECT_EQ(1, RunIn(Folder(), Command)) << ReadText("err");  // the shared objects have no such name
      }
    }
    EXPECT_EQ(0, Run({"verify"})) << ReadText("out");
    Run({"backup", "backup"});
    EXPECT_EQ(0, Run({"in backup", "verify"})) << ReadText("out");
    EXPECT_EQ(0, Run({"in backup", "verify", "--manifest"})) << ReadText("out");
    EXPECT_EQ(0, Run({"in backup", "events", "--db", "1"}));
  });
  Of.End();
  EXPECT_EQ(0u, Of.Failed());
  const std::chrono::duration<double> Taken = std::chrono::steady_clock::now() - Start;
  std::printf("the writer has added %.0f events a second\n", static_cast<double>(Of.Added()) / Taken.count());
}

}  // namespace
}  // namespace lumbra::test
