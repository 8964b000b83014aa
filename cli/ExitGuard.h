#pragma once

#include <memory>

#include "platform/CryptokiObserver.h"

namespace mirel::cli {

/// While there is one: when something calls `exit`, the process ends with kCardRefuses and a message instead
/// of the exit code that was given, with its terminal in order. Only the card's module calls `exit`; its code
/// would otherwise pass for ours. One for each process.
class ExitGuard {
 public:
  /// `json`: a program reads the message too.
  explicit ExitGuard(bool json) noexcept;
  ExitGuard(const ExitGuard&) = delete;
  ExitGuard& operator=(const ExitGuard&) = delete;
  ~ExitGuard();

  /// The program's exit code, which holds whatever the module does when it is unloaded. At the end of main.
  static void programEndsWith(int code) noexcept;

  /// Has the message name the call of the module that the process ended in.
  [[nodiscard]] static std::shared_ptr<CryptokiObserver> observer();
};

}  // namespace mirel::cli
