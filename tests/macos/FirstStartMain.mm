/// The app without its command line: what it does when it is opened.

#import <Foundation/Foundation.h>

#include "FirstStart.h"
#include "platform/Desktop.h"
#include "platform/UserDirectory.h"

int main() {
  @autoreleasepool {
    const auto desktop = mirel::systemDesktop();
    if (desktop->appPath().empty()) return 99;
    return static_cast<int>(mirel::cli::runFirstStart(*desktop, *mirel::systemUserDirectory()));
  }
}
