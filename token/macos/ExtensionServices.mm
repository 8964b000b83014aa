#import "CoreHolder.h"

#include "platform/SlowCalls.h"

namespace mirel {

const PlatformServices& extensionServices() noexcept {
  static const PlatformServices services = [] {
    PlatformServices own = systemServices();
    own.observer = slowCallObserver(own.log);
    return own;
  }();
  return services;
}

}  // namespace mirel
