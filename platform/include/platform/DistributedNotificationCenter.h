#pragma once

#include <memory>

#include "platform/Text.h"

namespace mirel {

/// Broadcasts notifications to the other processes of the same user.
class DistributedNotificationCenter {
 public:
  DistributedNotificationCenter() = default;
  DistributedNotificationCenter(const DistributedNotificationCenter&) = delete;
  DistributedNotificationCenter& operator=(const DistributedNotificationCenter&) = delete;
  virtual ~DistributedNotificationCenter() = default;

  /// Posts the notification `name` with a text as its object (null: none) and no user information.
  /// Does not wait for delivery; where nothing can carry it, it is dropped without a word.
  virtual void postNotificationName(const Text& name, const Text& object,
                                    bool deliverImmediately) noexcept = 0;
};

/// The notification centre of the running system.
[[nodiscard]] std::shared_ptr<DistributedNotificationCenter> systemDistributedNotificationCenter();

}  // namespace mirel
