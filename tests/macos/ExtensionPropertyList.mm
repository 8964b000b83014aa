#include "ExtensionPropertyList.h"

#import <Foundation/Foundation.h>

#import "double/Utf8.h"

namespace mirel::test {

std::string driverClassInPropertyList() {
  @autoreleasepool {
    NSDictionary* const list = [NSDictionary dictionaryWithContentsOfFile:@MIREL_EXTENSION_PROPERTY_LIST];
    NSDictionary* const extension = [list objectForKey:@"NSExtension"];
    NSDictionary* const attributes = [extension objectForKey:@"NSExtensionAttributes"];
    return utf8Of([attributes objectForKey:@"com.apple.ctk.driver-class"]);
  }
}

}  // namespace mirel::test
