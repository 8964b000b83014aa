#pragma once

/// What a scripted card holds: plain data that a test may build and change at will.

#include <map>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "bridge/cryptoki.h"

namespace mirel::test {

/// The value of an attribute.
using Value = std::vector<CK_BYTE>;

/// The characters, without a terminator.
[[nodiscard]] Value bytesOf(std::string_view text);
/// Capital hexadecimal digits.
[[nodiscard]] std::string hexText(std::span<const CK_BYTE> bytes);
/// The bytes of a CK_ULONG, as CKA_CLASS and CKA_KEY_TYPE hold it.
[[nodiscard]] Value ulongValue(CK_ULONG number);
/// The one byte of a CK_BBOOL.
[[nodiscard]] Value boolValue(bool truth);
/// `size` bytes that differ from their neighbours and, with another seed, from other such values.
[[nodiscard]] Value patternValue(std::size_t size, CK_BYTE seed);

/// Fills a text field of a Cryptoki structure: blank padded, not terminated, cut off at its size.
template <std::size_t Size>
void setField(CK_BYTE (&field)[Size], std::string_view text) {
  for (std::size_t i = 0; i < Size; ++i) field[i] = i < text.size() ? static_cast<CK_BYTE>(text[i]) : ' ';
}

/// An object on a card. Reading a sensitive attribute answers CKR_ATTRIBUTE_SENSITIVE.
struct Object {
  std::map<CK_ATTRIBUTE_TYPE, Value> attributes;
  std::set<CK_ATTRIBUTE_TYPE> sensitive;

  /// A copy with that attribute added, replaced or removed.
  [[nodiscard]] Object with(CK_ATTRIBUTE_TYPE type, Value value) const;
  [[nodiscard]] Object without(CK_ATTRIBUTE_TYPE type) const;

  [[nodiscard]] bool isPrivate() const;
};

[[nodiscard]] Object rsaPublicKey(Value id, Value label, Value modulus);
[[nodiscard]] Object rsaPrivateKey(Value id, Value label, Value modulus);
/// `point`: as the module gives it, wrapped in a DER OCTET STRING.
[[nodiscard]] Object ecPublicKey(Value id, Value label, Value params, Value point);
[[nodiscard]] Object ecPrivateKey(Value id, Value label, Value params);
/// `der`: any bytes, unless somebody parses them.
[[nodiscard]] Object certificate(Value id, Value label, Value der);

/// The domain parameters of P-256 (RFC 5480, section 2.1.1.1): its object identifier.
[[nodiscard]] Value p256Params();
/// Those of P-384.
[[nodiscard]] Value p384Params();
/// A point of the size that P-256 has, uncompressed and wrapped: 67 bytes.
[[nodiscard]] Value p256Point(CK_BYTE seed);

// ---- What stands in for cryptography ----

/// The "signature" of the data: `length` bytes that differ with the mechanism and with each byte of the
/// data (byte i is data[i % size] exclusive-or mechanism + i + i / 256).
[[nodiscard]] Value resultOf(CK_MECHANISM_TYPE mechanism, const Value& data, std::size_t length);

/// The "cipher text" of `plain` for a key with a modulus of `modulusLen` bytes (11 more than `plain` has, or
/// more): the padded block of RFC 8017, section 7.2.1, with a filler of FF, and not encrypted.
[[nodiscard]] Value cipherOf(const Value& plain, std::size_t modulusLen = 256);

/// A card: what its slot calls the token.
struct Card {
  CK_TOKEN_INFO info{};
  std::string pin = "123456";
  unsigned triesLeft = 3;
  /// Whether private objects can be seen only after the user's login, as on most cards.
  bool privateObjectsNeedLogin = true;
  bool loggedIn = false;
  /// In the order in which searches find them.
  std::map<CK_OBJECT_HANDLE, Object> objects;
};

/// An initialised card with that label and serial number (flags 0x40D) and no objects.
[[nodiscard]] Card emptyCard(std::string_view label, std::string_view serialNumber);

}  // namespace mirel::test
