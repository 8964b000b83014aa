#pragma once

/// What is used of CoreFoundation. Its references are Foundation objects; a null one where an object is
/// needed ends the program, as on the platform.

#import <Foundation/Foundation.h>

#ifdef __cplusplus
extern "C" {
#endif

NS_ASSUME_NONNULL_BEGIN

typedef const void* CFTypeRef;
typedef const struct __CFString* CFStringRef;
typedef const struct __CFData* CFDataRef;
typedef const struct __CFArray* CFArrayRef;
typedef const struct __CFDictionary* CFDictionaryRef;
typedef const struct __CFAllocator* CFAllocatorRef;
typedef const struct __CFURL* CFURLRef;
typedef struct __CFError* CFErrorRef;
typedef unsigned char UInt8;
typedef signed int SInt32;
typedef unsigned char Boolean;
typedef unsigned long CFOptionFlags;
typedef double CFTimeInterval;
#define CFSTR(text) ((CFStringRef) @text)

extern CFTypeRef CFRetain(CFTypeRef object);
extern void CFRelease(CFTypeRef object);

enum { kCFUserNotificationNoteAlertLevel = 1 };

/// Shows a message and waits for the user, for ever with a time-out of 0. Not 0 when it cannot.
extern SInt32 CFUserNotificationDisplayAlert(
    CFTimeInterval timeout, CFOptionFlags flags, CFURLRef _Nullable iconURL, CFURLRef _Nullable soundURL,
    CFURLRef _Nullable localizationURL, CFStringRef _Nullable alertHeader, CFStringRef _Nullable alertMessage,
    CFStringRef _Nullable defaultButtonTitle, CFStringRef _Nullable alternateButtonTitle,
    CFStringRef _Nullable otherButtonTitle, CFOptionFlags* responseFlags);

NS_ASSUME_NONNULL_END

#ifdef __cplusplus
}
#endif
