// Arrays of any length that take memory only where something stands in them: what a file claims costs nothing.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace lumbra::inspect {

// A value that was never set is 0.
template <class Value>
class Paged {
 public:
  Value Get(std::uint64_t nIndex) const {
    const std::uint64_t nPage = nIndex / kPerPage;
    if (nPage >= m_Pages.size() || m_Pages[static_cast<std::size_t>(nPage)] == nullptr) return {};
    return (*m_Pages[static_cast<std::size_t>(nPage)])[nIndex % kPerPage];
  }

  void Set(std::uint64_t nIndex, Value Given) {
    if (Given != Value{} || Get(nIndex) != Value{}) At(nIndex) = Given;
  }

  Value& At(std::uint64_t nIndex) {
    const auto nPage = static_cast<std::size_t>(nIndex / kPerPage);
    if (nPage >= m_Pages.size()) m_Pages.resize(nPage + 1);
    if (m_Pages[nPage] == nullptr) m_Pages[nPage] = std::make_unique<Page>();
    return (*m_Pages[nPage])[nIndex % kPerPage];
  }

 private:
  static constexpr std::size_t kPerPage = 1024;
  using Page = std::array<Value, kPerPage>;

  std::vector<std::unique_ptr<Page>> m_Pages;
};

// The same for bits.
class PagedBits {
 public:
  bool Test(std::uint64_t nIndex) const { return (m_Words.Get(nIndex / 64) >> nIndex % 64 & 1) != 0; }

  // Whether it was set before.
  bool Set(std::uint64_t nIndex) {
    std::uint64_t& nWord = m_Words.At(nIndex / 64);
    const std::uint64_t nBit = std::uint64_t{1} << nIndex % 64;
    const bool bWas = (nWord & nBit) != 0;
    nWord |= nBit;
    return bWas;
  }

 private:
  Paged<std::uint64_t> m_Words;
};

}  // namespace lumbra::inspect
