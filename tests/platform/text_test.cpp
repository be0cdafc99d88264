// Conversions and upper-casing, on which names and hashes on disk depend.
#include <gtest/gtest.h>

#include <string>

#include "platform/storage_environment.h"

namespace lumbra::test {
namespace {

std::string Utf8(std::u16string_view Text) {
  std::uint32_t nLength = 0;
  const auto nBytes = static_cast<std::uint32_t>(Text.size() * 2);
  if (!StorageEnvironment::WideToUtf8(Text.data(), nBytes, nullptr, 0, &nLength)) return "nothing";
  std::string Result(nLength, '?');
  EXPECT_TRUE(StorageEnvironment::WideToUtf8(Text.data(), nBytes, Result.data(), nLength, &nLength));
  EXPECT_FALSE(StorageEnvironment::WideToUtf8(Text.data(), nBytes, Result.data(), nLength - 1, nullptr) && nLength > 1);
  return Result;
}

std::u16string Wide(std::string_view Text) {
  std::uint32_t nBytes = 0;
  const auto nSize = static_cast<std::uint32_t>(Text.size());
  if (!StorageEnvironment::Utf8ToWide(Text.data(), nSize, nullptr, 0, &nBytes)) return u"nothing";
  std::u16string Result(nBytes / 2, u'?');
  EXPECT_TRUE(StorageEnvironment::Utf8ToWide(Text.data(), nSize, Result.data(), nBytes / 2, &nBytes));
  return Result;
}

TEST(Text, ConvertsAndReplacesWhatIsInvalid) {
  EXPECT_EQ("a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", Utf8(u"a\u00E9\u20AC\U0001F600"));
  EXPECT_EQ("x\xEF\xBF\xBDy", Utf8(u"x\xD800y"));
  EXPECT_EQ("\xEF\xBF\xBD", Utf8(u"\xDC00"));
  EXPECT_EQ("nothing", Utf8(u""));
  EXPECT_EQ(u"a\u00E9\u20AC\U0001F600", Wide("a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"));
  EXPECT_EQ(u"\uFFFD\uFFFDz", Wide("\xE2\x82z"));          // cut off
  EXPECT_EQ(u"\uFFFD\uFFFD", Wide("\xC0\x80"));            // overlong
  EXPECT_EQ(u"\uFFFD\uFFFD\uFFFD", Wide("\xED\xA0\x80"));  // a surrogate
  EXPECT_EQ(u"\uFFFD\uFFFD\uFFFD\uFFFD", Wide("\xF4\x90\x80\x80"));
}

TEST(Text, UpperCasesUnitByUnit) {
  std::u16string Text = u"az{\u00E4\u00FF\u0105\u03B1\u0436\u0561 \u00B5\u00DF\u0131\u017F\u03C2";
  EXPECT_EQ(Text.size(), StorageEnvironment::UpperCase(Text.data(), static_cast<std::uint32_t>(Text.size())));
  EXPECT_EQ(u"AZ{\u00C4\u0178\u0104\u0391\u0416\u0531 \u00B5\u00DF\u0131\u017F\u03A3", Text);
  std::uint32_t nChanged = 0;
  for (std::uint32_t n = 0; n <= 0xFFFF; ++n) {
    auto c = static_cast<char16_t>(n);
    StorageEnvironment::UpperCase(&c, 1);
    nChanged += c != n;
  }
  EXPECT_EQ(1164u, nChanged);
}

}  // namespace
}  // namespace lumbra::test
