#include "Guard.h"

#include "platform/Log.h"

namespace mirel {
namespace {

/// Not by textOf, whose failure would come here again.
Text readText(NSString* string) noexcept {
  return guardedSilently([string] {
    const char* const utf8 = [string UTF8String];
    return utf8 ? Text::fromUtf8(utf8) : Text{};
  });
}

}  // namespace

void logRaised(const char* what, id raised) noexcept {
  @autoreleasepool {
    NSString* name = guardedSilently([&] {
      return [raised isKindOfClass:[NSException class]] ? [raised name] : NSStringFromClass([raised class]);
    });
    NSString* reason = guardedSilently(
        [&] { return [raised isKindOfClass:[NSException class]] ? [raised reason] : [raised description]; });
    systemLog()->systemError(logLine("[Guard-15] %s: the system raised %@: %@; see \"mireltoken items\"",
                                     what, readText(name), readText(reason)));
  }
}

}  // namespace mirel
