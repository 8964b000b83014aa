#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace mirel::test {

/// Where the standard output of a child process goes.
enum class Output {
  kCaptured,
  kTerminal,  ///< captured too, but a terminal to the child; line ends come as "\r\n"
  kClosed,    ///< the child is started without one
  kUnread,    ///< a pipe whose reader has gone
  kFull,      ///< a device on which no space is left
};

struct Invocation {
  std::filesystem::path program;
  std::vector<std::string> arguments;
  std::map<std::string, std::string> environment{};  ///< all of it; nothing is inherited
  std::string input{};
  Output output = Output::kCaptured;
  int signal = 0;                      ///< sent to the child, once ...
  std::filesystem::path signalFile{};  ///< ... there is this file
};

struct Result {
  int exitCode = -1;  ///< 128 and the signal's number when a signal ended it
  std::string out;
  std::string err;
};

/// Runs a program to its end, which is forced after a minute. Throws std::system_error when it cannot be
/// started.
[[nodiscard]] Result run(const Invocation& invocation);

}  // namespace mirel::test
