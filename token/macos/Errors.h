#pragma once

/// From the errors of the token framework to this system's and back.

#import <Foundation/Foundation.h>

#include <optional>

#include "token/TokenKit.h"

namespace mirel {

/// The platform's own object, for an error that it has reported. Nil when the platform makes none.
[[nodiscard]] NSError* errorOf(const TKError& error) noexcept;
/// `error` is not nil. It stays with what is returned.
[[nodiscard]] TKError tkErrorOf(NSError* error) noexcept;

/// An error out-argument of an Objective-C method of ours, for the time of one call into the core: what the
/// core sets is handed to the caller at the end.
class ErrorArgument {
 public:
  enum class Before { kIgnored, kShown };

  /// `error`: may be null, as the caller gave it. `before`: whether the core sees the error that is there
  /// already; most callers leave that undefined.
  explicit ErrorArgument(NSError** error, Before before = Before::kIgnored) noexcept;
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

/// The other way round: an error out-argument of the core, for the time of one call of an Objective-C method.
class ErrorPlace {
 public:
  /// `outError`: may be null.
  explicit ErrorPlace(TKErrorPointer outError) noexcept : outError_{outError} {}
  ErrorPlace(const ErrorPlace&) = delete;
  ErrorPlace& operator=(const ErrorPlace&) = delete;
  ~ErrorPlace();

  /// Null when the core gave none.
  [[nodiscard]] NSError** pointer() noexcept { return outError_ ? &error_ : nullptr; }

 private:
  TKErrorPointer outError_;
  NSError* error_ = nil;
};

}  // namespace mirel
