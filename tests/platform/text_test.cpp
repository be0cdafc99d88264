// Conversions and upper-casing, on which names and hashes on disk depend.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "platform/storage_environment.h"
#include "platform/upper_case_table.h"

namespace lumbra::test {
namespace {

// The text that comes out.
template <class From, class To>
std::basic_string<To> Convert(bool (*pConvert)(const From*, std::uint32_t, To*, std::uint32_t, std::uint32_t*) noexcept,
                              const std::basic_string<From>& Text) {
  const auto nBytes = static_cast<std::uint32_t>(Text.size() * sizeof(From));
  std::uint32_t nLength = 0;
  EXPECT_TRUE(pConvert(Text.data(), nBytes, nullptr, 0, &nLength));
  std::basic_string<To> Result(nLength / sizeof(To), '?');
  EXPECT_TRUE(pConvert(Text.data(), nBytes, Result.data(), static_cast<std::uint32_t>(Result.size()), &nLength));
  return Result;
}

std::u16string ToWide(const std::string& Text) {
  return Convert(&StorageEnvironment::Utf8ToWide, Text);
}
std::string ToUtf8(const std::u16string& Text) {
  return Convert(&StorageEnvironment::WideToUtf8, Text);
}

TEST(Text, ConvertsAndReplacesWhatIsInvalid) {
  const std::pair<std::u16string, std::string> kTexts[] = {
      {u"a\u00E9\U0001F600\u20AC", "a\xC3\xA9\xF0\x9F\x98\x80\xE2\x82\xAC"},
      {u"\xD7FF\xE000 \xFFFD\xFFFF", "\xED\x9F\xBF\xEE\x80\x80 \xEF\xBF\xBD\xEF\xBF\xBF"},
      {u"\xD800\xDC00 \xDBFF\xDFFF.", "\xF0\x90\x80\x80 \xF4\x8F\xBF\xBF."}};  // U+10000 and U+10FFFF
  for (const auto& [Wide, Utf8] : kTexts) {
    EXPECT_EQ(Wide, ToWide(Utf8));
    EXPECT_EQ(Utf8, ToUtf8(Wide));
  }
  for (const char16_t c : {u'\xD800', u'\xDBFF', u'\xDC00', u'\xDFFF'}) {  // lone surrogates
    EXPECT_EQ("x\xEF\xBF\xBDy", ToUtf8({u'x', c, u'y'}));
  }
  // Cut off, overlong, a surrogate, past the last, a byte that is never valid: how many come of it is the system's
  // affair.
  for (const std::string Invalid : {"\xE2\x82", "\xC0\x80", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xFF"}) {
    std::u16string Text = ToWide('x' + Invalid + 'z');
    Text.erase(std::unique(Text.begin(), Text.end()), Text.end());
    EXPECT_EQ(u"x\uFFFDz", Text) << Invalid.size();
  }
}

// The service of the system and the table, which stands in its place on posix, differ where docs/file-format.md says
// it.
TEST(Text, UpperCasesUnitByUnit) {
  std::u16string Text = u"az{\u00E4\u00FF\u0105\u03B1\u0436\u0561 \u00B5\u00DF\u0131\u017F";
  EXPECT_EQ(Text.size(), StorageEnvironment::UpperCase(Text.data(), static_cast<std::uint32_t>(Text.size())));
  EXPECT_EQ(u"AZ{\u00C4\u0178\u0104\u0391\u0416\u0531 \u00B5\u00DF\u0131\u017F", Text);
  std::u16string Differences;
  std::uint32_t nChanged = 0;
  for (std::uint32_t n = 0; n <= 0xFFFF; ++n) {
    auto c = static_cast<char16_t>(n);
    StorageEnvironment::UpperCase(&c, 1);
    if (c != UpperCaseByTable(static_cast<char16_t>(n))) Differences += static_cast<char16_t>(n);
    nChanged += UpperCaseByTable(static_cast<char16_t>(n)) != n;
  }
#ifdef _WIN32
  EXPECT_TRUE(Differences.empty() || Differences == u"\u03C2");  // as Windows, or as Wine has it
#else
  EXPECT_EQ(u"", Differences);  // they are the same
#endif
  EXPECT_EQ(1164u, nChanged);
  EXPECT_EQ(u'\u03A3', UpperCaseByTable(u'\u03C2'));
}

}  // namespace
}  // namespace lumbra::test
