#pragma once

#include <memory>
#include <string_view>

#include "platform/Text.h"

namespace mirel {

/// The extension's texts for its users, in their language: what the packaging folder's Localizable.strings
/// hold.
class LocalizedStrings {
 public:
  LocalizedStrings() = default;
  LocalizedStrings(const LocalizedStrings&) = delete;
  LocalizedStrings& operator=(const LocalizedStrings&) = delete;
  virtual ~LocalizedStrings() = default;

  /// The text of that key (ASCII); the key itself when there is none. Never null.
  [[nodiscard]] virtual Text localizedString(std::string_view key) noexcept = 0;
};

/// The English text of that key; the key itself when there is none.
[[nodiscard]] std::string_view englishString(std::string_view key) noexcept;

/// The texts of the running system. On Linux they follow LANGUAGE, LC_ALL, LC_MESSAGES and LANG whatever the
/// locale of the process, in which the system's own messages are. English when that language has none.
[[nodiscard]] std::shared_ptr<LocalizedStrings> systemLocalizedStrings();

}  // namespace mirel
