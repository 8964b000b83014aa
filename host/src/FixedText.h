#pragma once

#include <cstddef>
#include <span>

#include "bridge/cryptoki.h"
#include "platform/Text.h"

namespace mirel {

/// Fixed-width text of the module without the blanks and zeros at its end.
[[nodiscard]] inline Text trimmed(std::span<const CK_UTF8CHAR> field) {
  const auto isPadding = [](CK_UTF8CHAR c) { return c == ' ' || c == 0; };
  std::size_t length = field.size();
  while (length > 0 && isPadding(field[length - 1])) --length;
  return Text::fromBytes(field.first(length));
}

}  // namespace mirel
