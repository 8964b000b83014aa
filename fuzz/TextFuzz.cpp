// Texts of cards and of people: encodings, what is shown, names of algorithms and keys, PKCS #11 URIs, PINs
// from a file descriptor. The first byte of the input says which; the rest is the text.

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <string>
#include <vector>

#include "Check.h"
#include "Input.h"
#include "Options.h"
#include "PinEntry.h"
#include "Presentable.h"
#include "TextWidth.h"
#include "host/AlgorithmNames.h"
#include "host/Display.h"
#include "host/KeyChoice.h"
#include "host/NearestName.h"
#include "host/Pkcs11Uri.h"
#include "platform/Hex.h"
#include "platform/Log.h"
#include "platform/SecretText.h"
#include "platform/Utf.h"

namespace mirel::fuzz {
namespace {

using ByteSpan = std::span<const std::uint8_t>;

ByteSpan bytesOf(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

/// RFC 3629, section 4, written as its grammar stands there.
bool isUtf8(ByteSpan bytes) {
  const auto tail = [&](std::size_t i, std::uint8_t low, std::uint8_t high) {
    return i < bytes.size() && bytes[i] >= low && bytes[i] <= high;
  };
  for (std::size_t i = 0; i < bytes.size();) {
    const std::uint8_t first = bytes[i];
    const std::uint8_t low = first == 0xE0 ? 0xA0 : first == 0xF0 ? 0x90 : 0x80;
    const std::uint8_t high = first == 0xED ? 0x9F : first == 0xF4 ? 0x8F : 0xBF;
    const std::size_t size = first < 0x80   ? 1
                             : first < 0xC2 ? 0
                             : first < 0xE0 ? 2
                             : first < 0xF0 ? 3
                             : first < 0xF5 ? 4
                                            : 0;
    if (size == 0 || (size > 1 && !tail(i + 1, low, high))) return false;
    for (std::size_t k = 2; k < size; ++k) {
      if (!tail(i + k, 0x80, 0xBF)) return false;
    }
    i += size;
  }
  return true;
}

void tryEncodings(const std::string& text) {
  const bool isValid = isUtf8(bytesOf(text));
  check(isValidUtf8(bytesOf(text)) == isValid, "UTF-8 is told from what is none");
  const std::string again = Text::fromUtf8(text).toUtf8();
  check(isUtf8(bytesOf(again)), "what is written is UTF-8");
  check((again == text) == isValid, "UTF-8 is kept, and nothing else");
  std::size_t size = 0;
  for (std::string_view rest = text; !rest.empty();) {
    const DecodedCharacter next = decodedFromUtf8(rest);
    check(next.size >= 1 && next.size <= 4 && next.character <= 0x10FFFF,
          "a character has one to four bytes");
    size += next.size;
    rest.remove_prefix(next.size);
  }
  check(size == text.size(), "every byte belongs to a character");

  const auto secret = SecretText::fromUtf8(bytesOf(text));
  std::vector<std::uint8_t> copied(again.size() + 1);
  copied.resize(secret->copyUtf8(copied));
  check(std::equal(copied.begin(), copied.end(), again.begin(), again.end(),
                   [](std::uint8_t a, char b) { return a == static_cast<std::uint8_t>(b); }),
        "a secret text is the same text");
}

/// Code units of UTF-16, two bytes each.
void tryUnits(const std::string& text) {
  std::u16string units;
  for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
    units.push_back(static_cast<char16_t>(static_cast<std::uint8_t>(text[i]) << 8U |
                                          static_cast<std::uint8_t>(text[i + 1])));
  }
  const Text made{units};
  check(isUtf8(bytesOf(made.toUtf8())), "any code units can be written as UTF-8");
  for (const std::string& shown :
       {displayed(made), displayedName(made), displayedAsLatin1(made), idText(made)})
    checkShown(shown, "code units that are displayed");
}

void tryDisplay(const std::string& text) {
  const Text bytes = Text::fromBytes(bytesOf(text));
  for (const std::string& shown :
       {displayed(text), displayed(bytes), displayedName(bytes), displayedAsLatin1(bytes)}) {
    checkShown(shown, "a text that is displayed");
    check(cli::columnsOf(shown) <= 2 * shown.size(), "a character has two columns at most");
  }
  (void)cli::columnsOf(text);  // any bytes will do
  check(idText(bytes).size() == 2 * text.size(), "an ID has two digits for each byte");
  const std::string line = printableLine(text);
  check(isPrintableLine(line) && isUtf8(bytesOf(line)), "a line of the log is printable");
  check(isPrintableLine(text) == (line == text), "what is printable stays as it is");
}

void tryHex(const std::string& text) {
  const std::string upper = hexOfBytes(bytesOf(text), HexDigits::kUpper);
  check(upper.size() == 2 * text.size(), "a byte has two digits");
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto high = valueOfHexDigit(upper[2 * i]);
    const auto low = valueOfHexDigit(upper[2 * i + 1]);
    check(high && low && (*high << 4U | *low) == static_cast<std::uint8_t>(text[i]),
          "digits stand for the byte");
  }
  std::uint64_t number = 0;
  for (std::size_t i = 0; i < std::min<std::size_t>(text.size(), 8); ++i)
    number = number << 8U | static_cast<std::uint8_t>(text[i]);
  std::array<char, 20> expected{};
  (void)std::snprintf(expected.data(), expected.size(), "%llX", static_cast<unsigned long long>(number));
  check(hexOfNumber(number, HexDigits::kUpper) == expected.data(), "a number is printed as printf does it");
}

// ---- Names ----

void tryNames(const std::string& text) {
  for (const auto operation : {KeyOperation::kSign, KeyOperation::kDecrypt, KeyOperation::kExchangeKeys}) {
    if (const auto found = algorithmNamed(text, operation))
      check(algorithmNamed(nameOf(*found), operation) == found, "an algorithm is found by its own name");
  }
  const std::vector<std::string> names{"readers", "items", "sign", "decrypt", "doctor", ""};
  const std::string near = nearestName(text, names);
  check(near.empty() || std::find(names.begin(), names.end(), near) != names.end(),
        "one of the names is near");
  if (const auto key = checkKeyName(text); !key) checkFailure(key.failure());
}

/// Takes much longer than all else: every name is compared.
void trySuggestion(const std::string& text) {
  const std::string suggested = suggestedAlgorithm(text);
  if (!suggested.empty()) checkOneLine(suggested, "an algorithm that may be meant");
}

std::string percentEncoded(std::string_view value) {
  std::string text;
  for (const char c : value) text += "%" + hexOfBytes(bytesOf({&c, 1}), HexDigits::kUpper);
  return text;
}

/// The same URI again, with every byte of every value percent-encoded.
std::string uriOf(const Pkcs11Uri& uri) {
  std::vector<std::string> parts;
  const auto add = [&](const char* name, const std::optional<std::string>& value) {
    if (value) parts.push_back(std::string{name} + "=" + percentEncoded(*value));
  };
  add("id", uri.id);
  add("object", uri.object);
  add("token", uri.token);
  add("serial", uri.serial);
  add("manufacturer", uri.manufacturer);
  add("model", uri.model);
  add("slot-description", uri.slotDescription);
  if (uri.slotID) parts.push_back("slot-id=" + std::to_string(*uri.slotID));
  constexpr const char* kTypes[] = {"public", "private", "cert", "secret-key", "data"};
  if (uri.type) parts.push_back(std::string{"type="} + kTypes[static_cast<std::size_t>(*uri.type)]);
  std::string text = "pkcs11:";
  for (const std::string& part : parts) text += (text.back() == ':' ? "" : ";") + part;
  return text;
}

void tryUri(const std::string& text) {
  const auto uri = parsePkcs11Uri("pkcs11:" + text);
  if (uri) {
    const auto again = parsePkcs11Uri(uriOf(*uri));
    check(again && uriOf(*again) == uriOf(*uri), "a URI that is written anew says the same");
  } else {
    checkFailure(uri.failure());
  }
  constexpr std::string_view kPin = "q7Zk2x9W";
  const auto withPin = parsePkcs11Uri("pkcs11:" + text + "?pin-value=" + std::string{kPin});
  check(!withPin, "a URI with a PIN is refused");
  checkFailure(withPin.failure());
  const bool isTold = (withPin.failure().what + withPin.failure().why).find(kPin) != std::string::npos;
  check(!isTold || text.find(kPin) != std::string::npos, "the PIN of a URI is not told");
}

// ---- PINs ----

/// Both ends of a pipe, closed at the end.
class Pipe {
 public:
  Pipe() { check(pipe(ends_.data()) == 0, "there is a pipe"); }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;
  ~Pipe() {
    (void)close(ends_[0]);
    closeWriting();
  }
  void fill(const std::string& text) {
    check(write(ends_[1], text.data(), text.size()) == static_cast<ssize_t>(text.size()),
          "a pipe takes the text");
    closeWriting();
  }
  [[nodiscard]] int reading() const { return ends_[0]; }

 private:
  void closeWriting() {
    if (ends_[1] >= 0) (void)close(ends_[1]);
    ends_[1] = -1;
  }

  std::array<int, 2> ends_{-1, -1};
};

void tryPin(const std::string& text) {
  Pipe given;
  given.fill(text);
  cli::Options options;
  options.pinFd = given.reading();
  const auto source = cli::pinSourceFor(
      options, [] { return Result<PinState>{PinState{}}; }, cli::CardGuard{});
  const auto pin = source->askForPin("a card");
  if (!pin) return checkFailure(pin.failure());
  check(*pin && !(*pin)->isNull(), "a descriptor cannot cancel");
  std::string line = text.substr(0, text.find('\n'));
  if (line.ends_with('\r')) line.pop_back();
  std::vector<std::uint8_t> copied(text.size() + 1);
  copied.resize((*pin)->copyUtf8(copied));
  check(std::string(copied.begin(), copied.end()) == line, "the PIN is the first line");
}

}  // namespace

void runTarget(Input& input) {
  const std::size_t kind = input.below(64);
  const std::string text{input.rest().begin(), input.rest().end()};
  constexpr std::size_t kNumKinds = 8;
  constexpr std::size_t kNumQuick = 6;  // the others are done an eighth as often as each of these
  switch (kind < kNumKinds ? kind : kind % kNumQuick) {
    case 0: return tryEncodings(text);
    case 1: return tryUnits(text);
    case 2: return tryDisplay(text);
    case 3: return tryHex(text);
    case 4: return tryNames(text);
    case 5: return tryUri(text);
    case 6: return trySuggestion(text);
    default: return tryPin(text);
  }
}

}  // namespace mirel::fuzz
