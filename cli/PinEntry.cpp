#include "PinEntry.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <span>

#include "Output.h"
#include "Terminal.h"
#include "platform/SecretBytes.h"
#include "platform/Text.h"

namespace mirel::cli {
namespace {

using Pin = Outcome<std::shared_ptr<const SecretText>>;

constexpr std::size_t kLongestPin = 256;  // bytes; no card takes as many

Failure pinFileFailure(const std::string& name, const std::string& why, const std::string& whatToDo) {
  return {FailureKind::kFileTrouble, "the PIN cannot be read from " + name, why, whatToDo};
}

std::string nameOfDescriptor(int descriptor) { return "file descriptor " + std::to_string(descriptor); }

/// True for UTF-8 without control characters: what can be handed on as it is.
bool isText(std::span<const std::uint8_t> bytes) {
  const bool controlled =
      std::any_of(bytes.begin(), bytes.end(), [](std::uint8_t byte) { return byte < 0x20 || byte == 0x7F; });
  return !controlled && isValidUtf8(bytes);
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
  if (!isText({line.data(), size})) {
    return pinFileFailure(name, "its first line is no text in UTF-8", "put the PIN there, and nothing else");
  }
  return SecretText::fromUtf8({line.data(), size});
}

class PinFile final : public PinSource {
 public:
  explicit PinFile(std::string name) : name_{std::move(name)} {}

  Pin askForPin(const std::string&) override {
    const int descriptor = open(name_.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (descriptor < 0)
      return pinFileFailure(name_, std::strerror(errno), "check the name given with --pin-file");
    Pin pin = refusal(descriptor);
    if (!std::holds_alternative<Failure>(pin)) pin = readPin(descriptor, name_);
    (void)close(descriptor);
    return pin;
  }
  void showRefusal(const std::string&) override {}
  bool canAskAgain() const override { return false; }

 private:
  /// A failure when somebody else could know what is in the file.
  [[nodiscard]] Pin refusal(int descriptor) const {
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
    return std::shared_ptr<const SecretText>{};
  }

  std::string name_;
};

class PinDescriptor final : public PinSource {
 public:
  explicit PinDescriptor(int descriptor) : descriptor_{descriptor} {}

  Pin askForPin(const std::string&) override { return readPin(descriptor_, nameOfDescriptor(descriptor_)); }
  void showRefusal(const std::string&) override {}
  bool canAskAgain() const override { return false; }

 private:
  int descriptor_;
};

class PinPrompt final : public PinSource {
 public:
  explicit PinPrompt(std::function<std::string()> pinState) : pinState_{std::move(pinState)} {}

  Pin askForPin(const std::string& tokenLabel) override {
    std::string prompt = "PIN for \"" + tokenLabel + "\"";
    if (const std::string state = pinState_(); !state.empty()) prompt.append(" (").append(state).append(")");
    SecretBytes<kLongestPin> line;
    std::size_t size = 0;
    switch (promptForSecret(prompt.append(": "), line, size)) {
      case PromptResult::kEntered:
        if (isText({line.data(), size})) return SecretText::fromUtf8({line.data(), size});
        return Failure{FailureKind::kPinWrong, "the PIN was not tried",
                       "what was entered is no text in UTF-8", "set the terminal to UTF-8"};
      case PromptResult::kCancelled: return std::shared_ptr<const SecretText>{};
      case PromptResult::kNoTerminal: break;
    }
    return Failure{FailureKind::kCancelled, "no PIN was given", "there is no terminal to ask at",
                   "give it with --pin-file or --pin-fd"};
  }
  void showRefusal(const std::string& text) override { writeMessage("mireltoken: " + text); }
  bool canAskAgain() const override { return true; }

 private:
  std::function<std::string()> pinState_;
};

}  // namespace

std::unique_ptr<PinSource> pinSourceFor(const Options& options, std::function<std::string()> pinState) {
  if (options.pinFile) return std::make_unique<PinFile>(*options.pinFile);
  if (options.pinFd) return std::make_unique<PinDescriptor>(*options.pinFd);
  return std::make_unique<PinPrompt>(std::move(pinState));
}

std::optional<Failure> pinDescriptorTrouble(const Options& options) {
  if (!options.pinFd) return std::nullopt;
  if (isatty(*options.pinFd) != 0) {
    return Failure{FailureKind::kBadInput, "wrong usage",
                   nameOfDescriptor(*options.pinFd) + " is a terminal, which would show the PIN",
                   "leave out --pin-fd to be asked for it"};
  }
  if (fcntl(*options.pinFd, F_GETFD) != -1) return std::nullopt;
  return pinFileFailure(nameOfDescriptor(*options.pinFd), std::strerror(errno), "check that it can be read");
}

}  // namespace mirel::cli
