#pragma once

#include <string>

namespace mirel::test {

/// A terminal with us in the place of the user. Everything waits for twenty seconds at most.
class PseudoTerminal {
 public:
  /// Throws std::system_error when there is none to be had.
  PseudoTerminal();
  PseudoTerminal(const PseudoTerminal&) = delete;
  PseudoTerminal& operator=(const PseudoTerminal&) = delete;
  ~PseudoTerminal();

  /// The name that a process opens.
  [[nodiscard]] const std::string& name() const noexcept { return name_; }

  /// Waits until the text was shown that many times. False when it was not.
  [[nodiscard]] bool waitFor(const std::string& text, int times = 1);

  void type(const std::string& keys) const;
  /// Waits until all that was typed has been read, and a little longer. False when it was not read.
  [[nodiscard]] bool waitUntilRead() const;

  /// All that was shown so far, with "\r\n" for the end of a line.
  [[nodiscard]] const std::string& shown();

  /// All settings of the terminal, to be compared with others.
  [[nodiscard]] std::string settings() const;
  [[nodiscard]] bool echoes() const;

 private:
  void read(int milliseconds);

  int ours_ = -1;
  int theirs_ = -1;  // held open, so that the terminal outlives the process that uses it
  std::string name_;
  std::string shown_;
};

}  // namespace mirel::test
