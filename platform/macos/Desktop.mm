#include "platform/Desktop.h"

#import <CoreServices/CoreServices.h>
#import <Foundation/Foundation.h>
#include <unistd.h>

#include "Convert.h"
#include "Guard.h"

namespace mirel {
namespace {

class FoundationDesktop final : public Desktop {
 public:
  [[nodiscard]] std::string appPath() noexcept override {
    @autoreleasepool {
      NSString* path = guarded("the place of the app is not known", [] {
        NSString* bundle = [[NSBundle mainBundle] bundlePath];
        return [[bundle pathExtension] isEqualToString:@"app"] ? bundle : nil;
      });
      return textOf(path).toUtf8();
    }
  }

  [[nodiscard]] bool appWasOpened() noexcept override {
    constexpr pid_t kLaunchd = 1;  // starts what Finder opens
    return getppid() == kLaunchd;
  }

  [[nodiscard]] std::int32_t registerApp() noexcept override {
    @autoreleasepool {
      constexpr Boolean kReadAgain = 1;  // also when the app is known already
      std::int32_t status = kLSUnknownErr;
      guarded("the app is not made known",
              [&] { status = LSRegisterURL((CFURLRef)[[NSBundle mainBundle] bundleURL], kReadAgain); });
      return status;
    }
  }

  [[nodiscard]] Text localized(std::string_view english) noexcept override {
    @autoreleasepool {
      const Text text = Text::fromUtf8(english);
      NSString* key = stringOf(text);
      const Text found = textOf(guarded("a text is not translated", [key] {
        return [[NSBundle mainBundle] localizedStringForKey:key value:key table:@"App"];
      }));
      return found.isNull() ? text : found;
    }
  }

  [[nodiscard]] bool showMessage(const Text& title, const Text& text) noexcept override {
    @autoreleasepool {
      constexpr CFTimeInterval kWithoutEnd = 0;
      CFStringRef const header = (CFStringRef)stringOf(title);
      CFStringRef const message = (CFStringRef)stringOf(text);
      return guarded("a message is not shown", [&] {
        NSURL* icon = [[NSBundle mainBundle] URLForResource:@"AppIcon" withExtension:@"icns"];
        CFOptionFlags answer = 0;
        return CFUserNotificationDisplayAlert(kWithoutEnd, kCFUserNotificationNoteAlertLevel, (CFURLRef)icon,
                                              nullptr, nullptr, header, message, nullptr, nullptr, nullptr,
                                              &answer) == 0;
      });
    }
  }
};

}  // namespace

std::shared_ptr<Desktop> systemDesktop() { return std::make_shared<FoundationDesktop>(); }

}  // namespace mirel
