#include "Convert.h"

#include <string>
#include <vector>

#include "platform/Memory.h"

namespace mirel {
namespace {

std::u16string unitsOf(NSString* string) {
  std::u16string units([string length], u'\0');
  static_assert(sizeof(unichar) == sizeof(char16_t));
  [string getCharacters:reinterpret_cast<unichar*>(units.data()) range:NSMakeRange(0, units.size())];
  return units;
}

NSString* stringOfUnits(std::u16string_view units) noexcept {
  return [NSString stringWithCharacters:reinterpret_cast<const unichar*>(units.data()) length:units.size()];
}

}  // namespace

Text textOf(NSString* string) noexcept { return string ? Text{unitsOf(string)} : Text{}; }

Text textOfObject(id object) noexcept {
  return [object isKindOfClass:[NSString class]] ? textOf(static_cast<NSString*>(object)) : Text{};
}

NSString* stringOf(const Text& text) noexcept { return text.isNull() ? nil : stringOfUnits(text.units()); }

Bytes bytesOf(NSData* data) noexcept {
  if (!data) return {};
  const auto* first = static_cast<const std::uint8_t*>([data bytes]);
  return Bytes{std::vector<std::uint8_t>{first, first + [data length]}};
}

NSData* dataOf(const Bytes& bytes) noexcept {
  return bytes.isNull() ? nil : [NSData dataWithBytes:bytes.view().data() length:bytes.size()];
}

std::shared_ptr<const SecretText> secretOf(NSString* string) noexcept {
  if (!string) return nullptr;
  std::u16string units = unitsOf(string);
  auto secret = std::make_shared<const SecretText>(units);
  wipe(units.data(), units.size() * sizeof(char16_t));
  return secret;
}

}  // namespace mirel
