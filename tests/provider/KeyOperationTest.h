#pragma once

#include "provider/ProviderTest.h"

namespace mirel::test {

/// What a test puts where a result may come, to see whether it was left alone.
[[nodiscard]] inline Bytes untouched() { return Bytes{{0x5A, 0xA5, 0x5A}}; }

[[nodiscard]] inline Bytes bytesLike(const Value& value) {
  return Bytes{std::vector<std::uint8_t>{value.begin(), value.end()}};
}
[[nodiscard]] inline Bytes zeros(std::size_t size) { return Bytes{std::vector<std::uint8_t>(size)}; }

/// Capital hexadecimal digits, as the module's calls show data.
[[nodiscard]] std::string hexOf(const Value& value);

/// Reading the default card's objects takes this many calls. Call 3 ends the search for keys and call 7 that
/// for certificates; calls 15 to 17 ask for the length of the key's modulus.
inline constexpr std::size_t kNumReadingCalls = 28;

/// A test with the card's session open, as kCardSession, and the user logged in.
class KeyOperationTest : public ProviderTest {
 protected:
  KeyOperationTest() { logIn(); }

  /// A provider whose session is open, with the user logged in. Forgets calls and log lines.
  void logIn();

  /// Puts another key in the place of the card's objects, with the ID "01". One with a modulus of more than
  /// 639 bytes is not listed.
  void useKey(std::size_t modulusLen, std::string_view label = "MyKey");
  /// The same for a key of a type without a mark of its own in the key's name.
  void useKeyOfAnotherType(std::size_t modulusLen);
  /// The same for a key on P-256.
  void useEcKey();

  /// The calls made so far, without those of reading the card's objects, which must come first. Forgets all.
  [[nodiscard]] std::vector<std::string> callsBehindTheReading();

  static inline const Text kKeyID{u"01"};
};

}  // namespace mirel::test
