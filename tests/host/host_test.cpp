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
            Format("%terr %terr %terr", errNOT_FOUND, static_cast<ResultCode>(0x80070004u), errOK));
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
  EXPECT_CODE(errUNEXPECTED, Trace(kHostRoot, traceFailure, "lmb\tnobody listens"));
  EXPECT_EQ(1, LumbraModuleEntry(nullptr, 1, nullptr));  // the system's own notifications
  Load();
  EXPECT_CODE(errOK, Open());
}

}  // namespace
}  // namespace lumbra::test
