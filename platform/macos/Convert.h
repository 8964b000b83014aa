#pragma once

/// From the platform's values to this system's and back. Nil is a null value, and the other way round; so is
/// what the platform raises over. Texts keep every code unit, U+0000 included; byte strings every byte. What
/// is made for the platform is autoreleased.

#import <Foundation/Foundation.h>

#include <memory>

#include "platform/Bytes.h"
#include "platform/SecretText.h"
#include "platform/Text.h"

namespace mirel {

[[nodiscard]] Text textOf(NSString* string) noexcept;
/// Null too for an object that is no string.
[[nodiscard]] Text textOfObject(id object) noexcept;
[[nodiscard]] NSString* stringOf(const Text& text) noexcept;

[[nodiscard]] Bytes bytesOf(NSData* data) noexcept;
[[nodiscard]] NSData* dataOf(const Bytes& bytes) noexcept;

/// A copy of the string's content that is wiped when it ends; the string itself is the platform's.
[[nodiscard]] std::shared_ptr<const SecretText> secretOf(NSString* string) noexcept;

/// What the platform prints for an object; "(null)" for nil.
[[nodiscard]] Text descriptionOf(id object) noexcept;

}  // namespace mirel
