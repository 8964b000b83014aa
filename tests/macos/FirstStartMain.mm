/// The app without its command line: what it does when it is opened.

#import <Foundation/Foundation.h>

#include "FirstStart.h"
#include "platform/Desktop.h"
#include "platform/UserDirectory.h"

int main(int argc, char**) {
  @autoreleasepool {
    constexpr int kNoApp = 99;
    const auto code =
        mirel::cli::runFirstStart(argc, mirel::systemDesktop().get(), *mirel::systemUserDirectory());
    return code ? static_cast<int>(*code) : kNoApp;
  }
}
