#include "platform/Log.h"

#import <Foundation/Foundation.h>
#import <os/log.h>

#include <string>

#include "Convert.h"
#include "Guard.h"

namespace mirel {
namespace {

/// The lines are built in the core, which puts neither PINs nor decrypted texts into them. They are public,
/// and so is what some lines for NSLog show of data to sign, signatures and data to decrypt: up to 24 bytes.
/// A line over which the platform raises is lost.
class UnifiedLog final : public Log {
 public:
  void systemDefault(std::string_view line) noexcept override {
    guardedSilently([&] { os_log(OS_LOG_DEFAULT, "%{public}s", printableLine(line).c_str()); });
  }
  void systemError(std::string_view line) noexcept override {
    guardedSilently([&] { os_log_error(OS_LOG_DEFAULT, "%{public}s", printableLine(line).c_str()); });
  }
  void process(std::string_view line) noexcept override {
    @autoreleasepool {
      NSString* text = stringOf(Text::fromUtf8(printableLine(line)));
      guardedSilently([&] { NSLog(@"%@", text); });
    }
  }
};

}  // namespace

std::shared_ptr<Log> systemLog() { return std::make_shared<UnifiedLog>(); }

}  // namespace mirel
