#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "platform/Text.h"

namespace mirel {

/// What the program needs of the user's desktop when it is the executable of an app.
class Desktop {
 public:
  Desktop() = default;
  Desktop(const Desktop&) = delete;
  Desktop& operator=(const Desktop&) = delete;
  virtual ~Desktop() = default;

  /// The path of the app's bundle, UTF-8; empty when the program is in none.
  [[nodiscard]] virtual std::string appPath() noexcept = 0;

  /// True when the user has opened the app, false when the program was started from a shell.
  [[nodiscard]] virtual bool appWasOpened() noexcept = 0;

  /// Makes the app, and the extensions in it, known to the system for this user. 0, or the system's error.
  [[nodiscard]] virtual std::int32_t registerApp() noexcept = 0;

  /// The user's wording of an English text (ASCII); the text itself when there is none. Never null.
  [[nodiscard]] virtual Text localized(std::string_view english) noexcept = 0;

  /// Shows a message to the user and waits until it was read. False when it cannot be shown.
  [[nodiscard]] virtual bool showMessage(const Text& title, const Text& text) noexcept = 0;
};

/// The desktop of the running system; null where programs are no apps.
[[nodiscard]] std::shared_ptr<Desktop> systemDesktop();

}  // namespace mirel
