#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>

#include "platform/Text.h"

namespace mirel {

/// The three channels a line can go to. Lines are UTF-8, without a line end; texts of the card may
/// stand in them, so they can hold any character, NUL and control characters included, and every
/// sink must bring them to one printable line. No line ever holds a PIN.
class Log {
 public:
  Log() = default;
  Log(const Log&) = delete;
  Log& operator=(const Log&) = delete;
  virtual ~Log() = default;

  /// The system log at its default level.
  virtual void systemDefault(std::string_view line) noexcept = 0;
  /// The system log at error level.
  virtual void systemError(std::string_view line) noexcept = 0;
  /// The plain log of the process.
  virtual void process(std::string_view line) noexcept = 0;
};

/// The system log is the running system's; the process log is standard error.
[[nodiscard]] std::shared_ptr<Log> systemLog();

/// `line` with each control character, each that turns the direction of writing or ends a line, and each byte
/// that is not valid UTF-8, written as \xNN.
[[nodiscard]] std::string printableLine(std::string_view line);

/// True when `printableLine` leaves `line` as it is. Makes no copy of it.
[[nodiscard]] bool isPrintableLine(std::string_view line);

/// One argument of a log line, already as text.
class LogArgument {
 public:
  LogArgument(const char* text) : text_{text ? text : "(null)"} {}      // NOLINT(google-explicit-constructor)
  LogArgument(std::string_view text) : text_{text} {}                   // NOLINT(google-explicit-constructor)
  LogArgument(const std::string& text) : text_{text} {}                 // NOLINT(google-explicit-constructor)
  LogArgument(const Text& text) : text_{text.orNullMark().toUtf8()} {}  // NOLINT(google-explicit-constructor)
  template <typename Integer, std::enable_if_t<std::is_integral_v<Integer>, int> = 0>
  LogArgument(Integer number) : text_{std::to_string(number)} {}  // NOLINT(google-explicit-constructor)

  [[nodiscard]] const std::string& text() const noexcept { return text_; }

 private:
  std::string text_;
};

/// A log format: "%s", "%d", "%hhd", "%lu", "%lX" and "%@" each stand for the next argument, whatever its
/// type. That there are as many conversions as arguments is checked when the program is compiled.
template <typename... Args>
class LogFormat {
 public:
  consteval LogFormat(const char* format) : format_{format} {  // NOLINT(google-explicit-constructor)
    std::size_t conversions = 0;
    for (const char* c = format; *c != '\0'; ++c) conversions += *c == '%' ? 1U : 0U;
    if (conversions != sizeof...(Args)) throw "the format does not have one conversion for each argument";
  }
  [[nodiscard]] std::string_view format() const noexcept { return format_; }

 private:
  std::string_view format_;
};

[[nodiscard]] std::string filledLogLine(std::string_view format,
                                        std::initializer_list<LogArgument> arguments);

/// The line that `format` makes of the arguments.
template <typename... Args>
[[nodiscard]] std::string logLine(LogFormat<std::type_identity_t<Args>...> format, const Args&... args) {
  return filledLogLine(format.format(), {LogArgument{args}...});
}

}  // namespace mirel
