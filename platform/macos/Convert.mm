#include "Convert.h"

#include <string>
#include <vector>

#include "Guard.h"
#include "platform/Memory.h"

namespace mirel {
namespace {

std::u16string unitsOf(NSString* string) {
  std::u16string units([string length], u'\0');
  static_assert(sizeof(unichar) == sizeof(char16_t));
  [string getCharacters:reinterpret_cast<unichar*>(units.data()) range:NSMakeRange(0, units.size())];
  return units;
}

}  // namespace

Text textOf(NSString* string) noexcept {
  return guarded("a text is not read", [&] { return string ? Text{unitsOf(string)} : Text{}; });
}

Text textOfObject(id object) noexcept {
  return [object isKindOfClass:[NSString class]] ? textOf(static_cast<NSString*>(object)) : Text{};
}

NSString* stringOf(const Text& text) noexcept {
  if (text.isNull()) return nil;
  return guarded("a text is not handed on", [units = text.units()] {
    return [NSString stringWithCharacters:reinterpret_cast<const unichar*>(units.data()) length:units.size()];
  });
}

Bytes bytesOf(NSData* data) noexcept {
  if (!data) return {};
  return guarded("data are not read", [&] {
    const auto* first = static_cast<const std::uint8_t*>([data bytes]);
    return Bytes{std::vector<std::uint8_t>{first, first + [data length]}};
  });
}

NSData* dataOf(const Bytes& bytes) noexcept {
  if (bytes.isNull()) return nil;
  return guarded("data are not handed on",
                 [&] { return [NSData dataWithBytes:bytes.view().data() length:bytes.size()]; });
}

std::shared_ptr<const SecretText> secretOf(NSString* string) noexcept {
  if (!string) return nullptr;
  std::u16string units;  // filled in place: a string that is moved leaves a short text behind
  const bool isRead = guarded("the PIN is not read", [&] {
    units.resize([string length]);
    [string getCharacters:reinterpret_cast<unichar*>(units.data()) range:NSMakeRange(0, units.size())];
    return true;
  });
  auto secret = isRead ? std::make_shared<const SecretText>(units) : nullptr;
  wipe(units.data(), units.size() * sizeof(char16_t));
  return secret;
}

Text descriptionOf(id object) noexcept {
  @autoreleasepool {
    NSString* text = guarded("an object is not printed", [&] { return [object description]; });
    return textOf(text).orNullMark();
  }
}

}  // namespace mirel
