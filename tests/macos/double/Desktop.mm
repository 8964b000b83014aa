#import "Desktop.h"

#import <CoreServices/CoreServices.h>

#include <utility>

#import "Switches.h"

using namespace mirel::test;

namespace {

DesktopRequests& requests() {
  static DesktopRequests all;
  return all;
}

std::string utf8Of(NSString* text) { return text ? std::string{[text UTF8String]} : std::string{}; }

}  // namespace

namespace mirel::test {

DesktopRequests takeDesktopRequests() { return std::exchange(requests(), {}); }

}  // namespace mirel::test

SInt32 CFUserNotificationDisplayAlert(CFTimeInterval timeout, CFOptionFlags flags, CFURLRef iconURL, CFURLRef,
                                      CFURLRef, CFStringRef alertHeader, CFStringRef alertMessage,
                                      CFStringRef, CFStringRef, CFStringRef, CFOptionFlags* responseFlags) {
  requests().messages.push_back({utf8Of((NSString*)alertHeader), utf8Of((NSString*)alertMessage),
                                 utf8Of([[(NSURL*)iconURL path] lastPathComponent]), flags, timeout});
  *responseFlags = 0;
  return switches().messageStatus;
}

OSStatus LSRegisterURL(CFURLRef url, Boolean update) {
  requests().registrations.push_back({utf8Of([(NSURL*)url path]), update != 0});
  return switches().registrationStatus;
}
