// The stand-alone host: its printf dialect, its texts, and the order in which lines are filtered and
// formatted.
#include "component/component_fixture.h"
#include "host/text.h"
#include "host/trace_format.h"
#include "platform/trace.h"

namespace lumbra::test {
namespace {

std::string Format(const char* pFormat, ...) {
  std::va_list Arguments;
  va_start(Arguments, pFormat);
  std::string Line = host::FormatTraceLine(pFormat, Arguments);
  va_end(Arguments);
  return Line;
}

TEST(TraceFormat, UnderstandsTheDialect) {
  EXPECT_EQ("a 2A 7 -7 42", Format("a %X %u %d %lu", 42, 7, -7, 42));
  EXPECT_EQ("[00AB] [  12] [12  ] [-012]", Format("[%04X] [%4d] [%-4d] [-%03d]", 0xAB, 12, 12, 12));
  EXPECT_EQ("FFFFFFFFFFFFFFFF 18446744073709551615 -1", Format("%I64X %I64u %I64d", ~0ull, ~0ull, -1ll));
  EXPECT_EQ("\xC3\xA9t\xC3\xA9|abc|(null)", Format("%S|%ws|%S", u"\u00E9t\u00E9", u"abc", nullptr));
  EXPECT_EQ("ab|abcdef|  ab|abc",
            Format("%.*S|%.*S|%*.*S|%.3s", 2, u"abcdef", -1, u"abcdef", 4, 2, u"abcdef", "abcdef"));
  EXPECT_EQ("errNOT_FOUND (0x8000004C) (0x80070004) errOK (0x00000000)",
            Format("%terr %terr %terr", errNOT_FOUND, CodeOfNumber(0x80070004), errOK));
  EXPECT_EQ("100% %q %d", Format("100%% %q %d", 1));
  EXPECT_EQ("x", Format("x"));
}

TEST(HostText, ReplacesWhatIsInvalid) {
  EXPECT_EQ(u"a\uFFFDz", host::ToUtf16("a\xFFz"));
  EXPECT_EQ("a\xEF\xBF\xBDz", host::ToUtf8(u"a\xD800z"));
  EXPECT_EQ(u"\U0001F600", host::ToUtf16(host::ToUtf8(u"\U0001F600")));
}

class HostTest : public ComponentTest {};

TEST_F(HostTest, TracesByLevelUntilItIsUnloaded) {
  m_Host->TraceToFile(500, (Folder() / "trace.txt").string());
  ASSERT_CODE(errOK, Open());
  ASSERT_CODE(errOK, Call(&Ops::InitDB, 1, 16));
  ASSERT_CODE(errOK, Add(1, 1));
  const std::string Text = ReadText("trace.txt");
  EXPECT_NE(std::string::npos, Text.find("500 lmb\tAddEvent(1,16,100000100000000) = errOK (0x00000000)\n"));
  EXPECT_EQ(std::string::npos, Text.find("Lumbra::AddEvent Database"));  // of level 600

  Unload();
  Trace(kHostRoot, traceFailure, "lmb\tnobody listens");
  EXPECT_EQ(1, LumbraModuleEntry(nullptr, 1, nullptr));  // the system's own notifications
  Load();
  EXPECT_CODE(errOK, Open());
}

// A system that could not bring data to the disk may drop it, and call the next attempt a success.
TEST_F(HostTest, TellsOfAFailedFlushUntilTheStoreIsOpenedAgain) {
  for (const std::uint32_t nTraced : {0u, 600u}) {
    m_Host->TraceToCallback(nTraced, &NoteTraceLine);
    Trace(kHostRoot, traceFailure, "lmb\tno failure of a flush");
    Expect({errOK, errOK}, {m_Host->SendFlush(), Add(5, 1)});
    FailCalls(SystemCall::Sync, os::kIoDevice);
    Expect({errWRITE_FAILED, errWRITE_FAILED}, {m_Host->SendFlush(), m_Host->SendFlush()});
    {
      host::Store Another = m_Host->Create();
      Expect({errOK, errOK}, {Another.SetReportFolder(WideFolder() + u"/another"), Another.Init()});
      Expect({errOK, errWRITE_FAILED}, {m_Store.Init(), m_Host->SendFlush()});  // it was open all the time
      Expect({errOK, errWRITE_FAILED}, {Open(), m_Host->SendFlush()});  // the other one keeps the shared objects open
    }
    Expect({errOK, errOK, errOK, errOK}, {Open(), InitDb(5), Add(5, 2), m_Host->SendFlush()});
  }
}

TEST_F(HostTest, IsRefusedBesideAnotherOne) {
  {
    ResetSystem();
    host::StandaloneHost Second;
    Second.SetPlaceholder(u"%Report%", u"/nowhere");
    Expect({errALREADY_EXISTS, false, errALREADY_EXISTS, errOK},
           {Second.LoadResult(), static_cast<bool>(Second.Create()), Second.SendFlush(), Add(5, 1)});
    EXPECT_EQ(0u, CallsOf(SystemCall::Sync));  // the first one's stores are none of its business
  }
  Expect({errOK, errOK, Ids{1}, errOK}, {Open(), InitDb(5), Times(5, 0, 9), m_Host->SendFlush()});
}

int g_nAlive = 0;  // instances of a module that has nothing else

int LUMBRA_ENTRY_CALL OfferInstances(void* pRoot, std::uint32_t nReason, void* pError) {
  static LumbraLifecycle s_Lifecycle{};
  s_Lifecycle.ObjectShutdown = [](LumbraInstance*) -> ResultCode {
    return errOK;
  };
  s_Lifecycle.ObjectFree = [](LumbraInstance* pInstance) -> ResultCode {
    --g_nAlive;
    delete pInstance;
    return errOK;
  };
  static constexpr HostFactory kFactory = [](std::uint32_t, HostObject*, std::uint32_t) -> void* {
    auto* const pMade = new (std::nothrow) LumbraInstance{&s_Lifecycle, {}};
    g_nAlive += pMade == nullptr ? 0 : 1;
    return pMade;
  };
  if (nReason != kModuleLoad) return 1;
  auto* const pHost = static_cast<HostObject*>(pRoot);
  *static_cast<ResultCode*>(pError) = static_cast<const HostRootOperations*>(pHost->pOperations)
                                          ->RegisterInterface(pHost, kSeparateInstance, 1, 0, 0, kFactory);
  return 1;
}

TEST_F(HostTest, LeavesNoInstanceBehindWhenMemoryIsShort) {
  Unload();
  m_Host.emplace(&OfferInstances);
  bool bFailed = true;
  for (std::uint64_t nSkip = 0; bFailed; ++nSkip) {
    FailAllocation(nSkip);
    {
      const host::Store Made = m_Host->Create();
      bFailed = AllocationFailed();
      EXPECT_NE(bFailed, static_cast<bool>(Made)) << nSkip;
    }
    EXPECT_EQ(0, g_nAlive) << nSkip;
  }
}

}  // namespace
}  // namespace lumbra::test
