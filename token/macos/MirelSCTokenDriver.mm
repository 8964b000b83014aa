#import "MirelSCTokenDriver.h"

#import "Bases.h"
#import "Convert.h"
#import "Errors.h"
#import "TokenObjects.h"

#include "token/MirelSCTokenDriver.h"

@implementation MirelSCTokenDriver

- (instancetype)init {
  self = [super init];
  if (self) {
    core_ = mirel::newDriverCore();
    [self setDelegate:self];
  }
  return self;
}

/// One of its own for each call, which may come on any thread, where the platform knows another initialiser.
- (std::shared_ptr<mirel::MirelSCTokenDriver>)mirel_core {
  return core_ ? core_ : mirel::newDriverCore();
}

- (TKSmartCardToken*)tokenDriver:(TKSmartCardTokenDriver*)driver
         createTokenForSmartCard:(TKSmartCard*)smartCard
                             AID:(NSData*)AID
                           error:(NSError**)error {
  mirel::ErrorArgument argument{error};
  return mirel::objectBehind([self mirel_core]->createTokenForSmartCard(
      mirel::wrapped(self), mirel::wrapped(smartCard), mirel::bytesOf(AID), argument.pointer()));
}

@end
