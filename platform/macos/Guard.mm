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

void logRaised(const char* what, NSException* exception) noexcept {
  @autoreleasepool {
    systemLog()->systemError(logLine("[Guard-15] %s: the system raised %@: %@; see \"mireltoken items\"",
                                     what, readText([exception name]), readText([exception reason])));
  }
}

}  // namespace mirel
