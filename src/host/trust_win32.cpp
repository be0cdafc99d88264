#include "host/trust.h"

namespace lumbra::host {

std::string WhyNotTrusted(const std::filesystem::path&, TrustedOwner) {
  return {};
}
std::string WhyStoreNotTrusted(const std::filesystem::path&) {
  return {};
}

Exposure ExposureOf(const std::filesystem::path&) {
  return {};
}

}  // namespace lumbra::host
