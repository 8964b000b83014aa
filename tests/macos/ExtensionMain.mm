/// The extension's process as the system starts it: makes the driver that the property list names. Ends
/// with 0 when there is one, which is its own delegate.

#import <CryptoTokenKit/CryptoTokenKit.h>

#include "ExtensionPropertyList.h"
#include "LeakCheck.h"

namespace {

bool startsDriver() {
  @autoreleasepool {
    NSString* const name = [NSString stringWithUTF8String:mirel::test::driverClassInPropertyList().c_str()];
    TKSmartCardTokenDriver* const driver = [[[NSClassFromString(name) alloc] init] autorelease];
    return driver && [driver delegate] == driver;
  }
}

}  // namespace

int main() {
  const bool starts = startsDriver();
  mirel::test::checkForLeaks();
  return starts ? 0 : 1;
}
