#include "Terminal.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/select.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <utility>

#include "Worker.h"

namespace mirel::cli {
namespace {

constexpr std::uint8_t kCtrlC = 0x03;
constexpr std::uint8_t kCtrlD = 0x04;
constexpr std::uint8_t kBackspace = 0x08;
constexpr std::uint8_t kCtrlU = 0x15;
constexpr std::uint8_t kEscape = 0x1B;
constexpr std::uint8_t kFirstPrintable = 0x20;
constexpr std::uint8_t kDelete = 0x7F;

constexpr std::array kEndingSignals{SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGABRT, SIGALRM, SIGXCPU};

// For the handlers of signals, which can be given nothing.
std::atomic<int> savedDescriptor{-1};  // -1: the terminal is as it was
termios savedSettings{};
std::array<struct sigaction, kEndingSignals.size()> savedActions{};

void restoreTerminal() noexcept {
  if (savedDescriptor >= 0) (void)tcsetattr(savedDescriptor, TCSANOW, &savedSettings);
}

/// Puts the terminal right, then lets the signal do what it would have done.
void restoreAndRaise(int signal) {
  restoreTerminal();
  for (std::size_t i = 0; i < kEndingSignals.size(); ++i) {
    if (kEndingSignals[i] == signal) (void)sigaction(signal, &savedActions[i], nullptr);
  }
  (void)raise(signal);
}

/// A terminal without echo, line editing and keys that send signals, for its lifetime.
class QuietTerminal {
 public:
  explicit QuietTerminal(int descriptor) : descriptor_{descriptor} {
    if (tcgetattr(descriptor, &savedSettings) != 0) return;
    // To be stopped here would leave the shell a terminal without echo.
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    (void)sigaction(SIGTSTP, &ignore, &savedStop_);
    struct sigaction action {};
    action.sa_handler = restoreAndRaise;
    for (std::size_t i = 0; i < kEndingSignals.size(); ++i) {
      (void)sigaction(kEndingSignals[i], &action, &savedActions[i]);
      // A signal that is ignored, as by nohup, stays so: it must not bring the echo back.
      if (savedActions[i].sa_handler == SIG_IGN)
        (void)sigaction(kEndingSignals[i], &savedActions[i], nullptr);
    }
    savedDescriptor = descriptor;
    noteTerminal(savedSettings);
    termios quiet = savedSettings;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO | ICANON | ISIG);
    quiet.c_cc[VMIN] = 1;
    quiet.c_cc[VTIME] = 0;
    ready_ = tcsetattr(descriptor, TCSAFLUSH, &quiet) == 0;
    restored_ = false;
  }
  QuietTerminal(const QuietTerminal&) = delete;
  QuietTerminal& operator=(const QuietTerminal&) = delete;
  ~QuietTerminal() {
    if (restored_) return;
    (void)tcsetattr(descriptor_, TCSAFLUSH, &savedSettings);
    savedDescriptor = -1;
    forgetTerminal();
    (void)sigaction(SIGTSTP, &savedStop_, nullptr);
    for (std::size_t i = 0; i < kEndingSignals.size(); ++i) {
      (void)sigaction(kEndingSignals[i], &savedActions[i], nullptr);
    }
  }

  [[nodiscard]] bool ready() const noexcept { return ready_; }

 private:
  int descriptor_;
  struct sigaction savedStop_ {};
  bool ready_ = false;
  bool restored_ = true;
};

void say(int descriptor, const std::string& text) { (void)!write(descriptor, text.data(), text.size()); }

/// Takes back the last character, which may be several bytes of UTF-8.
void takeBack(std::span<std::uint8_t> room, std::size_t& size) {
  while (size > 0) {
    const bool continuation = (room[--size] & 0xC0U) == 0x80U;
    room[size] = 0;
    if (!continuation) return;
  }
}

bool moreComesAtOnce(int descriptor) {
  constexpr int kMilliseconds = 100;  // more than a terminal takes between the bytes of one key
  pollfd waiting{descriptor, POLLIN, 0};
  return poll(&waiting, 1, kMilliseconds) > 0;
}

/// Sorts out what keys without a character send: escape sequences (ECMA-48, section 5.4), "ESC O" and a
/// character, and "ESC [ [" and a character.
class KeySequence {
 public:
  /// True when the byte belongs to a sequence. `moreFollows`: whether another byte comes right behind an
  /// escape; only asked there, because the Escape key sends no more.
  template <typename MoreFollows>
  [[nodiscard]] bool takes(std::uint8_t byte, const MoreFollows& moreFollows) {
    const State before = std::exchange(state_, State::kNone);
    if (byte == kEscape) {
      if (moreFollows()) state_ = State::kAfterEscape;
      return true;
    }
    if (byte < kFirstPrintable || byte == kDelete) return false;  // a control key ends the sequence
    switch (before) {
      case State::kNone: return false;
      case State::kLastCharacter: return true;
      case State::kAfterEscape:
        if (byte == '[') state_ = State::kControl;
        if (byte == 'O') state_ = State::kLastCharacter;
        return true;
      case State::kControl:
        if (byte == '[')
          state_ = State::kLastCharacter;
        else if (byte < 0x40)
          state_ = State::kParameters;
        return true;
      case State::kParameters:
        if (byte < 0x40) state_ = State::kParameters;
        return true;
    }
    return false;
  }

 private:
  enum class State { kNone, kAfterEscape, kControl, kParameters, kLastCharacter };
  State state_ = State::kNone;
};

/// Waits for a key; false when the alarm came first.
bool waitForKey(int descriptor, int alarm) {
  if (alarm < 0 || std::max(descriptor, alarm) >= FD_SETSIZE) return true;
  while (true) {
    // Not poll, which knows no terminals on some systems.
    fd_set inputs;
    FD_ZERO(&inputs);
    FD_SET(descriptor, &inputs);
    FD_SET(alarm, &inputs);
    const int count = select(std::max(descriptor, alarm) + 1, &inputs, nullptr, nullptr, nullptr);
    if (count < 0 && errno == EINTR) continue;
    return count <= 0 || !FD_ISSET(alarm, &inputs);
  }
}

PromptResult readSecret(int descriptor, std::span<std::uint8_t> room, std::size_t& outSize, int alarm) {
  outSize = 0;
  KeySequence sequence;
  while (true) {
    if (!waitForKey(descriptor, alarm)) return PromptResult::kInterrupted;
    SecretBytes<1> next;
    const ssize_t count = read(descriptor, next.data(), 1);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return PromptResult::kCancelled;
    if (sequence.takes(next.data()[0], [&] { return moreComesAtOnce(descriptor); })) continue;
    switch (const std::uint8_t byte = next.data()[0]; byte) {
      case '\r':
      case '\n': return PromptResult::kEntered;
      case kCtrlC:
      case kCtrlD: return PromptResult::kCancelled;
      case kBackspace:
      case kDelete: takeBack(room, outSize); break;
      case kCtrlU:
        wipe(room.data(), outSize);
        outSize = 0;
        break;
      default:
        // Other control keys, such as Ctrl-Z, are no part of a PIN: taken for one they would cost a try.
        if (byte >= kFirstPrintable && outSize < room.size()) room[outSize++] = byte;
    }
  }
}

}  // namespace

PromptResult promptForSecret(const std::string& prompt, std::span<std::uint8_t> room, std::size_t& outSize,
                             int alarm) {
  const int descriptor = open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY);
  if (descriptor < 0) return PromptResult::kNoTerminal;
  PromptResult result = PromptResult::kNoTerminal;
  {
    const QuietTerminal quiet{descriptor};
    if (quiet.ready()) {
      say(descriptor, prompt);
      result = readSecret(descriptor, room, outSize, alarm);
      say(descriptor, "\n");
    }
  }
  (void)close(descriptor);
  return result;
}

}  // namespace mirel::cli
