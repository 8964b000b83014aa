#include "Convert.h"

#import <CryptoTokenKit/CryptoTokenKit.h>

#include <string>
#include <vector>

#include "Holder.h"
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

NSError* errorOf(const TKError& error) noexcept {
  if (error.platformError) return static_cast<const ObjCHolder<NSError>*>(error.platformError.get())->get();
  NSString* domain = error.domain == Text{kTKErrorDomain} ? TKErrorDomain : stringOf(error.domain);
  NSDictionary* userInfo = nil;
  if (!error.localizedDescription.isNull()) {
    userInfo = @{NSLocalizedDescriptionKey : stringOf(error.localizedDescription)};
  }
  return [NSError errorWithDomain:domain code:static_cast<NSInteger>(error.code) userInfo:userInfo];
}

TKError tkErrorOf(NSError* error) noexcept {
  // An absent description is not asked for: the platform would make one up.
  const id text = [[error userInfo] objectForKey:NSLocalizedDescriptionKey];
  return TKError{textOf([error domain]), [error code], textOfObject(text),
                 std::make_shared<const ObjCHolder<NSError>>(ObjCHolder<NSError>::retain(error))};
}

ErrorArgument::ErrorArgument(NSError** error, Before before) noexcept : error_{error} {
  if (error && before == Before::kShown && *error) before_ = tkErrorOf(*error);
  value_ = before_;
}

ErrorArgument::~ErrorArgument() {
  // The caller gets an object of its own, whatever becomes of the core's.
  if (error_ && value_ && value_ != before_)
    *error_ = ObjCHolder<NSError>::retain(errorOf(*value_)).autoreleased();
}

ErrorPlace::~ErrorPlace() {
  if (outError_ && error_) *outError_ = tkErrorOf(error_);
}

}  // namespace mirel
