// Conversions and upper-casing, on which names and hashes on disk depend.
#include <gtest/gtest.h>

#include <string>

#include "platform/storage_environment.h"

namespace lumbra::test {
namespace {

constexpr auto kToUtf8 = &StorageEnvironment::WideToUtf8;
constexpr auto kToWide = &StorageEnvironment::Utf8ToWide;

// The text that comes out; "-" for none.
template <class From, class To>
std::basic_string<To> Convert(bool (*pConvert)(const From*, std::uint32_t, To*, std::uint32_t, std::uint32_t*) noexcept,
                              std::type_identity_t<std::basic_string_view<From>> Text) {
  const auto nBytes = static_cast<std::uint32_t>(Text.size() * sizeof(From));
  std::uint32_t nLength = 0;
  if (!pConvert(Text.data(), nBytes, nullptr, 0, &nLength)) return {'-'};
  std::basic_string<To> Result(nLength / sizeof(To), '?');
  const auto nRoom = static_cast<std::uint32_t>(Result.size());
  EXPECT_TRUE(pConvert(Text.data(), nBytes, Result.data(), nRoom, &nLength));
  EXPECT_FALSE(pConvert(Text.data(), nBytes, Result.data(), nRoom - 1, nullptr) && nRoom > 1);
  return Result;
}

TEST(Text, ConvertsAndReplacesWhatIsInvalid) {
  EXPECT_EQ("a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", Convert(kToUtf8, u"a\u00E9\u20AC\U0001F600"));
  EXPECT_EQ("x\xEF\xBF\xBDy", Convert(kToUtf8, u"x\xD800y"));
  EXPECT_EQ("\xEF\xBF\xBD", Convert(kToUtf8, u"\xDC00"));
  EXPECT_EQ("-", Convert(kToUtf8, u""));
  EXPECT_EQ(u"a\u00E9\u20AC\U0001F600", Convert(kToWide, "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"));
  EXPECT_EQ(u"\uFFFD\uFFFDz", Convert(kToWide, "\xE2\x82z"));          // cut off
  EXPECT_EQ(u"\uFFFD\uFFFD", Convert(kToWide, "\xC0\x80"));            // overlong
  EXPECT_EQ(u"\uFFFD\uFFFD\uFFFD", Convert(kToWide, "\xED\xA0\x80"));  // a surrogate
  EXPECT_EQ(u"\uFFFD\uFFFD\uFFFD\uFFFD", Convert(kToWide, "\xF4\x90\x80\x80"));
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
