// The stand-alone host: its printf dialect, its texts, and the order in which lines are filtered and
// formatted.
#include <gmock/gmock.h>
#ifndef _WIN32
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

#include "component/component_fixture.h"
#include "host/module_file.h"
#include "host/printed_text.h"
#include "host/text.h"
#include "host/trace_format.h"
#include "support/steps.h"

namespace lumbra::test {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

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
  EXPECT_EQ("[12  ] [12  ]", Format("[%-04d] [%*d]", 12, -4, 12));
  EXPECT_EQ("FFFFFFFFFFFFFFFF 18446744073709551615 -1", Format("%I64X %I64u %I64d", ~0ull, ~0ull, -1ll));
  EXPECT_EQ("\xC3\xA9t\xC3\xA9|abc|(null)", Format("%S|%ws|%S", u"\u00E9t\u00E9", u"abc", nullptr));
  EXPECT_EQ("ab||abcdef|  ab", Format("%.*S|%.0S|%.*S|%*.*S", 2, u"abcdef", u"abc", -1, u"abcdef", 4, 2, u"abcdef"));
  EXPECT_EQ("abc", Format("%.3s", "abcdef"));
  EXPECT_EQ("errNOT_FOUND (0x8000004C) (0x80070004)", Format("%terr %terr", errNOT_FOUND, CodeOfNumber(0x80070004)));
  EXPECT_EQ("100% %q %d", Format("100%% %q %d", 1));
}

TEST(HostText, ReplacesWhatIsInvalid) {
  EXPECT_EQ(u"a\uFFFDz", host::ToUtf16("a\xFFz"));
  EXPECT_EQ("a\xEF\xBF\xBDz", host::ToUtf8(u"a\xD800z"));
  EXPECT_EQ(u"\U0001F600", host::ToUtf16(host::ToUtf8(u"\U0001F600")));
}

TEST(HostText, KeepsTheBytesOfNames) {
  for (const std::string Name : {"f\xff", "f\xfe", "f\xEF\xBF\xBD", "\xED\xB2\x80", "\xF0\x9F\x98\x80\x80", "a\xC3"})
    EXPECT_EQ(Name, host::NameToBytes(host::NameToUtf16(Name)));
  EXPECT_EQ(u"f\xDCFF", host::NameToUtf16("f\xff"));
}

// What is shown, and what that is read as.
TEST(PrintedText, WritesOutWhatNobodySeesOrWhatDoesHarm) {
  const std::tuple<std::string, const char*> kNames[] = {{"C:\\a b\\\"c\"", "C:\\a b\\\"c\""},
                                                         {"\xC3\xA9 \xF0\x9F\x98\x80", "\xC3\xA9 \xF0\x9F\x98\x80"},
                                                         {"\"a\\x62\"", R"("\"a\\x62\"")"},
                                                         {"C:\\x41", "C:\\x41"},
                                                         {"\xC2\xAD\xF3\xA0\x81\x81", R"("\u{ad}\u{e0041}")"},
                                                         {"\x1b[2J\n\x7f", R"("\x1b[2J\x0a\x7f")"},
                                                         {"f\xff", R"("f\xff")"},
                                                         {"\xff\\\"", R"("\xff\\\"")"},
                                                         {"\xC2\x9B", R"("\u{9b}")"},
                                                         {"a\xE2\x80\xAE"
                                                          "b\xE2\x80\xA8",
                                                          R"("a\u{202e}b\u{2028}")"}};
  for (const auto& [Name, pShown] : kNames) {
    EXPECT_EQ(pShown, host::Printable(Name));
    EXPECT_EQ(Name, host::ReadPrinted(pShown));
  }
  for (const char* const pText : {R"("\xf")", R"("\u{d800}")", R"("\n")", R"("\u{110000}")", R"("\")", R"("a)"})
    EXPECT_EQ(std::nullopt, host::ReadPrinted(pText)) << pText;
  EXPECT_EQ(R"("\u202e\u007f\udb40\udc41")", host::PrintableJson("\"\xE2\x80\xAE\x7f\xF3\xA0\x81\x81\""));
}

class HostTest : public ComponentTest {
 protected:
  ResultCode Flush() { return m_Host->SendFlush(); }
  void Reopen() {
    ASSERT_CODE(errOK, Open());
    ASSERT_CODE(errOK, InitDb(5));
  }
};

TEST_F(HostTest, TracesUpToALevelIntoAFile) {
  m_Host->TraceToFile(500, (Folder() / "trace.txt").string());
  ASSERT_CODE(errOK, Add(5, 1));
  const std::string Text = ReadText("trace.txt");
  EXPECT_THAT(Text, HasSubstr("500 lmb\tAddEvent(5,16,500000100000000) = errOK (0x00000000)\n"));
  EXPECT_THAT(Text, Not(HasSubstr("Lumbra::AddEvent Database")));  // of level 600
}

#ifndef _WIN32
TEST_F(HostTest, TracesIntoAPlainFileAlone) {
  WriteFile("old", {});
  fs::create_symlink("old", Folder() / "link");
  EXPECT_FALSE(m_Host->TraceToFile(300, Folder() / "link"));
  const mode_t nBefore = umask(0777);
  EXPECT_TRUE(m_Host->TraceToFile(300, Folder() / "new"));
  umask(nBefore);
  EXPECT_EQ(fs::perms(0600), fs::status(Folder() / "new").permissions());
  fs::permissions(Folder() / "new", fs::perms::others_write, fs::perm_options::add);
  EXPECT_FALSE(m_Host->TraceToFile(300, Folder() / "new"));
  using How = host::StandaloneHost::TraceFile;
  for (const auto& [What, pKept] : {std::pair{How::Append, "x"}, {How::Replace, ""}}) {
    WriteFile("old", {'x'});
    EXPECT_TRUE(m_Host->TraceToFile(300, Folder() / "old", What));
    EXPECT_EQ(pKept, ReadText("old"));
  }
}

TEST_F(HostTest, OpensNothingAsAStandardStreamNorForOtherPrograms) {
  const int nInput = dup(STDIN_FILENO);
  const int nNext = dup(STDIN_FILENO);
  close(nNext);
  close(STDIN_FILENO);
  EXPECT_TRUE(m_Host->TraceToFile(300, Folder() / "trace"));
  EXPECT_EQ(FD_CLOEXEC, fcntl(nNext, F_GETFD));
  host::ModuleFile Module;
  EXPECT_EQ("", host::ReadModuleFile(LUMBRA_MODULE, &Module).Text);
  EXPECT_EQ(-1, fcntl(STDIN_FILENO, F_GETFD));
  dup2(nInput, STDIN_FILENO);
  close(nInput);
}

TEST_F(HostTest, OpensNoStoreThatOthersMayChange) {
  Unload();
  fs::permissions(Folder(), fs::perms::others_write, fs::perm_options::add);
  Load();
  m_Host->TraceToCallback(300, &NoteTraceLine);
  TakeTrace();
  Step("a store that all may write to", Open())
      .Is(errACCESS_DENIED)
      .Says({"300 the store is not trusted: " + Folder().string() + " can be written by others"});
  EXPECT_EQ(Folder().string() + " can be written by others", m_Store.Refusal());
  m_Host->TrustStores();
  Step("the same, trusted", Open()).Is(errOK);
  ASSERT_CODE(errOK, InitDb(5));
  FailCallsNatively(SystemCall::OpenFolder, EMFILE);
  Step("without a descriptor, but with a segment to close", m_Store.OpenDatabase(6, 16)).Is(errOK);
  fs::remove(Folder() / "named/segments.dat");
  fs::create_symlink("../05/segments.dat", Folder() / "named/segments.dat");
  Step("a link", m_Store.OpenDatabase(u"named", 16, &m_nNamed)).Is(errACCESS_DENIED);
  EXPECT_EQ("the size of its events cannot be read", m_Store.Refusal());
}
#endif

TEST_F(HostTest, LetsNoNameForgeALineOfATrace) {
  std::uint32_t nNone = 0;
  m_Host->TraceToFile(600, Folder() / "trace");
  ASSERT_CODE(errPARAMETER_INVALID, InitNamed(u"a\n300 forged", &nNone));
  EXPECT_THAT(ReadText("trace"), HasSubstr("lmb\tLumbra::InitDBByName method: name = \"a\\x0a300 forged\"\n"));
  m_Host->TraceToCallback(600, &NoteTraceLine);
  TakeTrace();
  ASSERT_CODE(errPARAMETER_INVALID, InitNamed(u"a\nb", &nNone));
  EXPECT_EQ("500 Lumbra::InitDBByName method: name = a\nb", TakeTrace().front());
}

TEST_F(HostTest, BeginsNoDatabaseAnewForAnotherEventSize) {
  using Other = host::Store::OtherSize;
  ASSERT_CODE(errOK, Add(5, 1));
  ASSERT_CODE(errOK, Open());
  EXPECT_CODE(errSIZE_INVALID, m_Store.OpenDatabase(5, 24));
  EXPECT_EQ("its events have 16 bytes, not 24", m_Store.Refusal());
  EXPECT_CODE(errOK, m_Store.OpenDatabase(5, 16));
  EXPECT_EQ(Ids{1}, Times(5, 0, 9));
  EXPECT_CODE(errSHARING_VIOLATION, m_Store.OpenDatabase(5, 24, Other::StartEmpty));  // it is open
  ASSERT_CODE(errOK, Open());
  EXPECT_CODE(errOK, m_Store.OpenDatabase(5, 24, Other::StartEmpty));
  const fs::path Aside = fs::directory_iterator(Folder() / "05/set-aside")->path();
  EXPECT_EQ(12 + 16, fs::file_size(Aside / "00000001_events.dat"));
  // Where no file tells the size, it may be any.
  ASSERT_CODE(errOK, Call(&LumbraOperations::AddEvent, 5, std::array<std::uint64_t, 3>{}.data(), 24, nullptr));
  Close();
  for (const char* const pFile : {"05/segments.dat", "05/00000001_events.dat"}) Patch(pFile, 0, {'?'});
  m_Store = m_Host->Create();
  ASSERT_CODE(errOK, m_Store.Init(host::Heal::On));
  EXPECT_CODE(errDATA_CORRUPTED, m_Store.OpenDatabase(5, 24));
  EXPECT_EQ(12 + 24, fs::file_size(Folder() / "05/00000001_events.dat"));
  EXPECT_CODE(errOK, m_Store.OpenDatabase(5, 24, Other::StartEmpty));
}

// A system that could not bring data to the disk may drop it, and call the next attempt a success.
TEST_F(HostTest, TellsOfAFailedFlushUntilTheStoreIsOpenedAgain) {
  m_Host->TraceToCallback(0, nullptr);
  ASSERT_CODE(errOK, Add(5, 1));
  FailCalls(SystemCall::Sync, os::kIoDevice);
  AllAnswer(errWRITE_FAILED, {{"the flush that failed", Flush()}, {"the next one", Flush()}});
  ASSERT_CODE(errOK, m_Store.Init());
  EXPECT_CODE(errWRITE_FAILED, Flush());  // it was open all the time
  Reopen();
  ASSERT_CODE(errOK, Add(5, 2));
  EXPECT_CODE(errOK, Flush());
}

TEST_F(HostTest, IsRefusedBesideAnotherOne) {
  ASSERT_CODE(errOK, Add(5, 1));
  {
    host::StandaloneHost Second;
    Second.SetPlaceholder(u"%Report%", u"/nowhere");
    EXPECT_CODE(errALREADY_EXISTS, Second.LoadResult());
    EXPECT_FALSE(Second.Create());
  }
  Reopen();
  EXPECT_EQ(Ids{1}, Times(5, 0, 9));
  EXPECT_CODE(errOK, Flush());
}

}  // namespace
}  // namespace lumbra::test
