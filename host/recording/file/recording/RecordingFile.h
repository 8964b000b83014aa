#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "recording/RecordedCall.h"

namespace mirel::recording {

// The file format of recordings: lines of JSON, of which docs/json.md tells. The first is the header, and
// each other one has one record.

/// One line, with its end.
[[nodiscard]] std::string lineOf(const Header& header);
[[nodiscard]] std::string lineOf(const Record& record);

/// The whole file.
[[nodiscard]] std::string textOf(const Recording& recording);

/// What a file has come to.
struct ReadRecording {
  std::optional<Recording> recording;  ///< nothing: it was refused
  std::string refusal;                 ///< why, with the number of the line; empty where it was read
  bool isCutOff = false;               ///< the last line is not whole, as when a program ended while it wrote
};

/// The largest file that is read, in bytes.
inline constexpr std::size_t kLargestRecording = std::size_t{256} * 1024 * 1024;

/// The most values of JSON that are read of a file. A short one takes many times its size in memory.
inline constexpr std::size_t kMostValues = 16'000'000;

/// Reads the text of a file, which may be anybody's: what is not exactly as it is to be, or has more values
/// than a recording can have, is refused. A last line without an end is left out.
[[nodiscard]] ReadRecording readRecording(std::string_view text, std::size_t mostValues = kMostValues);

}  // namespace mirel::recording
