#include "KeyValue.h"

#include <algorithm>

#include "bridge/cryptoki.h"
#include "platform/Hex.h"

namespace mirel {
namespace {

using ByteSpan = std::span<const std::uint8_t>;

ByteSpan withoutZeros(ByteSpan number) {
  while (!number.empty() && number.front() == 0) number = number.subspan(1);
  return number;
}

/// The point of a CKA_EC_POINT, which some modules wrap (PKCS #11, section 2.3.3) and some do not. The header
/// of the wrapping begins like an uncompressed point, so what it would wrap has to begin like a point, too.
ByteSpan pointIn(ByteSpan value) {
  const auto wraps = [&](std::size_t headerSize) {
    return value.size() > headerSize && value[0] == 0x04 &&
           value[headerSize - 1] == value.size() - headerSize && value[headerSize] >= 0x02 &&
           value[headerSize] <= 0x04;
  };
  if (wraps(2)) return value.subspan(2);
  return wraps(3) && value[1] == 0x81 ? value.subspan(3) : value;
}

bool areEqual(ByteSpan a, ByteSpan b) { return std::equal(a.begin(), a.end(), b.begin(), b.end()); }

/// A point may be compressed (SEC 1, section 2.3.3), then the x coordinate alone can be compared.
bool areSamePoint(ByteSpan a, ByteSpan b) {
  constexpr std::uint8_t kUncompressed = 0x04;
  if (a.empty() || b.empty()) return false;
  if ((a[0] == kUncompressed) == (b[0] == kUncompressed)) return areEqual(a, b);
  const ByteSpan full = a[0] == kUncompressed ? a : b;
  const ByteSpan compressed = a[0] == kUncompressed ? b : a;
  return full.size() == 2 * compressed.size() - 1 &&
         areEqual(full.subspan(1, compressed.size() - 1), compressed.subspan(1));
}

}  // namespace

KeyValue valueOf(const CardObject& publicKey) {
  const bool isRsa = publicKey.keyType == CKK_RSA;
  return {isRsa, isRsa ? withoutZeros(publicKey.publicValue) : pointIn(publicKey.publicValue)};
}

KeyValue valueOf(const CertificateFields& certificate) {
  const bool isRsa = !certificate.modulus.empty();
  return {isRsa, isRsa ? ByteSpan{certificate.modulus} : ByteSpan{certificate.publicKeyBits}};
}

bool areSame(const KeyValue& a, const KeyValue& b) {
  if (a.isRsa != b.isRsa) return false;
  return a.isRsa ? areEqual(a.value, b.value) : areSamePoint(a.value, b.value);
}

std::string textOf(const KeyValue& key) {
  constexpr std::size_t kShownBytes = 4;
  const ByteSpan tail = key.value.last(std::min(key.value.size(), kShownBytes));
  return std::string{key.isRsa ? "an RSA modulus" : "an EC point"} + " of " +
         std::to_string(key.value.size()) + (key.value.size() == 1 ? " byte" : " bytes") +
         " that ends with " + hexOfBytes(tail, HexDigits::kLower);
}

}  // namespace mirel
