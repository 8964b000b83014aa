#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "platform/SecretBytes.h"

namespace mirel::cli {

enum class PromptResult { kEntered, kCancelled, kInterrupted, kNoTerminal };

/// Asks at the controlling terminal, without echo. Return ends the entry; Ctrl-C, Ctrl-D and the end of the
/// terminal cancel it; Backspace takes back a character, Ctrl-U all. Other control keys, what keys such as
/// the arrows and F1 send, the marks around a paste, and what exceeds `room`, are not taken. The terminal is
/// as before afterwards, also when a signal ends the process. `outSize`: bytes entered (UTF-8 where the
/// terminal speaks it); only for kEntered. The caller wipes `room`. `alarm`: a descriptor of which input
/// ends the entry as well (kInterrupted); -1: none.
[[nodiscard]] PromptResult promptForSecret(const std::string& prompt, std::span<std::uint8_t> room,
                                           std::size_t& outSize, int alarm);

template <std::size_t Size>
[[nodiscard]] PromptResult promptForSecret(const std::string& prompt, SecretBytes<Size>& room,
                                           std::size_t& outSize, int alarm) {
  return promptForSecret(prompt, std::span{room.data(), Size}, outSize, alarm);
}

}  // namespace mirel::cli
