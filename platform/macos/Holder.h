#pragma once

/// Ownership of the platform's objects in C++, each in one small holder. For Objective-C++ with manual retain
/// and release; no other place calls retain or release.

#import <Foundation/Foundation.h>
#import <Security/Security.h>

#include <utility>

namespace mirel {

/// A strong reference to an Objective-C object, or nil.
template <typename Object>
class ObjCHolder {
 public:
  ObjCHolder() noexcept = default;
  ObjCHolder(const ObjCHolder& other) noexcept : object_{[other.object_ retain]} {}
  ObjCHolder(ObjCHolder&& other) noexcept : object_{std::exchange(other.object_, nil)} {}
  ObjCHolder& operator=(ObjCHolder other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }
  ~ObjCHolder() { [object_ release]; }

  /// Takes over what alloc, init, new or copy gave.
  [[nodiscard]] static ObjCHolder adopt(Object* object) noexcept {
    ObjCHolder holder;
    holder.object_ = object;
    return holder;
  }
  /// Shares what others own.
  [[nodiscard]] static ObjCHolder retain(Object* object) noexcept { return adopt([object retain]); }

  [[nodiscard]] Object* get() const noexcept { return object_; }
  /// Gives the reference up: the caller owns it.
  [[nodiscard]] Object* take() noexcept { return std::exchange(object_, nil); }
  /// The object for a caller who does not own it.
  [[nodiscard]] Object* autoreleased() noexcept { return [take() autorelease]; }

 private:
  Object* object_ = nil;
};

/// A reference to a Core Foundation object, or null.
template <typename Ref>
class CFHolder {
 public:
  CFHolder() noexcept = default;
  CFHolder(const CFHolder& other) noexcept : ref_{other.ref_} {
    if (ref_) CFRetain(ref_);
  }
  CFHolder(CFHolder&& other) noexcept : ref_{std::exchange(other.ref_, nullptr)} {}
  CFHolder& operator=(CFHolder other) noexcept {
    std::swap(ref_, other.ref_);
    return *this;
  }
  ~CFHolder() {
    if (ref_) CFRelease(ref_);
  }

  /// Takes over what a function with Create or Copy in its name gave.
  [[nodiscard]] static CFHolder adopt(Ref ref) noexcept {
    CFHolder holder;
    holder.ref_ = ref;
    return holder;
  }

  /// Shares what others own; null stays null.
  [[nodiscard]] static CFHolder retain(Ref ref) noexcept {
    if (ref) CFRetain(ref);
    return adopt(ref);
  }

  [[nodiscard]] Ref get() const noexcept { return ref_; }
  [[nodiscard]] explicit operator bool() const noexcept { return ref_ != nullptr; }

 private:
  Ref ref_ = nullptr;
};

}  // namespace mirel
