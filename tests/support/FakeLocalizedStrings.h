#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/LocalizedStrings.h"

namespace mirel::test {

/// Texts of the test's choice; a key without one is its own text, as on the platform.
class FakeLocalizedStrings final : public LocalizedStrings {
 public:
  [[nodiscard]] Text localizedString(std::string_view key) noexcept override {
    askedFor.emplace_back(key);
    const auto found = texts.find(std::string{key});
    return found == texts.end() ? Text::fromUtf8(key) : found->second;
  }

  std::map<std::string, Text> texts;
  /// Every key that was asked for.
  std::vector<std::string> askedFor;
};

}  // namespace mirel::test
