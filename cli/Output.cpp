#include "Output.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "TextWidth.h"
#include "Wording.h"
#include "platform/Hex.h"
#include "platform/Log.h"

namespace mirel::cli {
namespace {

std::atomic<bool> outputIsBegun{false};

using Rows = std::vector<std::vector<std::string>>;

std::string bold(const std::string& line, bool coloured) {
  return coloured ? "\x1b[1m" + line + "\x1b[0m" : line;
}

/// A block of lines for each row, with a blank line between them.
std::string blocksOf(const Rows& rows, bool coloured) {
  std::string lines;
  for (std::size_t row = 1; row < rows.size(); ++row) {
    if (row > 1) lines += '\n';
    bool isFirst = true;
    for (std::size_t i = 0; i < rows[row].size(); ++i) {
      if (rows[row][i].empty()) continue;
      const std::string name = i < rows.front().size() ? rows.front()[i] + ": " : std::string{};
      lines += isFirst ? bold(name + rows[row][i], coloured) : "  " + name + rows[row][i];
      lines += '\n';
      isFirst = false;
    }
  }
  return lines;
}

std::span<const std::uint8_t> bytesOf(std::string_view text) noexcept {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
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

std::size_t outputWidth() {
  constexpr std::size_t kUsual = 80;
  if (isatty(STDOUT_FILENO) == 0) return std::numeric_limits<std::size_t>::max();
  winsize size{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return kUsual;
  return size.ws_col;
}

std::string table(const std::vector<std::vector<std::string>>& rows, bool coloured, std::size_t width) {
  std::vector<std::size_t> widths;
  for (const auto& row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], columnsOf(row[i]));
  }
  std::string lines;
  for (const auto& row : rows) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      line += row[i];
      if (i + 1 < row.size()) line.append(widths[i] - columnsOf(row[i]) + 2, ' ');
    }
    if (columnsOf(line) > width && rows.size() > 1) return blocksOf(rows, coloured);
    lines += bold(line, coloured && &row == &rows.front());
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

bool writeAll(int descriptor, std::span<const std::uint8_t> data) noexcept {
  while (!data.empty()) {
    const ssize_t written = write(descriptor, data.data(), data.size());
    if (written >= 0) {
      data = data.subspan(static_cast<std::size_t>(written));
    } else if (errno == EAGAIN) {
      pollfd reader{descriptor, POLLOUT, 0};
      (void)poll(&reader, 1, -1);  // what is wrong there, the next write tells
    } else if (errno != EINTR) {
      return false;
    }
  }
  return true;
}

Result<void> writeOutput(std::string_view text) {
  outputIsBegun = true;
  if (writeAll(STDOUT_FILENO, bytesOf(text))) return {};
  return outputFailure(errno);
}

void writeMessage(std::string_view text) {
  const std::string line = printableLine(text) + "\n";
  (void)writeAll(STDERR_FILENO, bytesOf(line));  // there is nowhere else to tell it
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
