#include "Output.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Wording.h"
#include "platform/Hex.h"
#include "platform/Log.h"

namespace mirel::cli {
namespace {

std::atomic<bool> outputIsBegun{false};

/// Characters of a UTF-8 text; close enough to columns for aligning.
std::size_t widthOf(std::string_view utf8) {
  return static_cast<std::size_t>(std::count_if(
      utf8.begin(), utf8.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0U) != 0x80U; }));
}

}  // namespace

std::string hexOf(const Text& text) {
  ByteVector bytes;
  for (const char16_t unit : text.units()) bytes.push_back(static_cast<std::uint8_t>(unit & 0xFFU));
  return hexOfBytes(bytes, HexDigits::kUpper);
}

std::string hexOf(const Bytes& bytes) { return hexOfBytes(bytes.view(), HexDigits::kUpper); }

std::string joinedWith(std::string_view separator, const std::vector<std::string>& parts) {
  std::string all;
  for (std::size_t i = 0; i < parts.size(); ++i) {
    if (i > 0) all += separator;
    all += parts[i];
  }
  return all;
}

bool outputIsColoured() {
  const char* noColour = std::getenv("NO_COLOR");
  return isatty(STDOUT_FILENO) != 0 && (!noColour || *noColour == '\0');
}

std::string table(const std::vector<std::vector<std::string>>& rows, bool coloured) {
  std::vector<std::size_t> widths;
  for (const auto& row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], widthOf(row[i]));
  }
  std::string lines;
  for (const auto& row : rows) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      line += row[i];
      if (i + 1 < row.size()) line.append(widths[i] - widthOf(row[i]) + 2, ' ');
    }
    const bool heading = &row == &rows.front();
    lines += heading && coloured ? "\x1b[1m" + line + "\x1b[0m" : line;
    lines += '\n';
  }
  return lines;
}

Failure outputFailure(int error) {
  return {error == EPIPE ? FailureKind::kOutputUnread : FailureKind::kOutputFailure,
          "standard output cannot be written", std::strerror(error),
          "check where it goes and the space left there"};
}

bool outputWasBegun() noexcept { return outputIsBegun; }

Result<void> writeOutput(std::string_view text) {
  outputIsBegun = true;
  if (std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0) return {};
  return outputFailure(errno);
}

void writeMessage(std::string_view text) {
  const std::string line = printableLine(text) + "\n";
  (void)std::fwrite(line.data(), 1, line.size(), stderr);  // there is nowhere else to tell it
}

std::string failureLine(const Failure& failure) {
  std::string line = "mireltoken: " + failure.what;
  if (!failure.why.empty()) line += ": " + failure.why;
  if (const auto advice = wordsOf(failure.advice); !advice.empty()) line.append("; ").append(advice);
  return line;
}

ExitCode report(const Failure& failure) {
  if (failure.kind != FailureKind::kOutputUnread) writeMessage(failureLine(failure));
  return exitCodeOf(failure.kind);
}

}  // namespace mirel::cli
