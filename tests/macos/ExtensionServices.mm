#include "ExtensionServices.h"

#include <optional>

#import "CoreHolder.h"

namespace mirel {
namespace {

std::optional<PlatformServices>& replacement() noexcept {
  static std::optional<PlatformServices> services;
  return services;
}

}  // namespace

/// In the extension it is another one, without a replacement.
const PlatformServices& extensionServices() noexcept {
  static const PlatformServices services = systemServices();
  return replacement() ? *replacement() : services;
}

namespace test {

ScopedExtensionServices::ScopedExtensionServices(PlatformServices services) noexcept {
  replacement() = std::move(services);
}

ScopedExtensionServices::~ScopedExtensionServices() { replacement().reset(); }

}  // namespace test
}  // namespace mirel
