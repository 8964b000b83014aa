#import "Desktop.h"

#import <CoreServices/CoreServices.h>

#include <utility>

#import "RaisingCall.h"
#import "Switches.h"
#import "Utf8.h"

using namespace mirel::test;

namespace {

DesktopRequests& requests() {
  static DesktopRequests all;
  return all;
}

}  // namespace

namespace mirel::test {

DesktopRequests takeDesktopRequests() { return std::exchange(requests(), {}); }

}  // namespace mirel::test

SInt32 CFUserNotificationDisplayAlert(CFTimeInterval timeout, CFOptionFlags flags, CFURLRef, CFURLRef,
                                      CFURLRef, CFStringRef alertHeader, CFStringRef alertMessage,
                                      CFStringRef, CFStringRef, CFStringRef, CFOptionFlags* responseFlags) {
  raiseIn("CFUserNotificationDisplayAlert");
  requests().messages.push_back(
      {utf8Of((NSString*)alertHeader), utf8Of((NSString*)alertMessage), flags, timeout});
  *responseFlags = 0;
  return switches().messageStatus;
}

OSStatus LSRegisterURL(CFURLRef url, Boolean update) {
  raiseIn("LSRegisterURL");
  requests().registrations.push_back({utf8Of([(NSURL*)url path]), update != 0});
  return switches().registrationStatus;
}
