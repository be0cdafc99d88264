// Working memory of one operation: a number of bytes inside the object itself, and a block of the heap beyond
// that.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>

namespace lumbra {

template <std::uint32_t nInline>
class ScratchBuffer {
 public:
  static constexpr std::uint32_t kInline = nInline;

  ScratchBuffer() = default;
  ~ScratchBuffer() { std::free(m_pHeap); }
  ScratchBuffer(const ScratchBuffer&) = delete;
  ScratchBuffer& operator=(const ScratchBuffer&) = delete;

  // Makes room for nSize bytes, whose contents are undefined. False, with none, when there is no memory for them.
  bool Resize(std::uint32_t nSize) {
    if (nSize > m_nCapacity && !Grow(nSize)) return false;
    m_nSize = nSize;
    return true;
  }

  std::uint8_t* Get() { return m_pHeap != nullptr ? m_pHeap : m_Inline; }
  std::uint8_t* begin() { return Get(); }
  std::uint32_t size() const { return m_nSize; }

 private:
  // To twice the size, so that a growing one is seldom moved. The old block goes first: in a small address space there
  // may be no room beside it.
  bool Grow(std::uint32_t nSize) {
    const std::uint32_t nDoubled = m_nSize > UINT32_MAX / 2 ? UINT32_MAX : m_nSize * 2;
    const std::uint32_t nCapacity = std::max(nDoubled, nSize);
    std::free(m_pHeap);
    m_pHeap = static_cast<std::uint8_t*>(std::malloc(nCapacity));
    m_nSize = 0;
    m_nCapacity = m_pHeap != nullptr ? nCapacity : kInline;
    return m_pHeap != nullptr;
  }

  std::uint8_t m_Inline[nInline];
  std::uint8_t* m_pHeap = nullptr;
  std::uint32_t m_nSize = 0;
  std::uint32_t m_nCapacity = nInline;
};

}  // namespace lumbra
