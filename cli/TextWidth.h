#pragma once

#include <cstddef>
#include <string_view>

namespace mirel::cli {

/// The columns that a terminal takes for a text (UTF-8): two for a wide character of East Asia or a picture,
/// none for a mark that stands over, under or beside the character before it, and one for all others. From a
/// table of our own, so that it does not depend on the locale.
[[nodiscard]] std::size_t columnsOf(std::string_view utf8) noexcept;

/// As many of the first characters of a text (UTF-8) as fit in that many columns.
[[nodiscard]] std::string_view firstColumns(std::string_view utf8, std::size_t columns) noexcept;

}  // namespace mirel::cli
