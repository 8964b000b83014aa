#include "Errors.h"

#import <CryptoTokenKit/CryptoTokenKit.h>

#include "Convert.h"
#include "Guard.h"
#include "Holder.h"

namespace mirel {

NSError* errorOf(const TKError& error) noexcept {
  if (error.platformError) return static_cast<const ObjCHolder<NSError>*>(error.platformError.get())->get();
  NSString* domain = error.domain == Text{kTKErrorDomain} ? TKErrorDomain : stringOf(error.domain);
  NSString* text = stringOf(error.localizedDescription);
  return guarded("an error is not handed on", [&] {
    NSDictionary* userInfo = text ? @{NSLocalizedDescriptionKey : text} : nil;
    return [NSError errorWithDomain:domain code:static_cast<NSInteger>(error.code) userInfo:userInfo];
  });
}

TKError tkErrorOf(NSError* error) noexcept {
  TKError read;
  guarded("an error is not read", [&] {
    read.domain = textOf([error domain]);
    read.code = [error code];
    // An absent description is not asked for: the platform would make one up.
    read.localizedDescription = textOfObject([[error userInfo] objectForKey:NSLocalizedDescriptionKey]);
  });
  read.platformError = std::make_shared<const ObjCHolder<NSError>>(ObjCHolder<NSError>::retain(error));
  read.description = descriptionOf(error);
  return read;
}

ErrorArgument::ErrorArgument(NSError** error, Before before) noexcept : error_{error} {
  if (error && before == Before::kShown && *error) before_ = tkErrorOf(*error);
  value_ = before_;
}

ErrorArgument::~ErrorArgument() {
  // The caller gets an object of its own, whatever becomes of the core's.
  if (!error_ || !value_ || value_ == before_) return;
  if (NSError* error = errorOf(*value_)) *error_ = ObjCHolder<NSError>::retain(error).autoreleased();
}

ErrorPlace::~ErrorPlace() {
  if (outError_ && error_) *outError_ = tkErrorOf(error_);
}

}  // namespace mirel
