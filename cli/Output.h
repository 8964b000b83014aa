#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "ExitCode.h"
#include "host/Display.h"
#include "host/Result.h"
#include "platform/Bytes.h"
#include "platform/Text.h"

namespace mirel::cli {

using mirel::displayed;
using mirel::displayedAsLatin1;
using mirel::displayedName;

/// The text's characters as hexadecimal bytes, for texts of the card (U+0000 to U+00FF each).
[[nodiscard]] std::string hexOf(const Text& text);

/// The bytes as hexadecimal digits.
[[nodiscard]] std::string hexOf(const Bytes& bytes);

[[nodiscard]] std::string joinedWith(std::string_view separator, const std::vector<std::string>& parts);

/// True when standard output may be coloured: it is a terminal, and NO_COLOR is unset or empty.
[[nodiscard]] bool outputIsColoured();

/// The columns of the terminal that standard output is, 80 where it does not say; no limit for anything else.
[[nodiscard]] std::size_t outputWidth();

/// Rows of cells as lines with aligned columns. The first row is the heading, bold if `coloured`. Where a
/// line would have more than `width` columns, each row is a block of lines "HEADING: cell" instead, all but
/// the first indented; empty cells are left out, and the first line is the bold one.
[[nodiscard]] std::string table(const std::vector<std::vector<std::string>>& rows, bool coloured,
                                std::size_t width = outputWidth());

/// Why standard output cannot be written, for that errno.
[[nodiscard]] Failure outputFailure(int error);

/// Whether something was written to standard output, or tried to be.
[[nodiscard]] bool outputWasBegun() noexcept;

/// Writes all of `data`, waiting for the reader also where the descriptor does not block. False, with errno:
/// it cannot be written.
[[nodiscard]] bool writeAll(int descriptor, std::span<const std::uint8_t> data) noexcept;

/// Writes to standard output.
[[nodiscard]] Result<void> writeOutput(std::string_view text);

/// Writes a message as one line to standard error, waiting for its reader as `writeAll` does.
void writeMessage(std::string_view text);

/// The one line that tells the user of a failure.
[[nodiscard]] std::string failureLine(const Failure& failure);

/// Tells the user of the failure, unless it is that nobody reads any more. Returns the exit code that goes
/// with it.
[[nodiscard]] ExitCode report(const Failure& failure);

}  // namespace mirel::cli
