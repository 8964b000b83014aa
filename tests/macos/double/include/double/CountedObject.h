#pragma once

#import <Foundation/Foundation.h>

/// The root of the double's classes: counts the objects that live from their initialisation on, by the names
/// of the classes right below it (see `livingObjects`).
@interface CountedObject : NSObject {
 @private
  const char* _countedAs;
}
// As the platform's NSObject declares it, so that the compiler warns of the same initialisers.
- (instancetype)init NS_DESIGNATED_INITIALIZER;
@end
