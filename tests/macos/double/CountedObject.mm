#import <double/CountedObject.h>
#import <objc/runtime.h>

#import "Switches.h"

using namespace mirel::test;

static const char* nameToCount(Class type) {
  while ([type superclass] != [CountedObject class]) type = [type superclass];
  return class_getName(type);
}

@implementation CountedObject
- (instancetype)init {
  if ((self = [super init])) {
    _countedAs = nameToCount([self class]);
    countObject(_countedAs, 1);
  }
  return self;
}
- (void)dealloc {
  if (_countedAs) countObject(_countedAs, -1);
  [super dealloc];
}
@end
