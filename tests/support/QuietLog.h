#pragma once

#include <string_view>

#include "platform/Log.h"

namespace mirel::test {

/// Keeps nothing, so several threads may write to it at once.
class QuietLog final : public Log {
 public:
  void systemDefault(std::string_view) noexcept override {}
  void systemError(std::string_view) noexcept override {}
  void process(std::string_view) noexcept override {}
};

}  // namespace mirel::test
