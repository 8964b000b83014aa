#pragma once

#include <sys/types.h>

#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace mirel::test {

class PseudoTerminal;

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
  std::vector<std::string> arguments{};
  std::map<std::string, std::string> environment{};  ///< all of it; nothing is inherited
  std::string input{};
  bool inputIsClosed = false;  ///< the child is started without a standard input
  Output output = Output::kCaptured;
  unsigned short columns = 1000;  ///< of the terminal that Output::kTerminal is; 0: it does not say
  /// Pipes that the child finds at these descriptors (above 30), with these contents.
  std::map<int, std::string> pipes{};
  bool pipesStayOpen = false;  ///< until `RunningChild::wait`, so that the child waits for more
  /// Descriptors of ours, by the numbers (above 30) under which the child finds them; it gets no others.
  std::map<int, int> descriptors{};
  PseudoTerminal* terminal = nullptr;  ///< the child's controlling terminal; it has no other
  int signal = 0;                      ///< sent to the child, once ...
  std::filesystem::path signalFile{};  ///< ... there is this file
  bool keepsIgnoredSignals = false;    ///< those that end a program and are ignored here, as by nohup
};

struct Result {
  int exitCode = -1;  ///< 128 and the signal's number when a signal ended it
  std::string out;
  std::string err;
  std::map<int, std::string> leftInPipes{};
};

/// A program at work.
class RunningChild {
 public:
  /// Throws std::system_error when it cannot be started.
  explicit RunningChild(const Invocation& invocation);
  RunningChild(const RunningChild&) = delete;
  RunningChild& operator=(const RunningChild&) = delete;
  /// Ends it unless it was waited for.
  ~RunningChild();

  [[nodiscard]] pid_t pid() const noexcept;
  /// The process that the program has started; waits for it, for twenty seconds at most. Throws
  /// std::runtime_error when there is none.
  [[nodiscard]] pid_t worker() const;
  void writeToPipe(int descriptor, const std::string& text) const;

  /// Waits for its end, which is forced after a minute. Once only.
  [[nodiscard]] Result wait();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

/// Runs a program to its end, which is forced after a minute. Throws std::system_error when it cannot be
/// started.
[[nodiscard]] Result run(const Invocation& invocation);

}  // namespace mirel::test
