#pragma once

#include <optional>
#include <string>
#include <vector>

namespace mirel::test {

/// A message that was shown to the user.
struct ShownMessage {
  std::string title;
  std::string text;
  unsigned long level = 0;
  double timeout = 0;
};

/// An app that was made known to the system.
struct Registration {
  std::string path;
  bool update = false;
};

/// What the double's desktop was asked for since the last call of this function.
struct DesktopRequests {
  std::vector<ShownMessage> messages;
  std::vector<Registration> registrations;
};
[[nodiscard]] DesktopRequests takeDesktopRequests();

}  // namespace mirel::test
