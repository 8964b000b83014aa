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
typedef const struct __CFNumber* CFNumberRef;
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
typedef signed long CFIndex;
typedef unsigned long CFTypeID;
typedef CFIndex CFNumberType;

enum { kCFNumberSInt32Type = 3, kCFNumberSInt64Type = 4, kCFNumberIntType = 9 };

#define CFSTR(text) ((CFStringRef) @text)

extern const CFAllocatorRef _Nullable kCFAllocatorDefault;

extern CFTypeRef CFRetain(CFTypeRef object);
extern void CFRelease(CFTypeRef object);
extern CFIndex CFGetRetainCount(CFTypeRef object);
extern Boolean CFEqual(CFTypeRef one, CFTypeRef other);

extern CFTypeID CFGetTypeID(CFTypeRef object);
extern CFTypeID CFStringGetTypeID(void);
extern CFTypeID CFDataGetTypeID(void);
extern CFTypeID CFNumberGetTypeID(void);
extern CFTypeID CFArrayGetTypeID(void);
extern CFTypeID CFDictionaryGetTypeID(void);

extern CFDataRef _Nullable CFDataCreate(CFAllocatorRef _Nullable allocator, const UInt8* _Nullable bytes,
                                        CFIndex length);
extern const UInt8* _Nullable CFDataGetBytePtr(CFDataRef data);
extern CFIndex CFDataGetLength(CFDataRef data);

extern const void* _Nullable CFDictionaryGetValue(CFDictionaryRef dictionary, const void* _Nullable key);

/// False when the number does not fit.
extern Boolean CFNumberGetValue(CFNumberRef number, CFNumberType type, void* outValue);

enum {
  kCFUserNotificationStopAlertLevel = 0,
  kCFUserNotificationNoteAlertLevel = 1,
  kCFUserNotificationCautionAlertLevel = 2
};

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
