#import "CoreHolder.h"

namespace mirel {

const PlatformServices& extensionServices() noexcept {
  static const PlatformServices services = systemServices();
  return services;
}

}  // namespace mirel
