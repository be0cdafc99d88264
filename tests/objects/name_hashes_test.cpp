// The hashes of names that were computed before.
#include "objects/name_hashes.h"

#include <gtest/gtest.h>

#include <string>

namespace lumbra::test {
namespace {

// Names that are alike but for one thing, more of them than have places of their own: each has its own hash.
template <class Naming>
void EachHasItsOwn(Naming NameOf) {
  NameHashes Known;
  for (int nRound = 0; nRound < 2; ++nRound) {
    for (std::uint64_t i = 0; i < 256; ++i) ASSERT_EQ(i, Known.Of(NameOf(i), [&] { return i; }));
  }
}

TEST(NameHashes, TellNamesApartByAllThatTheyAreHashedFrom) {
  using Name = NameHashes::Name;
  EachHasItsOwn([](std::uint64_t i) { return Name{i, 2, true, "name", 4}; });
  EachHasItsOwn([](std::uint64_t i) { return Name{1, static_cast<std::uint8_t>(i), true, "name", 4}; });
  EachHasItsOwn([](std::uint64_t i) { return Name{1, static_cast<std::uint8_t>(i / 2), i % 2 != 0, "name", 4}; });
  EachHasItsOwn([Bytes = std::string(44, 'x')](std::uint64_t i) {
    return Name{1, static_cast<std::uint8_t>(i / 40), true, Bytes.data(), static_cast<std::uint32_t>(i % 40 + 1)};
  });
  EachHasItsOwn([Bytes = std::string(44, 'x')](std::uint64_t i) mutable {
    Bytes[i % 2 == 0 ? 0 : 43] = static_cast<char>(i);
    return Name{1, 2, true, Bytes.data(), 44};
  });
}

TEST(NameHashes, KnowTheShortOnesAndComputeTheLong) {
  NameHashes Known;
  int nComputed = 0;
  for (const std::uint32_t nSize : {4u, 44u, 45u, 4u, 44u, 45u}) {
    EXPECT_EQ(7u, Known.Of({1, 2, true, std::string(45, 'x').data(), nSize}, [&] { return ++nComputed, 7; }));
  }
  EXPECT_EQ(4, nComputed);
}

}  // namespace
}  // namespace lumbra::test
