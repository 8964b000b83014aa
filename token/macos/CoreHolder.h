#pragma once

#include <memory>

#include "platform/PlatformServices.h"

namespace mirel {

/// What the extension's objects work with: always the same.
[[nodiscard]] const PlatformServices& extensionServices() noexcept;

/// The token layer's part of an Objective-C object, whose instance variable it is: there as soon as the
/// object has been allocated, whichever initialiser runs.
template <typename Core>
class CoreHolder {
 public:
  CoreHolder() noexcept : core_{std::make_shared<Core>(extensionServices())} {}

  [[nodiscard]] Core* operator->() const noexcept { return core_.get(); }
  [[nodiscard]] const std::shared_ptr<Core>& shared() const noexcept { return core_; }

 private:
  std::shared_ptr<Core> core_;
};

}  // namespace mirel
