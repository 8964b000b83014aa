#pragma once

/// From the platform's values to this system's and back. Nil is a null value, and the other way round. Texts
/// keep every code unit, U+0000 included; byte strings every byte. What is made for the platform is
/// autoreleased.

#import <Foundation/Foundation.h>

#include <memory>
#include <optional>

#include "platform/Text.h"
#include "platform/TokenKit.h"

namespace mirel {

[[nodiscard]] Text textOf(NSString* string) noexcept;
/// Null too for an object that is no string.
[[nodiscard]] Text textOfObject(id object) noexcept;
[[nodiscard]] NSString* stringOf(const Text& text) noexcept;

[[nodiscard]] Bytes bytesOf(NSData* data) noexcept;
[[nodiscard]] NSData* dataOf(const Bytes& bytes) noexcept;

/// A copy of the string's content that is wiped when it ends; the string itself is the platform's.
[[nodiscard]] std::shared_ptr<const SecretText> secretOf(NSString* string) noexcept;

[[nodiscard]] NSError* errorOf(const TKError& error) noexcept;
/// `error` is not nil. Of its user information only the description is taken.
[[nodiscard]] TKError tkErrorOf(NSError* error) noexcept;

/// An error out-argument of an Objective-C method, for the time of one call into the core: the core sees the
/// error that is there, and what it sets is handed to the caller at the end.
class ErrorArgument {
 public:
  /// `error`: may be null, as the caller gave it.
  explicit ErrorArgument(NSError** error) noexcept;
  ErrorArgument(const ErrorArgument&) = delete;
  ErrorArgument& operator=(const ErrorArgument&) = delete;
  ~ErrorArgument();

  /// Null when the caller gave none.
  [[nodiscard]] TKErrorPointer pointer() noexcept { return error_ ? &value_ : nullptr; }

 private:
  NSError** error_;
  std::optional<TKError> before_;
  std::optional<TKError> value_;
};

}  // namespace mirel
