#include "platform/Desktop.h"

#import <CoreServices/CoreServices.h>
#import <Foundation/Foundation.h>
#include <unistd.h>

#include "Convert.h"

namespace mirel {
namespace {

class FoundationDesktop final : public Desktop {
 public:
  [[nodiscard]] std::string appPath() noexcept override {
    @autoreleasepool {
      NSString* path = [[NSBundle mainBundle] bundlePath];
      return [[path pathExtension] isEqualToString:@"app"] ? textOf(path).toUtf8() : std::string{};
    }
  }

  [[nodiscard]] bool appWasOpened() noexcept override {
    constexpr pid_t kLaunchd = 1;  // starts what Finder opens
    return getppid() == kLaunchd;
  }

  [[nodiscard]] std::int32_t registerApp() noexcept override {
    @autoreleasepool {
      constexpr Boolean kReadAgain = 1;  // also when the app is known already
      return LSRegisterURL((CFURLRef)[[NSBundle mainBundle] bundleURL], kReadAgain);
    }
  }

  [[nodiscard]] Text localized(std::string_view english) noexcept override {
    @autoreleasepool {
      NSString* key = stringOf(Text::fromUtf8(english));
      return textOf([[NSBundle mainBundle] localizedStringForKey:key value:key table:@"App"]);
    }
  }

  [[nodiscard]] bool showMessage(const Text& title, const Text& text) noexcept override {
    @autoreleasepool {
      constexpr CFTimeInterval kWithoutEnd = 0;
      NSURL* icon = [[NSBundle mainBundle] URLForResource:@"AppIcon" withExtension:@"icns"];
      CFOptionFlags answer = 0;
      return CFUserNotificationDisplayAlert(kWithoutEnd, kCFUserNotificationNoteAlertLevel, (CFURLRef)icon,
                                            nullptr, nullptr, (CFStringRef)stringOf(title),
                                            (CFStringRef)stringOf(text), nullptr, nullptr, nullptr,
                                            &answer) == 0;
    }
  }
};

}  // namespace

std::shared_ptr<Desktop> systemDesktop() { return std::make_shared<FoundationDesktop>(); }

}  // namespace mirel
