#include "PinEntry.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <span>

#include "Output.h"
#include "Terminal.h"
#include "host/Finding.h"
#include "host/Host.h"
#include "platform/SecretBytes.h"
#include "platform/Text.h"

namespace mirel::cli {
namespace {

using Pin = Result<std::shared_ptr<const SecretText>>;

constexpr std::size_t kLongestPin = 256;  // bytes; no card takes as many
constexpr const char* kNotSent = "the PIN was not sent to the card";
constexpr Advice kEnterIt = "enter the PIN at the terminal, or use --last-try";

Failure pinFileFailure(const std::string& name, const std::string& why, const Advice& advice) {
  return {FailureKind::kFileFailure, "the PIN cannot be read from " + name, why, advice};
}

std::string nameOfDescriptor(int descriptor) { return "file descriptor " + std::to_string(descriptor); }

/// Whether the first line of that file is taken for a PIN.
Result<void> checkLine(std::span<const std::uint8_t> line, const std::string& name) {
  const auto refused = [&](const char* why) {
    return pinFileFailure(name, why, "put the PIN there, and nothing else");
  };
  constexpr std::array<std::uint8_t, 3> kByteOrderMark{0xEF, 0xBB, 0xBF};
  if (line.size() >= kByteOrderMark.size() &&
      std::equal(kByteOrderMark.begin(), kByteOrderMark.end(), line.begin())) {
    return refused("its first line begins with a byte order mark");
  }
  const auto has = [&](auto isOne) { return std::any_of(line.begin(), line.end(), isOne); };
  if (has([](std::uint8_t byte) { return byte == ' ' || byte == '\t'; })) {
    return refused("its first line has blanks or tabs");
  }
  if (has([](std::uint8_t byte) { return byte < 0x20 || byte == 0x7F; })) {
    return refused("its first line has control characters");
  }
  if (!isValidUtf8(line)) return refused("its first line is no text in UTF-8");
  return {};
}

/// The first line of what the descriptor gives, byte by byte so that nothing behind it is taken.
Pin readPin(int descriptor, const std::string& name) {
  SecretBytes<kLongestPin> line;
  std::size_t size = 0;
  while (true) {
    SecretBytes<1> next;
    const ssize_t count = read(descriptor, next.data(), 1);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return pinFileFailure(name, std::strerror(errno), "check that it can be read");
    if (count == 0 && size == 0) {
      return Failure{FailureKind::kCancelled, "no PIN was given", name + " is empty", "put the PIN there"};
    }
    if (count == 0 || next.data()[0] == '\n') break;
    if (size == kLongestPin) {
      return pinFileFailure(name, "its first line has more than 256 bytes",
                            "put the PIN there, and nothing else");
    }
    line.data()[size++] = next.data()[0];
  }
  if (size > 0 && line.data()[size - 1] == '\r') --size;
  if (const auto taken = checkLine({line.data(), size}, name); !taken) return taken.failure();
  return SecretText::fromUtf8({line.data(), size});
}

/// Looks at what the card says about its PIN before one is asked for.
class CheckedPins : public PinSource {
 public:
  explicit CheckedPins(PinStateReader pinState) : pinState_{std::move(pinState)} {}

  Pin askForPin(const std::string& card) final {
    const Result<PinState> state = pinState_();
    const auto failedAs = [&](FailureKind kind) { return !state && state.failure().kind == kind; };
    if (failedAs(FailureKind::kCardGone) || failedAs(FailureKind::kAnotherCard)) return state.failure();
    if (state && !state->obstacle.empty()) {
      return Failure{
          FailureKind::kPinCannotBeEntered, "the PIN of this card cannot be entered here", state->obstacle,
          state->enteredAtReader
              ? "use a card or a reader that takes the PIN from the computer"
              : "change it to at most 8 ASCII characters, or ask the card's issuer for a card that "
                "allows that"};
    }
    return askFor(card, state);
  }

 protected:
  /// Whether the card says that its last try is left, and has not said so before.
  [[nodiscard]] bool cameToLastTry(const Result<PinState>& before) const {
    const auto isLast = [](const Result<PinState>& state) {
      return state && state->tries == PinState::Tries::kLast;
    };
    return !isLast(before) && isLast(pinState_());
  }
  /// Whether it has had more tries: then another program has sent a wrong PIN since.
  [[nodiscard]] static bool hadMoreTries(const Result<PinState>& before) {
    return before && (before->tries == PinState::Tries::kNoWord || before->tries == PinState::Tries::kFewer);
  }

 private:
  /// `state`: what the card says, or why that is not known.
  [[nodiscard]] virtual Pin askFor(const std::string& card, const Result<PinState>& state) = 0;

  PinStateReader pinState_;
};

/// A source with nobody who could be warned: it leaves the last try to the user.
class UnattendedPins : public CheckedPins {
 public:
  UnattendedPins(PinStateReader pinState, bool lastTry)
      : CheckedPins{std::move(pinState)}, lastTry_{lastTry} {}

  void showRefusal(const std::string&) final {}
  bool canAskAgain() const final { return false; }

 private:
  Pin askFor(const std::string&, const Result<PinState>& state) final {
    if (const auto safe = lastTry_ ? Result<void>{} : checkTries(state); !safe) return safe.failure();
    Pin pin = readIt();
    if (!pin || !mayWait() || lastTry_ || !cameToLastTry(state)) return pin;
    return Failure{FailureKind::kPinHeldBack, kNotSent,
                   "another program has sent a wrong PIN while it was awaited: " +
                       std::string{entryOf(FindingID::kPinLastTry).title},
                   kEnterIt};
  }

  /// Whether a wrong PIN would leave the user a try.
  static Result<void> checkTries(const Result<PinState>& state) {
    if (!state) {
      return Failure{
          FailureKind::kCardRefuses, kNotSent,
          "whether it could lock the card is not known, because " + state.failure().why,
          "run again; where that does not help, check that the card is in the reader, enter the PIN at the "
          "terminal, or use --last-try"};
    }
    switch (state->tries) {
      case PinState::Tries::kLast: return Failure{FailureKind::kPinHeldBack, kNotSent, state->text, kEnterIt};
      case PinState::Tries::kNone:
        return Failure{FailureKind::kPinHeldBack, kNotSent, state->text,
                       "unlock it with the PUK, have the card's issuer unlock it, or use --last-try"};
      case PinState::Tries::kNoWord:
      case PinState::Tries::kFewer: break;
    }
    return {};
  }

  [[nodiscard]] virtual Pin readIt() = 0;
  /// Whether the PIN may take its time to come.
  [[nodiscard]] virtual bool mayWait() const { return false; }

  bool lastTry_;
};

class PinFile final : public UnattendedPins {
 public:
  PinFile(std::string name, PinStateReader pinState, bool lastTry)
      : UnattendedPins{std::move(pinState), lastTry}, name_{std::move(name)} {}

  [[nodiscard]] Result<void> check() {
    const Pin pin = readIt();
    return pin ? Result<void>{} : pin.failure();
  }

 private:
  Pin readIt() override {
    const int descriptor = open(name_.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (descriptor < 0)
      return pinFileFailure(name_, std::strerror(errno), "check the name given with --pin-file");
    const auto secret = checkSecrecy(descriptor);
    Pin pin = secret ? readPin(descriptor, name_) : Pin{secret.failure()};
    (void)close(descriptor);
    return pin;
  }

  /// Whether nobody else could know what is in the file.
  [[nodiscard]] Result<void> checkSecrecy(int descriptor) const {
    struct stat status {};
    if (fstat(descriptor, &status) != 0) return pinFileFailure(name_, std::strerror(errno), "check the file");
    if (!S_ISREG(status.st_mode)) {
      return pinFileFailure(name_, "it is no regular file", "use --pin-fd for pipes and the like");
    }
    if (status.st_uid != geteuid()) {
      return pinFileFailure(name_, "it belongs to somebody else", "put the PIN into a file of your own");
    }
    if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
      return pinFileFailure(name_, "others can read or change it", "run: chmod 600 on it");
    }
    return {};
  }

  std::string name_;
};

class PinDescriptor final : public UnattendedPins {
 public:
  PinDescriptor(int descriptor, PinStateReader pinState, bool lastTry)
      : UnattendedPins{std::move(pinState), lastTry}, descriptor_{descriptor} {}

 private:
  Pin readIt() override { return readPin(descriptor_, nameOfDescriptor(descriptor_)); }
  bool mayWait() const override { return true; }

  int descriptor_;
};

class PinPrompt final : public CheckedPins {
 public:
  PinPrompt(PinStateReader pinState, CardGuard guard)
      : CheckedPins{std::move(pinState)}, guard_{std::move(guard)} {}

  void showRefusal(const std::string& text) override { writeMessage("mireltoken: " + text); }
  bool canAskAgain() const override { return true; }

 private:
  Pin askFor(const std::string& card, const Result<PinState>& state) override {
    {  // so that one which is not sent is not kept while another one is entered
      Pin pin = promptFor(card, state);
      if (!pin || !*pin || !cameToLastTry(state)) return pin;
    }
    showRefusal(std::string{kNotSent} + (hadMoreTries(state)
                                             ? ": another program has sent a wrong PIN while it was entered"
                                             : ": the card tells of its last try only now"));
    return promptFor(
        card,
        PinState{PinState::Tries::kLast, false, std::string{entryOf(FindingID::kPinLastTry).title}, {}});
  }

  [[nodiscard]] Pin promptFor(const std::string& card, const Result<PinState>& state) const {
    std::string prompt = "PIN for " + card;
    const std::string remark = state ? state->text : "whether tries are left is not known";
    if (!remark.empty()) prompt.append(" (").append(remark).append(")");
    SecretBytes<kLongestPin> line;
    std::size_t size = 0;
    const auto alarm = guard_.watch();
    switch (promptForSecret(prompt.append(": "), line, size, alarm->descriptor())) {
      case PromptResult::kEntered: return SecretText::fromUtf8({line.data(), size});
      case PromptResult::kCancelled: return std::shared_ptr<const SecretText>{};
      case PromptResult::kInterrupted: return guard_.whyGone();
      case PromptResult::kNoTerminal: break;
    }
    return Failure{FailureKind::kCancelled, "no PIN was given", "there is no terminal to ask at",
                   "give it with --pin-file or --pin-fd"};
  }

  CardGuard guard_;
};

}  // namespace

CardGuard guardOf(std::shared_ptr<CardService> service, const Text& reader) {
  return {[service = std::move(service), reader] { return std::make_unique<CardAlarm>(service, reader); },
          [reader] { return cardSeenGoing(reader); }};
}

std::unique_ptr<PinSource> pinSourceFor(const Options& options, PinStateReader pinState, CardGuard guard) {
  if (options.pinFile) {
    return std::make_unique<PinFile>(*options.pinFile, std::move(pinState), options.lastTry);
  }
  if (options.pinFd) {
    return std::make_unique<PinDescriptor>(*options.pinFd, std::move(pinState), options.lastTry);
  }
  return std::make_unique<PinPrompt>(std::move(pinState), std::move(guard));
}

Result<void> checkPinFile(const Options& options) {
  return options.pinFile ? PinFile{*options.pinFile, {}, options.lastTry}.check() : Result<void>{};
}

Result<void> checkPinDescriptor(const Options& options) {
  if (!options.pinFd) return {};
  if (isatty(*options.pinFd) != 0) {
    return Failure{FailureKind::kWrongUsage, "wrong usage",
                   nameOfDescriptor(*options.pinFd) + " is a terminal, which would show the PIN",
                   "leave out --pin-fd to be asked for it"};
  }
  if (fcntl(*options.pinFd, F_GETFD) != -1) return {};
  return pinFileFailure(nameOfDescriptor(*options.pinFd), std::strerror(errno), "check that it can be read");
}

}  // namespace mirel::cli
