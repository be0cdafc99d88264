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

  // Makes room for nSize bytes, whose contents are undefined. False when there is no memory for them.
  bool Resize(std::uint32_t nSize) {
    if (nSize > m_nCapacity) {
      const std::uint32_t nDoubled = m_nSize > UINT32_MAX / 2 ? UINT32_MAX : m_nSize * 2;
      const std::uint32_t nCapacity = std::max(nDoubled, nSize);
      auto* const pBlock = static_cast<std::uint8_t*>(std::malloc(nCapacity));
      if (pBlock == nullptr) return false;
      std::free(m_pHeap);
      m_pHeap = pBlock;
      m_nCapacity = nCapacity;
    }
    m_nSize = nSize;
    return true;
  }

  std::uint8_t* Get() { return m_pHeap != nullptr ? m_pHeap : m_Inline; }
  std::uint8_t* begin() { return Get(); }
  std::uint32_t size() const { return m_nSize; }

 private:
  std::uint8_t m_Inline[nInline];
  std::uint8_t* m_pHeap = nullptr;
  std::uint32_t m_nSize = 0;
  std::uint32_t m_nCapacity = nInline;
};

}  // namespace lumbra
