#pragma once

/// What is used of CoreServices.

#import <CoreFoundation/CoreFoundation.h>

#ifdef __cplusplus
extern "C" {
#endif

NS_ASSUME_NONNULL_BEGIN

typedef SInt32 OSStatus;
enum { kLSUnknownErr = -10810 };

/// Makes an app known for this user; `update`: also when it is known already. 0, or an error.
extern OSStatus LSRegisterURL(CFURLRef url, Boolean update);

NS_ASSUME_NONNULL_END

#ifdef __cplusplus
}
#endif
