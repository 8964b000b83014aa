#import "Bases.h"

namespace mirel {

const PlatformServices& extensionServices() noexcept {
  static const PlatformServices services = newExtensionServices();
  return services;
}

}  // namespace mirel
