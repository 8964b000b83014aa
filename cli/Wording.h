#pragma once

#include <string_view>

#include "host/Advice.h"

namespace mirel::cli {

/// The advice in words, with the command line's commands and options; empty when there is none.
[[nodiscard]] std::string_view wordsOf(const Advice& advice) noexcept;

}  // namespace mirel::cli
