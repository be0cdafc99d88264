#include "platform/trace.h"

#include <atomic>

namespace lumbra {
namespace {

std::atomic<TraceSink> g_pSink{nullptr};

}  // namespace

void SetTraceSink(TraceSink pSink) noexcept {
  g_pSink.store(pSink, std::memory_order_release);
}

void TraceLine(HostObject* pObject, std::uint32_t nLevel, const char* pFormat, ...) noexcept {
  const TraceSink pSink = g_pSink.load(std::memory_order_acquire);
  if (pSink == nullptr) return;
  std::va_list Arguments;
  va_start(Arguments, pFormat);
  pSink(pObject, nLevel, pFormat, Arguments);
  va_end(Arguments);
}

}  // namespace lumbra
