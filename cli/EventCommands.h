#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace mirel::cli {

/// The user's own command, run by the shell for each event. Each run is a process group of its own and is not
/// waited for, so that one that does not end holds nothing up. Its standard input is empty, and its standard
/// output goes to standard error: ours has the events.
class EventCommands {
 public:
  /// The most that run at one time.
  static constexpr std::size_t kMost = 32;

  explicit EventCommands(std::string command) : command_{std::move(command)} {}
  EventCommands(const EventCommands&) = delete;
  EventCommands& operator=(const EventCommands&) = delete;
  /// Ends those that run: by SIGTERM, and after a while by SIGKILL. Tells the user of one that it may not
  /// end.
  ~EventCommands();

  /// Runs the command with EVENT, READER and SERIAL in its environment. The texts must be fit for a terminal:
  /// whoever writes such a command may show them.
  void run(const std::string& event, const std::string& reader, const std::string& serialNumber);

  /// Tells the user of those that have ended and failed.
  void takeLeave();

 private:
  struct Running {
    pid_t process;
    std::string what;     ///< "EVENT, reader "NAME""
    int whyNotEnded = 0;  ///< an errno
  };

  void waitForEnds(std::chrono::milliseconds most);

  std::string command_;
  std::vector<Running> running_;
};

}  // namespace mirel::cli
