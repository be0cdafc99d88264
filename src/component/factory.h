// Makes instances for the host, and knows the shared one.
#pragma once

#include <cstdint>

#include "lumbra/lumbra.h"

namespace lumbra {

// The HostFactory of all three interface ids: answers a LumbraInstance, or null for any other id and when
// there is no memory. The shared instance is made for its first request; each request of it counts a
// reference with the host.
void* LumbraFactory(std::uint32_t nIgnored, HostObject* pRequester, std::uint32_t nInterfaceId);

// The instance is the shared one no longer, if it was.
void ForgetSharedInstance(const LumbraInstance* pInstance);

}  // namespace lumbra
