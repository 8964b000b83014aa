#include "Errors.h"

#import <CryptoTokenKit/CryptoTokenKit.h>

#include "Convert.h"
#include "Holder.h"
#include "TokenObjects.h"

namespace mirel {

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
                 std::make_shared<const ObjCHolder<NSError>>(ObjCHolder<NSError>::retain(error)),
                 descriptionOf(error)};
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
