#pragma once

#include <vector>

#include "platform/DistributedNotificationCenter.h"

namespace mirel::test {

/// Keeps every notification that is posted.
class RecordingNotificationCenter final : public DistributedNotificationCenter {
 public:
  struct Notification {
    Text name;
    Text object;
    bool deliverImmediately = false;
  };

  void postNotificationName(const Text& name, const Text& object, bool deliverImmediately) noexcept override {
    posted.push_back({name, object, deliverImmediately});
  }

  std::vector<Notification> posted;
};

}  // namespace mirel::test
