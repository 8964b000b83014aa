#pragma once

#include "platform/PlatformServices.h"

namespace mirel::test {

/// What the extension's objects get instead of the services of the running system, as long as it lives. One
/// at a time.
class ScopedExtensionServices {
 public:
  explicit ScopedExtensionServices(PlatformServices services) noexcept;
  ScopedExtensionServices(const ScopedExtensionServices&) = delete;
  ScopedExtensionServices& operator=(const ScopedExtensionServices&) = delete;
  ~ScopedExtensionServices();
};

}  // namespace mirel::test
