#pragma once

#import <Foundation/Foundation.h>

#include <utility>

#include "Guard.h"
#include "Holder.h"

namespace mirel {

/// An object in the middle of its initialiser, which owns it: released at the end unless it is taken.
template <typename Object>
class Initialisation {
 public:
  explicit Initialisation(Object* allocated) noexcept : object_{ObjCHolder<Object>::adopt(allocated)} {}

  /// `super`: sends the base initialiser to the object that it is given. True when there is an object then,
  /// which may be another one. A base initialiser that gives nil has let go of the object; of one that raises
  /// nobody knows what it has left, so the object is not touched again.
  template <typename Super>
  [[nodiscard]] bool runSuper(Super&& super) noexcept {
    Object* const allocated = object_.take();
    object_ = guarded("the object is not made",
                      [&] { return ObjCHolder<Object>::adopt(static_cast<Object*>(super(allocated))); });
    return object_.get() != nil;
  }

  /// Has the platform send the object what it sends to delegates.
  void becomeOwnDelegate() noexcept {
    guarded("the object gets no requests", [&] { [object_.get() setDelegate:object_.get()]; });
  }

  /// Nil after a base initialiser that has failed.
  [[nodiscard]] Object* get() const noexcept { return object_.get(); }
  [[nodiscard]] Object* take() noexcept { return object_.take(); }

 private:
  ObjCHolder<Object> object_;
};

}  // namespace mirel
